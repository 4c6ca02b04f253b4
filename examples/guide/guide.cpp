// The pieces of code in docs/guide.md and README.md, and a program that runs them. A piece stands between two lines
// "// [name]"; scripts/snippets copies it into the pages.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "ContentHelper.h"
#include "SharedQueryObject.h"
#include "VantryConnection.h"
#include "VantryExtras.h"

namespace {

void Expect(bool good, const char* what) {
    if (!good) {
        std::fprintf(stderr, "guide: %s\n", what);
        std::exit(1);
    }
}

struct Film {
    std::string title;
    int year;
};

// [write]
bool WriteFilms(CVantryConnection& connection, const std::vector<Film>& films) {
    // Rolled back when it is left before its commit.
    CTransactionScope transaction(connection);
    if (transaction.Result() != 0) {
        return false;  // -16: another process writes, and did not end in 0.9 s
    }
    for (const Film& film : films) {
        CBundle row;
        row.Put("title", film.title);
        row.Put("year", film.year);
        if (connection.InsertRequest("films", row.Get()) != 0) {
            return false;
        }
    }
    return transaction.Commit() == 0;
}
// [write]

// [bulk]
// Puts the films of a service in the place of those that are there: all of them, or nothing has changed.
bool Sync(CVantryConnection& connection, const std::vector<Film>& films) {
    CTransactionScope transaction(connection);
    if (transaction.Result() != 0 || connection.DeleteRequest("films", "") != 0) {
        return false;
    }
    CBulkInsert rows(transaction, "films", {"title", "year"});
    for (const Film& film : films) {
        if (rows.Insert(film.title, film.year) != 0) {
            return false;
        }
    }
    int committed = transaction.Commit();
    if (committed == -16) {
        committed = transaction.Commit();  // a reader was in the way; the transaction is open still
    }
    return committed == 0;
}
// [bulk]

bool CreateAndFill(const std::string& directory) {
    // [open]
    CVantryConnection connection(directory, "films.db", 6);  // 6: read, write, create
    if (connection.OpenOperation() != 0) {
        return false;  // the log says why
    }
    std::string error;
    connection.ExcuteSQL(
        "CREATE TABLE IF NOT EXISTS films (_id INTEGER PRIMARY KEY, title TEXT, year INTEGER)", error);
    // [open]
    return WriteFilms(connection, {{"The General", 1926}, {"Sherlock Jr.", 1924}, {"Häxan", 1922}});
}

bool Change(CVantryConnection& connection) {
    // [change]
    CBundle row;
    row.Put("title", "Witchcraft Through the Ages");
    const bool updated = connection.UpdateRequest("films", row.Get(), "title = ?", {"Häxan"}) == 0;
    const bool deleted = connection.DeleteRequest("films", "year < ?", {"1900"}) == 0;
    // [change]
    return updated && deleted;
}

// [query]
std::vector<std::string> TitlesSince(CVantryConnection& connection, int year) {
    std::vector<std::string> titles;
    const auto cursor = connection.SelectRequest("films", {"title", "year"}, "year >= ?",
                                                 std::vector<std::string>{CContentHelper::ToSQLFormat(year)},
                                                 "year DESC", "");
    if (!cursor) {
        return titles;  // the statement was refused; the log says why
    }
    while (cursor->MoveNextStep() == 0) {
        std::string title;
        if (cursor->GetStringData(0, title) == 0) {
            titles.push_back(title);
        }
    }
    return titles;
}
// [query]

// [complete]
// Reads years from a live statement. Only -34 says that the result was read to its end.
bool SumOfYears(CVantryConnection& connection, long long& sum) {
    CRows rows(connection.SelectRequest("films", {"year"}, "", "", false));
    sum = 0;
    for (auto row : rows) {
        sum += row.Get<long long>("year").ValueOr(0);  // a film without a year has null
    }
    return rows.Result() == -34;
}
// [complete]

// [rows]
void PrintFilms(const std::shared_ptr<ISQLiteCursor>& cursor) {
    CRows rows(cursor);
    for (auto row : rows) {
        const auto title = row.Get<std::string>("title").ValueOr("(no title)");
        if (const auto year = row.Get<int>("year")) {
            std::printf("%s, %d\n", title.c_str(), year.Value());
        } else {
            std::printf("%s\n", title.c_str());
        }
    }
    if (!rows.IsAtEnd()) {
        std::printf("... and perhaps more (%d)\n", rows.Result());
    }
}
// [rows]

// [walk]
void PrintBothWays(ISQLiteCursor& cursor) {
    const int title = cursor.GetColumnIndex("title");
    if (title < 0 || title >= cursor.GetColumnCount()) {
        return;  // an unknown name gives the number of columns
    }
    std::string text;
    while (cursor.MoveNextStep() == 0) {
        cursor.GetStringData(title, text);
        std::printf("%d: %s\n", cursor.GetCurrentRowIndex(), text.c_str());
    }
    // The cursor stands on the last row now.
    while (cursor.MovePreviousStep() == 0) {
        cursor.GetStringData(title, text);
        std::printf("%d: %s\n", cursor.GetCurrentRowIndex(), text.c_str());
    }
}
// [walk]

// [store]
// In the provider: the name and the size go to the consumer by the platform's messages.
bool Offer(CVantryConnection& connection, std::string& name, int& size) {
    const auto cursor = connection.SelectRequest("films", {}, "", "year");  // preloaded: it has seen its end
    return ISharedQueryObject::StoreCursor(cursor, "films-provider-", name, size) == 0;
}
// [store]

// [fetch]
// In the consumer: the first who asks receives the rows, and the object is gone.
int CountRows(const std::string& name, int size) {
    const auto cursor = ISharedQueryObject::GetCursor(name, size);
    return cursor ? cursor->GetNumbersOfRows() : -1;
}
// [fetch]

// [derive]
class FilmStore : public CContentHelper {
public:
    explicit FilmStore(const std::string& directory) : CContentHelper(directory, "films.db", 1) {}

    // Called under the helper's lock after every open: the place for the schema.
    void OnConfigure(CVantryConnection* connection) override {
        std::string error;
        connection->ExcuteSQL(
            "CREATE TABLE IF NOT EXISTS films (_id INTEGER PRIMARY KEY, title TEXT, year INTEGER)", error);
    }
    void OnCreate(CVantryConnection*) override {}
    void OnUpgrade(CVantryConnection*, int, int) override {}
    // [derive]

    // [backup]
    // Copies the database only when it is sound, and believes the copy only when that is sound.
    bool SafeBackup() {
        if (GetConnection() == nullptr || CheckDBCorruption()) {
            return false;  // the backup of yesterday is the better one
        }
        const bool copied = BackupDB();
        DisconnectDB();  // BackupDB() has closed the connection
        return copied && IsSound(File() + DB_BACKUP_POSTFIX) && ConnectDB() != nullptr;
    }
    // [backup]

    // [restore]
    // Lets go of the database only when the side file has proved sound, and asks the restored one itself.
    bool SafeRestore() {
        if (!IsSound(File() + DB_BACKUP_POSTFIX)) {
            return false;
        }
        // A file too damaged to be opened has no connection, and RestoreDB() needs one. Opening is lazy: SQLite looks
        // into the file at its first statement.
        if (GetConnection() == nullptr || !RestoreDB(BACKUP_STAGE_FIRST)) {
            return false;  // the side file is still there
        }
        DisconnectDB();
        return ConnectDB() != nullptr && !CheckDBCorruption();
    }
    // [restore]

    // [probe]
    enum class Health { Sound, Busy, Corrupted };

    // The probe takes a database that is merely busy for a corrupted one; a read tells them apart.
    Health Examine() {
        if (GetConnection() != nullptr && !CheckDBCorruption()) {
            return Health::Sound;
        }
        std::string error;
        const bool busy = m_database != nullptr &&
                          m_database->ExcuteSQL("SELECT count(*) FROM sqlite_master", error) == -16;
        return busy ? Health::Busy : Health::Corrupted;
    }
    // [probe]

    std::string File() const { return m_dbPath + m_dbName; }

private:
    // [sound]
    static bool IsSound(const std::string& file) {
        CVantryConnection connection("", file, 1);
        return connection.OpenOperation() == 0 && connection.IntegrityCheck();
    }
    // [sound]
};

void RunAll(const std::string& directory) {
    Expect(CreateAndFill(directory), "open and write");
    {
        CVantryConnection connection(directory, "films.db", 2);
        Expect(connection.OpenOperation() == 0, "open again");
        Expect(TitlesSince(connection, 1924) == std::vector<std::string>({"The General", "Sherlock Jr."}),
               "query");
        long long sum = 0;
        Expect(SumOfYears(connection, sum) && sum == 1926 + 1924 + 1922, "complete");
        Expect(Change(connection), "change");
        PrintFilms(connection.SelectRequest("films", {}, "", "title"));
        PrintBothWays(*connection.SelectRequest("films", {}, "", "title"));
        const std::vector<Film> films = {{"The General", 1926}, {"Häxan", 1922}, {"'Way Down East'", 1920}};
        Expect(Sync(connection, films), "sync");
        Expect(Sync(connection, films), "sync again");
        Expect(TitlesSince(connection, 1900) ==
                   std::vector<std::string>({"The General", "Häxan", "'Way Down East'"}),
               "read what was synchronised");
        std::string name;
        int size = 0;
        Expect(Offer(connection, name, size), "store");
        Expect(CountRows(name, size) == 3, "fetch");
        Expect(CountRows(name, size) == -1, "fetch again");
    }
    FilmStore store(directory);
    Expect(store.Examine() == FilmStore::Health::Sound, "probe");
    Expect(store.SafeBackup(), "back up");
    {
        CVantryConnection other(directory, "films.db", 2);
        Expect(other.OpenOperation() == 0, "open beside");
        other.BeginTransaction(true);
        Expect(store.Examine() == FilmStore::Health::Busy, "probe a busy database");
        other.RollbackTransaction();
    }
    store.DisconnectDB();
    std::filesystem::resize_file(store.File(), 5000);
    Expect(store.Examine() == FilmStore::Health::Corrupted, "probe a damaged database");
    Expect(!store.SafeBackup(), "a damaged database is not backed up");
    Expect(store.SafeRestore(), "restore");
    Expect(TitlesSince(*store.GetConnection(), 1900).size() == 3, "read what was restored");
}

}  // namespace

int main() {
    std::string directory = std::filesystem::temp_directory_path().string() + "/vantry-guide-XXXXXX";
    Expect(mkdtemp(directory.data()) != nullptr, "make a directory");
    RunAll(directory + "/");
    std::filesystem::remove_all(directory);
    return 0;
}

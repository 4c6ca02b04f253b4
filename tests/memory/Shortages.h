#pragma once

#include <bundle.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "../reliability/SystemCalls.h"
#include "FailingNew.h"
#include "Fixtures.h"
#include "LogCapture.h"
#include "SQLiteCursor.h"
#include "SqliteFaults.h"
#include "VantryConnection.h"

// What the tests of a shortage of memory share: a database whose texts are all too long for a string itself, and the
// sweeps, which fail an operation's first allocation, then its second, until it needs no more.
namespace shortage {

using support::Bundle;
using support::FailingNew;
using support::LogCapture;
using support::OpenConnection;
using support::Shortage;

constexpr int kUnknown = static_cast<int>(0xC0000000U);

// All longer than what a string keeps in itself, so that every copy allocates.
inline const std::string kTable = "a_table_with_a_long_name";
inline const std::string kName = "a_column_with_a_long_name";
inline const std::string kNote = "a_second_column_with_a_long_name";
inline const std::string kWhereFirst = "a_column_with_a_long_name = 'the first row of the table'";
inline const std::string kWhereArgument = "a_column_with_a_long_name = ?";
inline const std::string kFirstName = "the first row of the table";
inline const std::string kOrder = "a_column_with_a_long_name DESC; and more";

inline std::vector<std::string> Rows(sqlite3* db, const std::string& sql) {
    std::vector<std::string> rows;
    sqlite3_stmt* statement = support::Prepare(db, sql);
    while (sqlite3_step(statement) == SQLITE_ROW) {
        std::string row;
        for (int column = 0; column < sqlite3_column_count(statement); ++column) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
            row += column > 0 ? "|" : "";
            row += text != nullptr ? text : "NULL";
        }
        rows.push_back(row);
    }
    sqlite3_finalize(statement);
    return rows;
}

inline void Exec(sqlite3* db, const std::string& sql) {
    ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
}

// Where a database is: in a file in one of these journal modes, or, without one, in memory.
inline const std::vector<std::string> kJournals = {"", "DELETE", "WAL"};

// An open connection to a database with three rows.
class Database {
public:
    explicit Database(const std::string& journal = "") {
        if (!journal.empty()) {
            withoutSyncs.emplace(false);
            directory.emplace();
            std::filesystem::copy_file(Made(journal), directory->File(kFileName));
            connection.m_dbPath = directory->Path();
            connection.m_dbName = kFileName;
        }
        EXPECT_EQ(connection.OpenOperation(), 0);
        if (journal.empty()) {
            Exec(Handle(), kThreeRows);
        }
    }

    sqlite3* Handle() const { return connection.m_pDB; }
    std::vector<std::string> All() const {
        return Rows(Handle(), "SELECT * FROM " + kTable + " ORDER BY rowid");
    }
    // The rows as another connection finds them in the file, which must be sound.
    std::vector<std::string> Stored() const {
        if (!directory.has_value()) {
            return All();
        }
        support::RawDb db(directory->File(kFileName));
        EXPECT_THAT(db.Query("PRAGMA integrity_check"), ::testing::ElementsAre("ok"));
        return db.Query("SELECT * FROM " + kTable + " ORDER BY rowid");
    }
    bool HasStatements() const { return sqlite3_next_stmt(Handle(), nullptr) != nullptr; }

    // What is tested is memory: nothing waits for the disk.
    std::optional<reliability::SystemCalls> withoutSyncs;
    std::optional<support::TempDir> directory;
    OpenConnection connection{"", ":memory:", 6};

private:
    // The file that is copied, made once for each journal mode.
    static std::string Made(const std::string& journal) {
        static const support::TempDir files;
        const std::string path = files.File(journal + ".db");
        if (!std::filesystem::exists(path)) {
            support::RawDb db(path);
            db.Exec("PRAGMA journal_mode = " + journal);
            db.Exec(kThreeRows);
        }
        return path;
    }

    static inline const std::string kFileName = "short.db";
    static inline const std::string kThreeRows =
        "CREATE TABLE " + kTable + " (" + kName + " TEXT UNIQUE, " + kNote + " TEXT); INSERT INTO " + kTable +
        " VALUES ('the first row of the table', 'the note of the first row'),"
        " ('the second row of the table', 'the note of the second row'),"
        " ('the third row of the table', 'the note of the third row')";
};

inline const std::string kRow1 = "the first row of the table|the note of the first row";
inline const std::string kRow2 = "the second row of the table|the note of the second row";
inline const std::string kRow3 = "the third row of the table|the note of the third row";
inline const std::string kNewRow = "the new row of the table|the note of the new row";

// Columns of `kNewRow`, as SQL literals.
class NewRow : public Bundle {
public:
    NewRow()
        : Bundle{{kName.c_str(), "'the new row of the table'"},
                 {kNote.c_str(), "'the note of the new row'"}} {}
};

// One call of an operation under a shortage, and what it logged.
class Attempt {
public:
    Attempt(Shortage shortage, int number) : m_shortage(shortage), m_number(number) {}

    // Makes the call; it must take its arguments and give its result without allocations of the test's own.
    template <typename Call>
    void Run(Call call) {
        const LogCapture log;
        {
            FailingNew failing(m_shortage, m_number);
            try {
                call();
            } catch (...) {
                failing.Stop();
                ADD_FAILURE() << "an exception left the operation";
            }
            failing.Stop();
            m_failed = failing.Failed();
        }
        m_ran = true;
        m_lines = log.Lines();
        ++s_calls;
        s_failed += m_failed > 0 ? 1 : 0;
    }

    bool Ran() const { return m_ran; }
    // Calls of the whole program, and those of them in which an allocation failed.
    static int Calls() { return s_calls; }
    static int CallsWithAFailure() { return s_failed; }
    // Allocations that failed.
    int Failed() const { return m_failed; }
    const std::vector<std::string>& Lines() const { return m_lines; }
    bool OfSqlite() const {
        return m_shortage == Shortage::OneOfSqlite || m_shortage == Shortage::AllOfSqlite;
    }
    int Count(const std::string& line) const {
        return static_cast<int>(std::count(m_lines.begin(), m_lines.end(), line));
    }
    // The functions that logged `text` at info priority, one entry a line.
    std::vector<std::string> Loggers(const std::string& text) const {
        std::vector<std::string> loggers;
        for (const std::string& line : m_lines) {
            const auto end = line.find(" > ");
            if (line.rfind("I ", 0) == 0 && line.substr(end + 3) == text) {
                loggers.push_back(line.substr(2, end - 2));
            }
        }
        return loggers;
    }
    bool HasInfoLine() const {
        return std::any_of(m_lines.begin(), m_lines.end(),
                           [](const std::string& line) { return line.rfind("I ", 0) == 0; });
    }

private:
    Shortage m_shortage;
    int m_number;
    bool m_ran = false;
    int m_failed = 0;
    std::vector<std::string> m_lines;
    static inline int s_calls = 0;
    static inline int s_failed = 0;
};

using Scenario = std::function<void(Attempt&)>;

// Runs a scenario with the call's first allocation failing, then the next, until none fails any more.
// Returns how many there were.
inline int SweepOne(Shortage shortage, const Scenario& scenario,
                    const std::function<void(const Attempt&)>& check) {
    for (int number = 1; number < 5000; ++number) {
        SCOPED_TRACE("allocation " + std::to_string(number));
        Attempt attempt(shortage, number);
        scenario(attempt);
        EXPECT_TRUE(attempt.Ran());
        if (attempt.Failed() == 0 || ::testing::Test::HasFailure()) {
            return number - 1;
        }
        check(attempt);
    }
    ADD_FAILURE() << "the allocations have no end";
    return 0;
}

// The library's own allocations: each that fails is told by a line of one of the `loggers`, and of none else.
inline int Sweep(const std::vector<std::string>& loggers, const Scenario& scenario) {
    int count = 0;
    for (const Shortage shortage : {Shortage::OneOfNew, Shortage::AllOfNew}) {
        SCOPED_TRACE(shortage == Shortage::OneOfNew ? "one allocation fails"
                                                    : "all allocations fail from one on");
        count = SweepOne(shortage, scenario, [&loggers](const Attempt& attempt) {
            std::vector<std::string> told = attempt.Loggers("The memory is insufficient");
            for (const char* text :
                 {"Error local scoped lock is not working", "Failed to connect DB : memory is not enough!"}) {
                for (std::string& logger : attempt.Loggers(text)) {
                    told.push_back(std::move(logger));
                }
            }
            EXPECT_FALSE(told.empty()) << ::testing::PrintToString(attempt.Lines());
            for (const std::string& logger : told) {
                EXPECT_THAT(loggers, ::testing::Contains(logger));
            }
        });
    }
    return count;
}

// The names of exported operations; every_operation.sh looks for the ones that stand in no sweep.
class Operations {
public:
    Operations(std::initializer_list<const char*> names) {
        for (const char* const name : names) {
            m_text += (m_text.empty() ? "" : ", ") + std::string(name);
        }
    }
    const std::string& Text() const { return m_text; }

private:
    std::string m_text;
};

// SQLite's allocations. What SQLite has afterwards is what it had before.
inline int SweepSqlite(const Operations& operations, const Scenario& scenario,
                       const std::vector<Shortage>& shortages = {Shortage::OneOfSqlite,
                                                                 Shortage::AllOfSqlite}) {
    sqlite3_initialize();
    int count = 0;
    for (const Shortage shortage : shortages) {
        SCOPED_TRACE(operations.Text() + (shortage == Shortage::OneOfSqlite
                                              ? ": one of SQLite's allocations fails"
                                              : ": all of SQLite's allocations fail from one on"));
        count = SweepOne(
            shortage,
            [&scenario](Attempt& attempt) {
                const sqlite3_int64 before = sqlite3_memory_used();
                scenario(attempt);
                EXPECT_EQ(sqlite3_memory_used(), before);
            },
            [](const Attempt& /*attempt*/) {});
    }
    return count;
}

// The same for an operation on a database, in memory and in files: those need memory for their pages and journals.
inline void SweepJournals(const Operations& operations,
                          const std::function<void(const std::string& journal, Attempt& attempt)>& scenario) {
    int inMemory = 0;
    for (const std::string& journal : kJournals) {
        SCOPED_TRACE(journal.empty() ? "in memory" : journal);
        const int count = SweepSqlite(operations, [&](Attempt& attempt) { scenario(journal, attempt); });
        if (journal.empty()) {
            inMemory = count;
            EXPECT_GE(count, 1);
        } else {
            EXPECT_GT(count, inMemory);
        }
    }
}

// An operation that needs no memory of the library's own.
inline void ExpectNone(const Scenario& scenario) { EXPECT_EQ(Sweep({}, scenario), 0); }

// All the rows that a cursor has, by the getters; a value that is not there reads "-14".
inline std::vector<std::string> Walk(ISQLiteCursor& cursor) {
    std::vector<std::string> rows;
    while (cursor.MoveNextStep() == 0) {
        std::string row;
        for (int column = 0; column < cursor.GetColumnCount(); ++column) {
            std::string value;
            const int result = cursor.GetStringData(column, value);
            row += (column > 0 ? "|" : "") + (result == 0 ? value : std::to_string(result));
        }
        rows.push_back(row);
    }
    return rows;
}

// A live cursor over the three rows.
class Result {
public:
    explicit Result(const std::string& columns = "*", const std::string& journal = "")
        : database(journal),
          cursor(database.Handle(), support::Prepare(database.Handle(), "SELECT " + columns + " FROM " +
                                                                            kTable + " ORDER BY rowid")) {}

    // The current row, a value that is not there as "-14".
    std::string Row() {
        std::string first;
        std::string second;
        const int firstResult = cursor.GetStringData(0, first);
        const int secondResult = cursor.GetStringData(1, second);
        return (firstResult == 0 ? first : std::to_string(firstResult)) + "|" +
               (secondResult == 0 ? second : std::to_string(secondResult));
    }

    Database database;
    support::OpenCursor cursor;
};

// A row, also with values that are not there.
inline ::testing::Matcher<std::string> RowOrGaps(const std::string& row) {
    const auto bar = row.find('|');
    return ::testing::AnyOf(row, "-14" + row.substr(bar), row.substr(0, bar) + "|-14", "-14|-14");
}

// Kept: a target that could not be opened leaves its handle behind, the last one that was opened.
inline void CloseLeftTarget(const support::SqliteFaults& sqlite, int closes) {
    const auto opened = sqlite.Opened();
    if (opened.size() == 2 && sqlite.Calls("sqlite3_close") < closes && opened.back().code != SQLITE_OK) {
        sqlite3_close(opened.back().handle);
    }
}

}  // namespace shortage

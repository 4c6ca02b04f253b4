#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ContentHelper.h"
#include "Fixtures.h"
#include "LogCapture.h"
#include "OtherProcess.h"
#include "Sleeps.h"
#include "SqliteFaults.h"
#include "SystemCalls.h"
#include "VantryConnection.h"

// The system fails under SQLite: the n-th call of a kind, for every n until the operation passes untouched.

namespace {

using reliability::CallKind;
using reliability::NameOf;
using reliability::SystemCall;
using reliability::SystemCalls;
using support::Bundle;
using support::LogCapture;
using support::OtherProcess;
using support::RawDb;
using support::Sleeps;
using support::SqliteFaults;
using support::TempDir;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::IsEmpty;

constexpr int kUnknown = static_cast<int>(0xC0000000U);
constexpr int kIo = -5;
constexpr int kBusy = -16;
constexpr int kReadOnly = -30;

using Rows = std::vector<std::string>;

// ---- Faults -----------------------------------------------------------------------------------------------------

struct Fault {
    CallKind kind;
    // The errno; -1: a write does half of it, and says so.
    int error;
    // From the n-th call on, or the n-th alone.
    bool forGood;
};

std::string Show(const Fault& fault) {
    const std::string error = fault.error < 0 ? "half done" : std::strerror(fault.error);
    return std::string(NameOf(fault.kind)) + ": " + error + (fault.forGood ? ", for good" : ", once");
}

// An interrupted read or write is made again by SQLite, without end; so they are interrupted once.
const std::vector<Fault>& Faults() {
    static const std::vector<Fault> faults = {
        {CallKind::Open, EIO, false},     {CallKind::Open, EIO, true},
        {CallKind::Open, EMFILE, true},   {CallKind::Open, EINTR, false},
        {CallKind::Read, EIO, false},     {CallKind::Read, EIO, true},
        {CallKind::Read, EINTR, false},   {CallKind::Write, EIO, false},
        {CallKind::Write, EIO, true},     {CallKind::Write, ENOSPC, false},
        {CallKind::Write, ENOSPC, true},  {CallKind::Write, EINTR, false},
        {CallKind::Write, -1, false},     {CallKind::Write, -1, true},
        {CallKind::Sync, EIO, false},     {CallKind::Sync, EIO, true},
        {CallKind::Sync, ENOSPC, true},   {CallKind::Truncate, EIO, false},
        {CallKind::Truncate, EIO, true},  {CallKind::Truncate, EINTR, false},
        {CallKind::Lock, EIO, false},     {CallKind::Lock, EIO, true},
        {CallKind::Lock, EAGAIN, false},  {CallKind::Lock, EAGAIN, true},
        {CallKind::Lock, EINTR, false},   {CallKind::Lock, ENOLCK, true},
        {CallKind::Unlock, EIO, false},   {CallKind::Unlock, EIO, true},
        {CallKind::Remove, EIO, false},   {CallKind::Remove, EIO, true},
        {CallKind::Remove, EACCES, true}, {CallKind::Map, ENOMEM, false},
        {CallKind::Map, ENOMEM, true},    {CallKind::Stat, EIO, false},
        {CallKind::Stat, EIO, true},
    };
    return faults;
}

class FailingCalls : public SystemCalls {
public:
    FailingCalls(const Fault& fault, int number) : SystemCalls(false), m_fault(fault), m_number(number) {}

    int Before(const SystemCall& call) override {
        if (call.kind != m_fault.kind || !m_armed) {
            return 0;
        }
        ++m_calls;
        const bool fails = m_fault.forGood ? m_calls >= m_number : m_calls == m_number;
        // Half of one byte is all of it: such a write goes on for ever.
        if (!fails || (m_fault.error < 0 && call.count < 2)) {
            return 0;
        }
        ++m_failed;
        return m_fault.error;
    }
    void Start() { m_armed = true; }
    void Stop() { m_armed = false; }
    CallKind Kind() const { return m_fault.kind; }
    int Failed() const { return m_failed; }

private:
    Fault m_fault;
    int m_number;
    bool m_armed = false;
    int m_calls = 0;
    int m_failed = 0;
};

// What a sweep met, for the line that it prints.
struct Figures {
    int runs = 0;
    int faults = 0;
    int refused = 0;
    // Refused by the commit, and there all the same, whole.
    int refusedButThere = 0;
};

using Kinds = std::set<CallKind>;

// The kinds of calls that reading makes of the system. A write-ahead log is made by whoever opens the database.
Kinds ReadingKinds(const std::string& mode) {
    Kinds kinds = {CallKind::Open, CallKind::Read, CallKind::Lock, CallKind::Unlock, CallKind::Stat};
    if (mode == "WAL") {
        kinds.insert({CallKind::Write, CallKind::Truncate, CallKind::Map});
    }
    return kinds;
}

// And writing: the modes differ in how a journal ends.
Kinds WritingKinds(const std::string& mode) {
    Kinds kinds = ReadingKinds(mode);
    kinds.insert({CallKind::Write, CallKind::Sync});
    if (mode == "DELETE") {
        kinds.insert(CallKind::Remove);
    } else if (mode == "TRUNCATE") {
        kinds.insert(CallKind::Truncate);
    }
    return kinds;
}

// And writing and closing, which ends a write-ahead log.
Kinds ClosingKinds(const std::string& mode) {
    Kinds kinds = WritingKinds(mode);
    if (mode == "WAL") {
        kinds.insert(CallKind::Remove);
    }
    return kinds;
}

// Runs a scenario for every fault with the first call of the kind failing, then the second, until none fails. A kind
// that is never met ends at once: those that the scenario must meet are named.
Figures Sweep(const Kinds& required,
              const std::function<void(FailingCalls& calls, Figures& figures)>& scenario) {
    Figures figures;
    Kinds met;
    for (const Fault& fault : Faults()) {
        for (int number = 1;; ++number) {
            SCOPED_TRACE(Show(fault) + ", from call " + std::to_string(number));
            int failed = 0;
            {
                FailingCalls calls(fault, number);
                scenario(calls, figures);
                failed = calls.Failed();
            }
            ++figures.runs;
            if (failed == 0 || ::testing::Test::HasFailure()) {
                break;
            }
            ++figures.faults;
            met.insert(fault.kind);
            if (number == 20000) {
                ADD_FAILURE() << "the calls have no end";
                break;
            }
        }
        if (::testing::Test::HasFailure()) {
            break;
        }
    }
    for (const CallKind kind : required) {
        EXPECT_EQ(met.count(kind), 1U) << "no " << NameOf(kind) << " was failed";
    }
    return figures;
}

void Print(const std::string& what, const Figures& figures) {
    std::printf("io: %s: %d runs, %d with a fault, %d refused, %d refused and there whole\n", what.c_str(),
                figures.runs, figures.faults, figures.refused, figures.refusedButThere);
}

// ---- Databases --------------------------------------------------------------------------------------------------

// scripts/soak asks for more.
int RowCount() {
    const char* const setting = std::getenv("VANTRY_IO_ROWS");
    return setting != nullptr ? std::atoi(setting) : 12;
}

std::string Content(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// The bytes of a database file with films, made once for each journal mode and title.
const std::string& FilmsFile(const std::string& mode, const std::string& title) {
    static std::map<std::pair<std::string, std::string>, std::string> files;
    std::string& bytes = files[{mode, title}];
    if (bytes.empty()) {
        const TempDir dir;
        {
            RawDb db(dir.File("a.db"));
            db.Exec("PRAGMA page_size=1024");
            db.Exec("PRAGMA synchronous=OFF");
            db.Exec("CREATE TABLE films (_id INTEGER PRIMARY KEY, title TEXT, filler TEXT)");
            db.Exec("CREATE INDEX by_title ON films (title)");
            db.Exec("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                    std::to_string(RowCount()) + ") INSERT INTO films SELECT i, '" + title +
                    "' || i, printf('%0700d', i) FROM n");
            db.Exec(std::string("PRAGMA journal_mode=") + (mode == "WAL" ? "WAL" : "DELETE"));
        }
        EXPECT_THAT(dir.List(), testing::ElementsAre("a.db"));
        bytes = Content(dir.File("a.db"));
    }
    return bytes;
}

constexpr const char* kAllFilms = "SELECT _id, title, filler FROM films ORDER BY _id";

Rows Films(const std::string& file) {
    RawDb db(file);
    db.Exec("PRAGMA synchronous=OFF");
    EXPECT_THAT(db.Query("PRAGMA integrity_check"), testing::ElementsAre("ok"));
    if (db.Query("SELECT name FROM sqlite_master WHERE name = 'films'").empty()) {
        return {"no table"};
    }
    return db.Query(kAllFilms);
}

int OpenFiles() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                          std::filesystem::directory_iterator()));
}

// ---- A transaction ----------------------------------------------------------------------------------------------

const std::string kFiller(700, 'n');

// What a program does that follows the guide: every answer is looked at.
struct Transaction {
    std::vector<int> codes;
    bool acknowledged = false;
    bool commitRefused = false;

    bool Did(int code) {
        codes.push_back(code);
        return code == 0;
    }

    void Run(CVantryConnection& connection, const std::vector<std::unique_ptr<Bundle>>& rows,
             const Bundle& change) {
        std::string error;
        if (!Did(connection.ExcuteSQL("BEGIN IMMEDIATE;", error))) {
            return;
        }
        bool good = true;
        for (const auto& row : rows) {
            good = good && Did(connection.InsertRequest("films", *row));
        }
        good = good && Did(connection.UpdateRequest("films", change, "_id = ?", {"2"}));
        good = good && Did(connection.DeleteRequest("films", "_id = ?", {"3"}));
        if (good) {
            acknowledged = Did(connection.ExcuteSQL("COMMIT;", error));
            commitRefused = !acknowledged;
        }
        if (!acknowledged) {
            connection.ExcuteSQL("ROLLBACK;", error);
        }
    }
};

// The three kinds of codes that the operations above document.
void ExpectDocumented(int code) {
    EXPECT_THAT(code, AnyOf(kIo, kBusy, -12, -22, -30, kUnknown, SQLITE_BUSY, SQLITE_IOERR, SQLITE_FULL,
                            SQLITE_CANTOPEN, SQLITE_NOMEM, SQLITE_READONLY, SQLITE_CORRUPT));
}

class Write : public testing::TestWithParam<const char*> {
protected:
    Write() {
        for (int i = 0; i < 6; ++i) {
            rows.push_back(std::make_unique<Bundle>());
            bundle_add_str(*rows.back(), "title", ("new film " + std::to_string(i)).c_str());
            bundle_add_str(*rows.back(), "filler", kFiller.c_str());
        }
        const TempDir dir;
        dir.Write("a.db", FilmsFile(GetParam(), "film "));
        before = Films(dir.File("a.db"));
        Transaction transaction;
        {
            CVantryConnection connection(dir.Path(), "a.db", 6);
            EXPECT_EQ(connection.OpenOperation(), 0);
            transaction.Run(connection, rows, change);
        }
        EXPECT_TRUE(transaction.acknowledged);
        after = Films(dir.File("a.db"));
        EXPECT_NE(before, after);
    }

    // Opens and writes while the calls fail.
    int OpenAndWrite(CVantryConnection& connection, Transaction& transaction) const {
        const int opened = connection.OpenOperation();
        if (opened == 0) {
            std::string error;
            connection.ExcuteSQL(std::string("PRAGMA journal_mode=") + GetParam(), error);
            // So small a cache that pages go to the file before the commit.
            connection.ExcuteSQL("PRAGMA cache_size=6", error);
            transaction.Run(connection, rows, change);
        }
        return opened;
    }

    void ExpectWhole(const Rows& films, const Transaction& transaction, Figures& figures) const {
        if (transaction.acknowledged) {
            EXPECT_EQ(films, after);
            return;
        }
        ++figures.refused;
        if (transaction.commitRefused && films == after) {
            ++figures.refusedButThere;
            return;
        }
        EXPECT_EQ(films, before);
    }

    std::vector<std::unique_ptr<Bundle>> rows;
    Bundle change{{"title", "changed"}, {"filler", "short"}};
    Rows before;
    Rows after;
};

TEST_P(Write, ClosedWhileCallsFail_IsThereWholeOrRefusedWhole) {
    const Figures swept = Sweep(ClosingKinds(GetParam()), [this](FailingCalls& calls, Figures& figures) {
        const TempDir dir;
        dir.Write("a.db", FilmsFile(GetParam(), "film "));
        const int openFiles = OpenFiles();
        Transaction transaction;
        int opened = 1;
        const LogCapture log;
        {
            const Sleeps sleeps;
            calls.Start();
            CVantryConnection connection(dir.Path(), "a.db", 6);
            opened = OpenAndWrite(connection, transaction);
            connection.CloseDB();
            EXPECT_FALSE(connection.IsOpen());
        }
        calls.Stop();
        EXPECT_EQ(OpenFiles(), openFiles);
        EXPECT_THAT(opened, AnyOf(0, kIo));
        for (const int code : transaction.codes) {
            if (code != 0) {
                ExpectDocumented(code);
            }
        }
        if (!transaction.acknowledged) {
            EXPECT_GT(calls.Failed(), 0);
            // Nothing went on after a refusal, and the last answer is the only one.
            EXPECT_TRUE(opened != 0 || transaction.codes.back() != 0);
        }
        ExpectWhole(Films(dir.File("a.db")), transaction, figures);
    });
    Print(std::string("a transaction, ") + GetParam(), swept);
    EXPECT_GT(swept.refused, 100);
}

TEST_P(Write, WhenCallsSucceedAgain_TheSameConnectionWrites) {
    const Figures swept = Sweep(WritingKinds(GetParam()), [this](FailingCalls& calls, Figures& figures) {
        const TempDir dir;
        dir.Write("a.db", FilmsFile(GetParam(), "film "));
        const int openFiles = OpenFiles();
        Transaction transaction;
        const LogCapture log;
        Rows films;
        {
            const Sleeps sleeps;
            CVantryConnection connection(dir.Path(), "a.db", 6);
            calls.Start();
            const int opened = OpenAndWrite(connection, transaction);
            calls.Stop();
            std::string error;
            // A lock that the system did not take back goes with the file.
            if (opened != 0 || calls.Kind() == CallKind::Unlock) {
                connection.CloseDB();
                EXPECT_EQ(connection.OpenOperation(), 0);
            } else if (!transaction.acknowledged) {
                // One that failed as well, or was not needed, changes nothing.
                connection.ExcuteSQL("ROLLBACK;", error);
            }
            const auto cursor = connection.SelectRequest("films", {}, "", "_id");
            EXPECT_NE(cursor, nullptr);
            while (cursor != nullptr && cursor->MoveNextStep() == 0) {
                std::string title;
                std::string filler;
                long long id = 0;
                EXPECT_EQ(cursor->GetInteger64Data(0, id), 0);
                EXPECT_EQ(cursor->GetStringData(1, title), 0);
                EXPECT_EQ(cursor->GetStringData(2, filler), 0);
                films.push_back(std::to_string(id) + "|" + title + "|" + filler);
            }
            int begun = connection.ExcuteSQL("BEGIN IMMEDIATE;", error);
            int inserted = connection.InsertRequest("films", Bundle{{"_id", "1000000"}, {"title", "last"}});
            // A file that could not be opened for writing was opened for reading by SQLite.
            if (inserted == kReadOnly && calls.Failed() > 0) {
                connection.CloseDB();
                EXPECT_EQ(connection.OpenOperation(), 0);
                begun = connection.ExcuteSQL("BEGIN IMMEDIATE;", error);
                inserted = connection.InsertRequest("films", Bundle{{"_id", "1000000"}, {"title", "last"}});
            }
            EXPECT_EQ(begun, 0) << error;
            EXPECT_EQ(inserted, 0);
            EXPECT_EQ(connection.ExcuteSQL("COMMIT;", error), 0) << error;
            EXPECT_TRUE(connection.IntegrityCheck());
        }
        EXPECT_EQ(OpenFiles(), openFiles);
        ExpectWhole(films, transaction, figures);
        films.emplace_back("1000000|last|NULL");
        EXPECT_EQ(Films(dir.File("a.db")), films);
    });
    Print(std::string("a transaction and the next, ") + GetParam(), swept);
    EXPECT_GT(swept.refused, 100);
}

const auto kModeName = [](const auto& tested) { return std::string(tested.param); };

INSTANTIATE_TEST_SUITE_P(JournalModes, Write, testing::Values("DELETE", "TRUNCATE", "PERSIST", "WAL"),
                         kModeName);

// ---- Backup and restore -----------------------------------------------------------------------------------------

class Store : public CContentHelper {
public:
    using CContentHelper::CContentHelper;
    void OnConfigure(CVantryConnection* /*connection*/) override {}
    void OnCreate(CVantryConnection* /*connection*/) override {}
    void OnUpgrade(CVantryConnection* /*connection*/, int /*from*/, int /*to*/) override {}
};

// The films that FilmsFile() makes.
Rows FilmsNamed(const std::string& title) {
    Rows films;
    for (int i = 1; i <= RowCount(); ++i) {
        char filler[701];
        std::snprintf(filler, sizeof filler, "%0700d", i);
        films.push_back(std::to_string(i) + "|" + title + std::to_string(i) + "|" + filler);
    }
    return films;
}

// Kept: a target that could not be opened leaves its handle behind; the one that the copy opened last.
void CloseLeftTarget(const SqliteFaults& sqlite, std::size_t opens, int closes) {
    const auto opened = sqlite.Opened();
    if (opened.size() == opens && sqlite.Calls("sqlite3_close") < closes && opened.back().code != SQLITE_OK) {
        sqlite3_close(opened.back().handle);
    }
}

class Copy : public testing::TestWithParam<const char*> {};

TEST_P(Copy, BackupDB_IsWholeOrTheOlderOne_AndSaysWhich) {
    const Rows films = FilmsNamed("film ");
    for (const bool withOlder : {true, false}) {
        const Figures swept = Sweep(ClosingKinds(GetParam()), [&](FailingCalls& calls, Figures& figures) {
            const TempDir dir;
            const std::string file = dir.File("a.db");
            const std::string backup = file + ".sqlite";
            dir.Write("a.db", FilmsFile(GetParam(), "film "));
            if (withOlder) {
                dir.Write("a.db.sqlite", FilmsFile(GetParam(), "older "));
            }
            const int openFiles = OpenFiles();
            const LogCapture log;
            const Sleeps sleeps;
            SqliteFaults sqlite;
            Store store(dir.Path(), "a.db", 1);
            calls.Start();
            EXPECT_TRUE(store.ConnectDB() == nullptr || store.ConnectDB()->IsOpen());
            const bool connected = store.ConnectDB() != nullptr;
            const bool answer = store.BackupDB();
            calls.Stop();
            // The connection's own, the source and the target.
            CloseLeftTarget(sqlite, 3, 3);
            EXPECT_EQ(OpenFiles(), openFiles);
            EXPECT_EQ(Films(file), films);
            if (answer) {
                EXPECT_EQ(Films(backup), films);
            } else {
                ++figures.refused;
                EXPECT_GT(calls.Failed(), 0);
                EXPECT_EQ(log.Lines().back(), connected ? "D BackupDB > BackupDB() failed"
                                                        : "D BackupDB > Error: m_database is NULL");
                const Rows there = std::filesystem::exists(backup) ? Films(backup) : Rows{"no table"};
                if (there == films) {
                    ++figures.refusedButThere;
                } else {
                    EXPECT_EQ(there, withOlder ? FilmsNamed("older ") : Rows{"no table"});
                }
            }
            store.DisconnectDB();
            EXPECT_NE(store.ConnectDB(), nullptr);
            EXPECT_TRUE(store.BackupDB());
            EXPECT_EQ(Films(backup), films);
        });
        Print(std::string("a backup ") + (withOlder ? "over an older one, " : "anew, ") + GetParam(), swept);
        EXPECT_GT(swept.refused, 50);
    }
}

TEST_P(Copy, RestoreDB_IsWholeOrRefused_AndNeverTouchesTheBackup) {
    const Rows films = FilmsNamed("film ");
    const Rows saved = FilmsNamed("saved ");
    const Figures swept = Sweep(ClosingKinds(GetParam()), [&](FailingCalls& calls, Figures& figures) {
        const TempDir dir;
        const std::string file = dir.File("a.db");
        const std::string backup = file + ".sqlite";
        dir.Write("a.db", FilmsFile(GetParam(), "film "));
        dir.Write("a.db.sqlite", FilmsFile(GetParam(), "saved "));
        const int openFiles = OpenFiles();
        const LogCapture log;
        const Sleeps sleeps;
        SqliteFaults sqlite;
        Store store(dir.Path(), "a.db", 1);
        bool answer = false;
        std::size_t opens = 2;
        int closes = 3;
        calls.Start();
        if (CVantryConnection* const connection = store.ConnectDB()) {
            // A change that is in the write-ahead log only, when there is one.
            std::string error;
            connection->ExcuteSQL("UPDATE films SET title = title WHERE _id = 1", error);
            opens = sqlite.Opened().size() + 2;
            closes = sqlite.Calls("sqlite3_close") + 3;
            answer = store.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST);
        }
        calls.Stop();
        CloseLeftTarget(sqlite, opens, closes);
        EXPECT_EQ(OpenFiles(), openFiles);
        EXPECT_EQ(Films(backup), saved);
        const Rows there = std::filesystem::exists(file) ? Films(file) : Rows{"no table"};
        if (answer) {
            EXPECT_EQ(there, saved);
        } else {
            ++figures.refused;
            EXPECT_GT(calls.Failed(), 0);
            figures.refusedButThere += there == saved ? 1 : 0;
            // The file goes before the copy begins.
            EXPECT_THAT(there, AnyOf(films, saved, Rows{"no table"}));
        }
        store.DisconnectDB();
        EXPECT_NE(store.ConnectDB(), nullptr);
        EXPECT_TRUE(store.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST));
        EXPECT_EQ(Films(file), saved);
        EXPECT_EQ(Films(backup), saved);
    });
    Print(std::string("a restore, ") + GetParam(), swept);
    EXPECT_GT(swept.refused, 50);
}

INSTANTIATE_TEST_SUITE_P(JournalModes, Copy, testing::Values("DELETE", "WAL"), kModeName);

// ---- Reading ----------------------------------------------------------------------------------------------------

class Reading : public testing::TestWithParam<const char*> {};

// The titles that a cursor gives, and what ended them.
Rows Titles(ISQLiteCursor& cursor, int& code) {
    Rows titles;
    std::string title;
    while ((code = cursor.MoveNextStep()) == 0) {
        EXPECT_EQ(cursor.GetStringData(1, title), 0);
        titles.push_back(title);
    }
    return titles;
}

bool IsBeginning(const Rows& part, const Rows& whole) {
    return part.size() <= whole.size() && std::equal(part.begin(), part.end(), whole.begin());
}

TEST_P(Reading, SelectRequest_GivesTheBeginningOfTheResult_AndLogsWhenItIsNotAll) {
    Rows all;
    for (int i = 1; i <= RowCount(); ++i) {
        all.push_back("film " + std::to_string(i));
    }
    for (const bool preload : {true, false}) {
        int none = 0;
        int shorter = 0;
        const Figures swept = Sweep(ReadingKinds(GetParam()), [&](FailingCalls& calls, Figures& figures) {
            const TempDir dir;
            dir.Write("a.db", FilmsFile(GetParam(), "film "));
            const int openFiles = OpenFiles();
            const LogCapture log;
            {
                const Sleeps sleeps;
                CVantryConnection connection(dir.Path(), "a.db", 2);
                Rows titles;
                int code = 1;
                calls.Start();
                if (connection.OpenOperation() == 0) {
                    const auto cursor = connection.SelectRequest("films", {}, "", "_id", preload);
                    if (cursor != nullptr) {
                        titles = Titles(*cursor, code);
                    } else {
                        ++none;
                    }
                    calls.Stop();
                    EXPECT_TRUE(IsBeginning(titles, all)) << testing::PrintToString(titles);
                    if (titles != all) {
                        ++shorter;
                        // A live statement tells by its code; a preloaded one only by a line.
                        EXPECT_TRUE(preload || cursor == nullptr || code > 0) << code;
                        EXPECT_THAT(log.Lines('I'), Contains(AnyOf(testing::HasSubstr("SelectRequest"),
                                                                   testing::HasSubstr("AddRowCache"),
                                                                   testing::HasSubstr("MoveNextStep"))));
                    }
                }
                calls.Stop();
                figures.refused += titles != all ? 1 : 0;
                connection.CloseDB();
                EXPECT_EQ(connection.OpenOperation(), 0);
                const auto cursor = connection.SelectRequest("films", {}, "", "_id", preload);
                ASSERT_NE(cursor, nullptr);
                EXPECT_EQ(Titles(*cursor, code), all);
                EXPECT_EQ(code, preload ? -22 : -34);
            }
            EXPECT_EQ(OpenFiles(), openFiles);
        });
        Print(std::string(preload ? "a preloaded select, " : "a live select, ") + GetParam(), swept);
        EXPECT_GT(none, 0);
        EXPECT_GT(shorter, none);
    }
}

TEST_P(Reading, IntegrityCheck_IsTrueOnlyWhenItReadEverything) {
    int untold = 0;
    const Figures swept = Sweep(ReadingKinds(GetParam()), [&](FailingCalls& calls, Figures& figures) {
        const TempDir dir;
        dir.Write("a.db", FilmsFile(GetParam(), "film "));
        const Sleeps sleeps;
        CVantryConnection connection(dir.Path(), "a.db", 2);
        calls.Start();
        const int opened = connection.OpenOperation();
        const bool sound = connection.IntegrityCheck();
        calls.Stop();
        EXPECT_TRUE(sound || calls.Failed() > 0);
        EXPECT_TRUE(opened == 0 || !sound);
        figures.refused += sound ? 0 : 1;
        untold += sound && calls.Failed() > 0 ? 1 : 0;
        connection.CloseDB();
        EXPECT_EQ(connection.OpenOperation(), 0);
        EXPECT_TRUE(connection.IntegrityCheck());
    });
    Print(std::string("an integrity check, ") + GetParam(), swept);
    EXPECT_GT(swept.refused, untold);
}

INSTANTIATE_TEST_SUITE_P(JournalModes, Reading, testing::Values("DELETE", "WAL"), kModeName);

// ---- A full disk, and a directory that cannot be written ----------------------------------------------------------

// What a child answers where its user may not do what the test needs.
constexpr int kNotAllowed = 77;

// Makes a disk of that size of a directory, for this process alone.
bool MountSmallDisk(const std::string& path, const std::string& size) {
    return support::EnterOwnMounts() &&
           mount("tmpfs", path.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
}

class Disk : public testing::TestWithParam<const char*> {};

TEST_P(Disk, Full_RefusesTransactionsWhole_AndTakesThemWhenThereIsRoom) {
    const TempDir dir;
    OtherProcess child([&](int report) {
        if (!MountSmallDisk(dir.Path(), "512k")) {
            return kNotAllowed;
        }
        const LogCapture log;
        const Sleeps sleeps;
        CVantryConnection connection(dir.Path(), "a.db", 6);
        std::string error;
        EXPECT_EQ(connection.OpenOperation(), 0);
        EXPECT_EQ(connection.ExcuteSQL(std::string("PRAGMA journal_mode=") + GetParam(), error), 0);
        EXPECT_EQ(connection.ExcuteSQL("CREATE TABLE t (a INTEGER, filler TEXT)", error), 0);
        const std::string filler(3000, 'f');
        int acknowledged = 0;
        int refused = 0;
        for (int number = 0; number < 100; ++number) {
            Bundle row;
            bundle_add_str(row, "a", std::to_string(number).c_str());
            bundle_add_str(row, "filler", filler.c_str());
            int code = connection.ExcuteSQL("BEGIN IMMEDIATE;", error);
            for (int i = 0; i < 4 && code == 0; ++i) {
                code = connection.InsertRequest("t", row);
            }
            code = code == 0 ? connection.ExcuteSQL("COMMIT;", error) : code;
            if (code == 0) {
                ++acknowledged;
            } else {
                ++refused;
                // A full disk has no code of its own; a journal that finds no room cannot be opened.
                EXPECT_THAT(code, AnyOf(kUnknown, kIo));
                connection.ExcuteSQL("ROLLBACK;", error);
            }
        }
        EXPECT_TRUE(connection.IntegrityCheck());
        connection.CloseDB();
        {
            RawDb db(dir.File("a.db"));
            EXPECT_EQ(db.Query("SELECT count(*), count(DISTINCT a) FROM t").at(0),
                      std::to_string(4 * acknowledged) + "|" + std::to_string(acknowledged));
        }
        EXPECT_EQ(mount("none", dir.Path().c_str(), nullptr, MS_REMOUNT, "size=4m"), 0);
        EXPECT_EQ(connection.OpenOperation(), 0);
        EXPECT_EQ(connection.InsertRequest("t", Bundle{{"a", "1000"}}), 0);
        EXPECT_TRUE(connection.IntegrityCheck());
        support::Report(report, std::to_string(acknowledged) + " acknowledged, " + std::to_string(refused) +
                                    " refused\n");
        EXPECT_GT(acknowledged, 5);
        EXPECT_GT(refused, 5);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    const std::string told = child.ReadAll();
    const std::string end = child.Wait();
    if (end == "exit 77") {
        GTEST_SKIP() << "this user may not mount a disk";
    }
    EXPECT_EQ(end, "exit 0");
    std::printf("io: a full disk, %s: %s", GetParam(), told.c_str());
}

TEST_P(Disk, Full_RefusesABackup_AndKeepsTheDatabase) {
    const TempDir dir;
    OtherProcess child([&](int report) {
        if (!MountSmallDisk(dir.Path(), "256k")) {
            return kNotAllowed;
        }
        {
            RawDb db(dir.File("a.db"));
            db.Exec(std::string("PRAGMA journal_mode=") + GetParam());
            db.Exec("CREATE TABLE t (filler)");
            db.Exec("INSERT INTO t VALUES (hex(zeroblob(80000)))");
        }
        const LogCapture log;
        const Sleeps sleeps;
        Store store(dir.Path(), "a.db", 1);
        EXPECT_NE(store.ConnectDB(), nullptr);
        EXPECT_FALSE(store.BackupDB());
        EXPECT_EQ(log.Lines().back(), "D BackupDB > BackupDB() failed");
        EXPECT_EQ(RawDb(dir.File("a.db")).Query("SELECT length(filler) FROM t").at(0), "160000");
        EXPECT_EQ(mount("none", dir.Path().c_str(), nullptr, MS_REMOUNT, "size=4m"), 0);
        EXPECT_NE(store.ConnectDB(), nullptr);
        EXPECT_TRUE(store.BackupDB());
        EXPECT_EQ(RawDb(dir.File("a.db.sqlite")).Query("SELECT length(filler) FROM t").at(0), "160000");
        support::Report(report, "done");
        return testing::Test::HasFailure() ? 1 : 0;
    });
    child.ReadAll();
    const std::string end = child.Wait();
    if (end == "exit 77") {
        GTEST_SKIP() << "this user may not mount a disk";
    }
    EXPECT_EQ(end, "exit 0");
}

TEST_P(Disk, DirectoryThatCannotBeWritten_IsReadAndRefusesWrites) {
    const TempDir dir;
    dir.Write("a.db", FilmsFile(GetParam(), "film "));
    ASSERT_EQ(chmod(dir.File("a.db").c_str(), 0666), 0);
    ASSERT_EQ(chmod(dir.Path().c_str(), 0555), 0);
    const bool wal = std::string(GetParam()) == "WAL";
    OtherProcess child([&](int /*report*/) {
        // An ordinary user, whoever runs the tests.
        const bool root = geteuid() == 0;
        EXPECT_TRUE(!root || (setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0));
        if (access(dir.File("a.db").c_str(), R_OK) != 0) {
            return kNotAllowed;
        }
        const LogCapture log;
        const Sleeps sleeps;
        std::string error;
        CVantryConnection missing(dir.Path(), "b.db", 6);
        EXPECT_EQ(missing.OpenOperation(), kIo);
        missing.CloseDB();
        CVantryConnection connection(dir.Path(), "a.db", 2);
        EXPECT_EQ(connection.OpenOperation(), 0);
        const auto cursor = connection.SelectRequest("films", {}, "", "_id");
        int code = 0;
        // A write-ahead log must be made before anybody can read; without one there is no statement.
        EXPECT_EQ(cursor == nullptr, wal);
        EXPECT_EQ(cursor != nullptr ? static_cast<int>(Titles(*cursor, code).size()) : 0,
                  wal ? 0 : RowCount());
        EXPECT_EQ(connection.InsertRequest("films", Bundle{{"title", "new"}}), wal ? kUnknown : kReadOnly);
        EXPECT_EQ(connection.DeleteRequest("films", "_id = 1"), kReadOnly);
        EXPECT_EQ(connection.ExcuteSQL("BEGIN IMMEDIATE;", error), wal ? kReadOnly : 0);
        connection.ExcuteSQL("ROLLBACK;", error);
        connection.CloseDB();
        Store store(dir.Path(), "a.db", 1);
        EXPECT_NE(store.ConnectDB(), nullptr);
        EXPECT_FALSE(store.BackupDB());
        EXPECT_NE(store.ConnectDB(), nullptr);
        SqliteFaults sqlite;
        // There is no backup file to take; the file itself cannot be removed.
        EXPECT_FALSE(store.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST));
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.ReadAll(), "");
    const std::string end = child.Wait();
    ASSERT_EQ(chmod(dir.Path().c_str(), 0755), 0);
    if (end == "exit 77") {
        GTEST_SKIP() << "an ordinary user cannot enter " << dir.Path();
    }
    EXPECT_EQ(end, "exit 0");
    EXPECT_THAT(dir.List(), testing::ElementsAre("a.db"));
    EXPECT_EQ(Films(dir.File("a.db")), FilmsNamed("film "));
}

INSTANTIATE_TEST_SUITE_P(JournalModes, Disk, testing::Values("DELETE", "WAL"), kModeName);

}  // namespace

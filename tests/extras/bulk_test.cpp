#include <sqlite3.h>

#include <climits>
#include <cmath>
#include <limits>
#include <type_traits>
#include <utility>

#include "ExtrasFixture.h"

namespace {

using support::FailingNew;
using support::LogCapture;
using support::OpenConnection;
using support::RawDb;
using support::Shortage;
using support::Sleeps;
using support::SqliteFaults;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

static_assert(!std::is_copy_constructible<CBulkInsert>::value, "one transaction, one owner");

constexpr int NONE = 0, ROLLBACK = 1, ABORT = 2, FAIL_ROW = 3, IGNORE = 4, REPLACE = 5;

class BulkInsert : public ExtrasFixture {
protected:
    const Texts m_columns = {"title", "year"};

    // What InsertWithOnConflict() answers for a row, in a transaction that is then rolled back.
    int RequestAnswers(const char* title, int conflict) {
        EXPECT_EQ(Run("BEGIN IMMEDIATE"), 0);
        const int result =
            m_connection.InsertWithOnConflict("films", support::Bundle{{"title", title}}, conflict);
        if (InTransaction()) {
            EXPECT_EQ(Run("ROLLBACK"), 0);
        }
        return result;
    }
};

// ---- Rows ---------------------------------------------------------------------------------------------

TEST_F(BulkInsert, Committed_AllRowsAreThere) {
    {
        CBulkInsert films(m_connection, "films", m_columns);
        EXPECT_EQ(films.Result(), 0);
        EXPECT_EQ(films.Insert("one", 1), 0);
        EXPECT_EQ(films.Insert(std::string("two"), 2LL), 0);
        EXPECT_EQ(m_connection.GetLastInsertRowID(), 2);
        EXPECT_THAT(Titles(), IsEmpty());
        EXPECT_EQ(films.Commit(), 0);
        EXPECT_THAT(Titles(), ElementsAre("one", "two"));
    }
    EXPECT_THAT(Query("SELECT title, year FROM films"), ElementsAre("one|1", "two|2"));
    EXPECT_EQ(Outstanding(), 0);
}

TEST_F(BulkInsert, LeftWithoutCommit_NoneIsThere) {
    {
        CBulkInsert films(m_connection, "films", m_columns);
        EXPECT_EQ(films.Insert("one", 1), 0);
    }
    EXPECT_FALSE(InTransaction());
    EXPECT_EQ(Outstanding(), 0);
    EXPECT_THAT(Titles(), IsEmpty());
}

TEST_F(BulkInsert, RolledBack_IsOver) {
    CBulkInsert films(m_connection, "films", m_columns);
    EXPECT_EQ(films.Insert("one", 1), 0);
    EXPECT_EQ(films.Rollback(), 0);
    EXPECT_EQ(films.Insert("two", 2), -22);
    EXPECT_EQ(films.Commit(), -22);
    EXPECT_EQ(films.Result(), -22);
    EXPECT_THAT(Titles(), IsEmpty());
}

TEST_F(BulkInsert, RowAfterTheCommit_IsRefused) {
    CBulkInsert films(m_connection, "films", m_columns);
    EXPECT_EQ(films.Commit(), 0);
    EXPECT_EQ(films.Insert("one", 1), -22);
    EXPECT_EQ(films.Set(0, "one"), -22);
    EXPECT_EQ(films.Insert(), -22);
    EXPECT_EQ(films.Commit(), -22);
    EXPECT_THAT(Titles(), IsEmpty());
}

TEST_F(BulkInsert, ManyRows_PreparedOnceAndAStepARow) {
    SqliteFaults faults;
    CBulkInsert films(m_connection, "films", m_columns);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(films.Insert(std::to_string(i), i), 0);
    }
    EXPECT_EQ(films.Commit(), 0);
    // The insert, and the rollback that is kept ready.
    EXPECT_EQ(faults.Calls("sqlite3_prepare_v2"), 2);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 1000);
    EXPECT_THAT(Query("SELECT count(*), sum(year), sum(title) FROM films"),
                ElementsAre("1000|499500|499500"));
}

TEST_F(BulkInsert, Rows_WriteNoLogLine) {
    CBulkInsert films(m_connection, "films", m_columns);
    m_log.Clear();
    EXPECT_EQ(films.Insert("one", 1), 0);
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(BulkInsert, Statement_IsThatOfTheRequest) {
    for (int conflict = NONE; conflict <= REPLACE; ++conflict) {
        std::vector<std::string> arguments;
        const std::string expected = m_connection.CreateInsertStatementWithWildcard(
            "films", support::Bundle{{"title", ""}, {"year", ""}}, conflict, arguments);
        SqliteFaults faults;
        CTransactionScope transaction(m_connection);
        const CBulkInsert films(transaction, "films", m_columns, conflict);
        EXPECT_EQ(faults.LastSql(), expected);
    }
}

// ---- Values -------------------------------------------------------------------------------------------

// Every value in a column of every type, by both ways.
TEST_F(BulkInsert, Values_AreStoredAsTheRequestStoresABundle) {
    const std::string types[] = {"INTEGER", "TEXT", "REAL", "NUMERIC", "BLOB", ""};
    for (const std::string& type : types) {
        m_raw.Exec("DROP TABLE IF EXISTS bulk");
        m_raw.Exec("DROP TABLE IF EXISTS request");
        m_raw.Exec("CREATE TABLE bulk (v " + type + ")");
        m_raw.Exec("CREATE TABLE request (v " + type + ")");
        CTransactionScope transaction(m_connection);
        CBulkInsert bulk(transaction, "bulk", {"v"});
        ASSERT_EQ(bulk.Result(), 0);
        const auto both = [&](const auto& value) {
            CBundle row;
            row.Put("v", value);
            ASSERT_EQ(m_connection.InsertRequest("request", row.Get()), 0);
            ASSERT_EQ(bulk.Insert(value), 0);
            ASSERT_EQ(bulk.Set(0, value), 0);
            ASSERT_EQ(bulk.Insert(), 0);
            ASSERT_EQ(m_connection.InsertRequest("request", row.Get()), 0);
        };
        for (const char* text :
             {"", "a", "'", "''", "'a'", "it's", "7", "007", "7.0", "1e3", " 7 ", "9e999", "NULL"}) {
            both(text);
            both(std::string(text));
        }
        for (const long long number : {0LL, -7LL, 1LL << 53, LLONG_MAX, LLONG_MIN}) {
            both(number);
        }
        for (const double number : {0.0, -0.0, 7.0, 0.1, 0.1 + 0.2, 1e300, -2.5, 1e15, 1e17,
                                    std::numeric_limits<double>::infinity()}) {
            both(number);
        }
        both(true);
        both(7U);
        ASSERT_EQ(transaction.Commit(), 0);
        const std::string all = "SELECT typeof(v), v, quote(v) FROM ";
        EXPECT_THAT(Query(all + "bulk"), SizeIs(86)) << type;
        EXPECT_EQ(Query(all + "bulk"), Query(all + "request")) << type;
    }
}

TEST_F(BulkInsert, Null_IsNull) {
    CBulkInsert films(m_connection, "films", m_columns);
    EXPECT_EQ(films.Insert(nullptr, nullptr), 0);
    EXPECT_EQ(films.Insert(static_cast<const char*>(nullptr), 2), 0);
    EXPECT_EQ(films.Commit(), 0);
    EXPECT_THAT(Query("SELECT title, year FROM films"), ElementsAre("NULL|NULL", "NULL|2"));
}

TEST_F(BulkInsert, ValueThatABundleRefuses_FailsTheRowAlone) {
    CBulkInsert films(m_connection, "films", m_columns);
    EXPECT_EQ(films.Insert("one", 1), 0);
    EXPECT_EQ(films.Insert(std::string("a\0b", 3), 2), -22);
    EXPECT_EQ(films.Insert("three", std::nan("")), -22);
    EXPECT_EQ(films.Insert("four", ULLONG_MAX), -22);
    // What the refused rows had bound is not there any more.
    EXPECT_EQ(films.Set(1, 5), 0);
    EXPECT_EQ(films.Insert(), 0);
    EXPECT_EQ(films.Commit(), 0);
    EXPECT_THAT(Query("SELECT title, year FROM films"), ElementsAre("one|1", "NULL|5"));
}

TEST_F(BulkInsert, TextLongerThanSqliteTakes_FailsTheRow) {
    sqlite3_limit(m_connection.m_pDB, SQLITE_LIMIT_LENGTH, 1000);
    CBulkInsert films(m_connection, "films", m_columns);
    EXPECT_EQ(films.Insert(std::string(1001, 'x'), 1), UNKNOWN_ERROR);
    EXPECT_EQ(films.Set(0, std::string(1001, 'x')), UNKNOWN_ERROR);
    EXPECT_EQ(films.Insert(), UNKNOWN_ERROR);
    EXPECT_EQ(films.Insert("one", 1), 0);
    EXPECT_EQ(films.Commit(), 0);
    EXPECT_THAT(Titles(), ElementsAre("one"));
}

TEST_F(BulkInsert, WrongNumberOfValues_FailsTheRow) {
    CBulkInsert films(m_connection, "films", m_columns);
    EXPECT_EQ(films.Insert("one"), -22);
    EXPECT_EQ(films.Insert("one", 1, 2), -22);
    EXPECT_EQ(films.Insert("one", 1), 0);
    EXPECT_EQ(films.Commit(), 0);
    EXPECT_THAT(Titles(), ElementsAre("one"));
}

TEST_F(BulkInsert, SetValues_AreCopiedAndTheOthersAreNull) {
    CBulkInsert films(m_connection, "films", {"title", "year", "rating"});
    std::string title = "a title that is longer than what a string keeps in itself";
    EXPECT_EQ(films.Set(2, 7.5), 0);
    EXPECT_EQ(films.Set(0, title), 0);
    title.assign(title.size(), '-');
    EXPECT_EQ(films.Insert(), 0);
    EXPECT_EQ(films.Insert(), 0);
    EXPECT_EQ(films.Commit(), 0);
    EXPECT_THAT(
        Query("SELECT title, year, rating FROM films"),
        ElementsAre("a title that is longer than what a string keeps in itself|NULL|7.5", "NULL|NULL|NULL"));
}

TEST_F(BulkInsert, FailedSet_FailsTheNextRowAlone) {
    CBulkInsert films(m_connection, "films", m_columns);
    EXPECT_EQ(films.Set(2, "x"), -22);
    EXPECT_EQ(films.Set(0, "one"), 0);
    EXPECT_EQ(films.Insert(), -22);
    EXPECT_EQ(films.Set(0, "two"), 0);
    EXPECT_EQ(films.Insert(), 0);
    EXPECT_EQ(films.Set(1, std::nan("")), -22);
    // A row of its own is not touched by what was set before.
    EXPECT_EQ(films.Insert("three", 3), 0);
    EXPECT_EQ(films.Commit(), 0);
    EXPECT_THAT(Titles(), ElementsAre("two", "three"));
}

// ---- Rows that fail -----------------------------------------------------------------------------------

TEST_F(BulkInsert, Conflict_AnswersAsTheRequestDoes) {
    m_raw.Exec("INSERT INTO films (title, year) VALUES ('one', 0)");
    for (const int conflict : {NONE, ABORT, FAIL_ROW, IGNORE, REPLACE}) {
        const int expected = RequestAnswers("one", conflict);
        EXPECT_EQ(expected, conflict < IGNORE ? UNKNOWN_ERROR : 0);
        CBulkInsert films(m_connection, "films", m_columns, conflict);
        EXPECT_EQ(films.Insert("before", 1), 0);
        EXPECT_EQ(films.Insert("one", 2), expected) << conflict;
        EXPECT_EQ(films.Result(), 0);
        EXPECT_EQ(films.Insert("after", 3), 0);
        EXPECT_EQ(films.Commit(), 0);
        const char* const year = conflict == REPLACE ? "2" : "0";
        EXPECT_THAT(Query("SELECT title, year FROM films ORDER BY title"),
                    ElementsAre("after|3", "before|1", std::string("one|") + year))
            << conflict;
        m_raw.Exec("DELETE FROM films WHERE title <> 'one'");
    }
}

TEST_F(BulkInsert, ConflictUnderRollback_EndsTheTransaction) {
    m_raw.Exec("INSERT INTO films (title) VALUES ('one')");
    EXPECT_EQ(RequestAnswers("one", ROLLBACK), UNKNOWN_ERROR);
    CBulkInsert films(m_connection, "films", m_columns, ROLLBACK);
    EXPECT_EQ(films.Insert("before", 1), 0);
    EXPECT_EQ(films.Insert("one", 2), UNKNOWN_ERROR);
    EXPECT_FALSE(InTransaction());
    EXPECT_EQ(films.Result(), UNKNOWN_ERROR);
    EXPECT_EQ(films.Insert("after", 3), UNKNOWN_ERROR);
    EXPECT_EQ(films.Set(0, "after"), UNKNOWN_ERROR);
    EXPECT_EQ(films.Insert(), UNKNOWN_ERROR);
    EXPECT_EQ(films.Commit(), UNKNOWN_ERROR);
    EXPECT_THAT(Titles(), ElementsAre("one"));
}

TEST_F(BulkInsert, FullDatabase_EndsTheTransactionAndWritesNoMore) {
    CBulkInsert films(m_connection, "films", m_columns);
    EXPECT_EQ(films.Insert("one", 1), 0);
    FillUp();
    EXPECT_EQ(films.Insert(std::string(9000, 'x'), 2), UNKNOWN_ERROR);
    EXPECT_EQ(films.Insert("three", 3), UNKNOWN_ERROR);
    EXPECT_EQ(films.Commit(), UNKNOWN_ERROR);
    EXPECT_THAT(Titles(), IsEmpty());
}

TEST_F(BulkInsert, TransactionEndedByARequest_WritesNoMore) {
    CTransactionScope transaction(m_connection);
    CBulkInsert films(transaction, "films", m_columns);
    EXPECT_EQ(films.Insert("one", 1), 0);
    EXPECT_EQ(m_connection.InsertWithOnConflict("films", support::Bundle{{"title", "one"}}, ROLLBACK),
              UNKNOWN_ERROR);
    EXPECT_EQ(films.Insert("two", 2), UNKNOWN_ERROR);
    EXPECT_EQ(transaction.Commit(), UNKNOWN_ERROR);
    EXPECT_THAT(Titles(), IsEmpty());
}

TEST_F(BulkInsert, FailureOfAStep_IsMapped) {
    for (const auto& each : {std::make_pair(SQLITE_IOERR, -5), std::make_pair(SQLITE_NOMEM, -12),
                             std::make_pair(SQLITE_READONLY, -30), std::make_pair(SQLITE_CORRUPT, -5),
                             std::make_pair(SQLITE_CONSTRAINT, UNKNOWN_ERROR)}) {
        CBulkInsert films(m_connection, "films", m_columns);
        SqliteFaults faults;
        faults.Answer("sqlite3_step", each.first);
        EXPECT_EQ(films.Insert("one", 1), each.second);
        EXPECT_EQ(films.Insert("two", 2), 0);
        EXPECT_THAT(m_log.Lines(), Contains("I AddRowCache > [sqlite3_step] SQLite3 Error : not an error"));
    }
}

TEST_F(BulkInsert, StepThatStaysBusy_WaitsAsEverywhereAndIsMinus16) {
    CBulkInsert films(m_connection, "films", m_columns);
    SqliteFaults faults;
    const Sleeps sleeps;
    faults.Answer("sqlite3_step", SQLITE_LOCKED, 31);
    EXPECT_EQ(films.Insert("one", 1), -16);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    faults.Answer("sqlite3_step", SQLITE_BUSY, 2);
    EXPECT_EQ(films.Insert("two", 2), 0);
    EXPECT_EQ(sleeps.Count(), 32);
    EXPECT_EQ(films.Commit(), 0);
    EXPECT_THAT(Titles(), ElementsAre("two"));
}

// ---- The transaction ----------------------------------------------------------------------------------

TEST_F(BulkInsert, BusyAtTheBegin_HasNotBegun) {
    m_raw.Exec("BEGIN IMMEDIATE");
    const Sleeps sleeps;
    CBulkInsert films(m_connection, "films", m_columns);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_EQ(films.Result(), -16);
    EXPECT_EQ(films.Insert("one", 1), -16);
    EXPECT_EQ(films.Set(0, "one"), -16);
    EXPECT_EQ(films.Insert(), -16);
    EXPECT_EQ(films.Commit(), -16);
}

TEST_F(BulkInsert, ReaderAtTheCommit_MayBeCommittedAgain) {
    Reader reader(m_raw);
    const Sleeps sleeps;
    CBulkInsert films(m_connection, "films", m_columns);
    EXPECT_EQ(films.Insert("one", 1), 0);
    EXPECT_EQ(films.Commit(), -16);
    EXPECT_EQ(films.Result(), 0);
    EXPECT_EQ(films.Insert("two", 2), 0);
    reader.Stop();
    EXPECT_EQ(films.Commit(), 0);
    EXPECT_THAT(Titles(), ElementsAre("one", "two"));
}

TEST_F(BulkInsert, InAScope_TheScopeDecides) {
    m_raw.Exec("CREATE TABLE roles (name TEXT)");
    m_raw.Exec("INSERT INTO films (title) VALUES ('old')");
    {
        CTransactionScope transaction(m_connection);
        ASSERT_EQ(m_connection.DeleteRequest("films", ""), 0);
        {
            CBulkInsert films(transaction, "films", m_columns);
            EXPECT_EQ(films.Insert("one", 1), 0);
        }
        CBulkInsert roles(transaction, "roles", {"name"});
        EXPECT_EQ(roles.Insert("Johnny"), 0);
        EXPECT_TRUE(transaction.IsActive());
        EXPECT_EQ(transaction.Commit(), 0);
        EXPECT_EQ(roles.Insert("late"), -22);
    }
    EXPECT_THAT(Titles(), ElementsAre("one"));
    EXPECT_THAT(Query("SELECT name FROM roles"), ElementsAre("Johnny"));
}

TEST_F(BulkInsert, InAScopeThatIsLeft_NoRowStays) {
    {
        CTransactionScope transaction(m_connection);
        CBulkInsert films(transaction, "films", m_columns);
        EXPECT_EQ(films.Insert("one", 1), 0);
    }
    EXPECT_THAT(Titles(), IsEmpty());
}

TEST_F(BulkInsert, CommitInAScope_IsTheScopes) {
    CTransactionScope transaction(m_connection);
    CBulkInsert films(transaction, "films", m_columns);
    EXPECT_EQ(films.Insert("one", 1), 0);
    EXPECT_EQ(films.Commit(), 0);
    EXPECT_EQ(transaction.Commit(), -22);
    EXPECT_THAT(Titles(), ElementsAre("one"));
}

TEST_F(BulkInsert, ScopeThatHasNotBegun_AnswersItsResult) {
    CTransactionScope outer(m_connection);
    CTransactionScope transaction(m_connection);
    CBulkInsert films(transaction, "films", m_columns);
    EXPECT_EQ(films.Result(), UNKNOWN_ERROR);
    EXPECT_EQ(films.Insert("one", 1), UNKNOWN_ERROR);
    EXPECT_EQ(outer.Rollback(), 0);
    EXPECT_EQ(CBulkInsert(outer, "films", m_columns).Result(), -22);
}

// ---- What cannot begin --------------------------------------------------------------------------------

TEST_F(BulkInsert, ConflictOutsideTheTable_IsRefused) {
    for (const int conflict : {-1, 6, INT_MAX, INT_MIN}) {
        CBulkInsert films(m_connection, "films", m_columns, conflict);
        EXPECT_EQ(films.Result(), -22);
        EXPECT_EQ(films.Insert("one", 1), -22);
        EXPECT_FALSE(InTransaction());
    }
}

TEST_F(BulkInsert, NoColumns_AreRefused) {
    CBulkInsert films(m_connection, "films", {});
    EXPECT_EQ(films.Result(), -22);
    EXPECT_EQ(films.Insert(), -22);
    EXPECT_FALSE(InTransaction());
}

TEST_F(BulkInsert, ReservedKey_IsNeverAColumn) {
    m_raw.Exec("CREATE TABLE t (a, quenby_tiles_sync_event)");
    EXPECT_EQ(CBulkInsert(m_connection, "t", {"a", "quenby_tiles_sync_event"}).Result(), -22);
}

TEST_F(BulkInsert, StatementThatSqliteRefuses_AnswersAsTheRequestDoes) {
    EXPECT_EQ(m_connection.InsertRequest("films", support::Bundle{{"no_column", "1"}}), UNKNOWN_ERROR);
    {
        CBulkInsert films(m_connection, "films", {"no_column"});
        EXPECT_EQ(films.Result(), UNKNOWN_ERROR);
        EXPECT_EQ(films.Insert("one"), UNKNOWN_ERROR);
        EXPECT_EQ(films.Commit(), UNKNOWN_ERROR);
    }
    EXPECT_FALSE(InTransaction());
    EXPECT_THAT(
        m_log.Lines(),
        Contains("I PrepareCMD > PrepareCMD : SQLite3 Error - table films has no column named no_column"));
}

TEST_F(BulkInsert, ClosedConnection_Minus22) {
    m_connection.CloseDB();
    CBulkInsert films(m_connection, "films", m_columns);
    EXPECT_EQ(films.Result(), -22);
    EXPECT_EQ(films.Insert("one", 1), -22);
}

TEST_F(BulkInsert, ReadOnlyConnection_Minus30AtTheFirstRowOrBefore) {
    OpenConnection reading(m_dir.Path(), "films.db", 1);
    ASSERT_EQ(reading.OpenOperation(), 0);
    CBulkInsert films(reading, "films", m_columns);
    EXPECT_EQ(films.Insert("one", 1), -30);
}

TEST_F(BulkInsert, NoMemory_FailsWithoutARowOrALeak) {
    const Texts columns = {"title", "year"};
    for (int number = 1; number < 40; ++number) {
        int constructed = 0;
        int inserted = 0;
        int failed = 0;
        {
            FailingNew shortage(Shortage::OneOfNew, number);
            CBulkInsert films(m_connection, "films", columns);
            constructed = films.Result();
            inserted = films.Insert("one", 1);
            shortage.Stop();
            failed = shortage.Failed();
        }
        EXPECT_FALSE(InTransaction());
        EXPECT_EQ(Outstanding(), 0);
        EXPECT_THAT(Titles(), IsEmpty());
        if (failed == 0) {
            EXPECT_EQ(inserted, 0);
            EXPECT_GT(number, 3);
            return;
        }
        EXPECT_TRUE(constructed == -12 || constructed == 0) << number;
        EXPECT_EQ(inserted, -12) << number;
    }
    FAIL() << "it never ran through";
}

TEST_F(BulkInsert, NoMemoryForSqlite_AllRowsOrNoneAndNothingIsLeftOpen) {
    const Texts columns = {"title", "year"};
    for (const Shortage kind : {Shortage::OneOfSqlite, Shortage::AllOfSqlite}) {
        for (int number = 1;; ++number) {
            SCOPED_TRACE(number);
            int inserted = 0;
            int committed = 0;
            int failed = 0;
            {
                FailingNew shortage(kind, number);
                CBulkInsert films(m_connection, "films", columns);
                inserted = films.Insert("one", 1);
                committed = inserted == 0 ? films.Commit() : inserted;
                failed = shortage.Failed();
            }
            EXPECT_FALSE(InTransaction());
            EXPECT_EQ(Outstanding(), 0);
            EXPECT_THAT(committed, AnyOf(0, -12));
            const Texts expected = committed == 0 ? Texts{"one"} : Texts{};
            EXPECT_EQ(Titles(), expected);
            ASSERT_EQ(Run("DELETE FROM films"), 0);
            if (failed == 0) {
                EXPECT_EQ(committed, 0);
                EXPECT_GT(number, 10);
                break;
            }
        }
    }
}

}  // namespace

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "FailingNew.h"
#include "Fixtures.h"
#include "SQLiteCursor.h"
#include "Shortages.h"
#include "SqliteFaults.h"
#include "VantryConnection.h"

// The end of a connection, transactions, copies and the cursor's own operations without SQLite's memory.

namespace {

using namespace shortage;
using support::OpenCursor;
using support::SqliteFaults;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// ---- Connection -------------------------------------------------------------------------------------------------

TEST(ConnectionShortage, Closing_WithoutSqlitesMemoryClosesAndKeepsWhatWasAcknowledged) {
    using Close = int (*)(CVantryConnection&);
    const Close closes[] = {[](CVantryConnection& c) { return c.CloseOperation(); },
                            [](CVantryConnection& c) { return c.CloseDB(); }};
    for (const Close close : closes) {
        for (const std::string& journal : kJournals) {
            SCOPED_TRACE(journal);
            const int count = SweepSqlite(Operations{"CloseOperation", "CloseDB"}, [&](Attempt& attempt) {
                Database database(journal);
                std::string error;
                EXPECT_EQ(database.connection.DeleteRequest(kTable, kWhereFirst), 0);
                sqlite3_step(support::Prepare(database.Handle(), "SELECT * FROM " + kTable));
                int result = 1;
                attempt.Run([&] { result = close(database.connection); });
                EXPECT_EQ(result, 0);
                EXPECT_FALSE(database.connection.IsOpen());
                if (!journal.empty()) {
                    EXPECT_THAT(database.Stored(), ElementsAre(kRow2, kRow3));
                }
                EXPECT_EQ(database.connection.OpenOperation(), 0);
                EXPECT_EQ(database.connection.ExcuteSQL("CREATE TABLE another_table (a)", error), 0);
            });
            // Only a write-ahead log is brought into the file.
            EXPECT_EQ(count > 0, journal == "WAL");
        }
    }
}

TEST(ConnectionShortage, GetLastInsertRowID_NeedsNoneOfSqlitesMemory) {
    const int count = SweepSqlite(Operations{"GetLastInsertRowID"}, [](Attempt& attempt) {
        Database database;
        long long id = 0;
        attempt.Run([&] { id = database.connection.GetLastInsertRowID(); });
        EXPECT_EQ(id, 3);
    });
    EXPECT_EQ(count, 0);
}

TEST(ConnectionShortage, FinalizeStatement_OfARowBeforeItsCommitNeedsNoneOfSqlitesMemory) {
    for (const std::string& journal : kJournals) {
        SCOPED_TRACE(journal);
        const int count = SweepSqlite(Operations{"FinalizeStatement"}, [&journal](Attempt& attempt) {
            Database database(journal);
            sqlite3_stmt* const statement =
                support::Prepare(database.Handle(), "DELETE FROM " + kTable + " RETURNING *");
            ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
            int result = 1;
            std::string error;
            attempt.Run([&] { result = database.connection.FinalizeStatement(statement, error); });
            EXPECT_EQ(result, 0);
            EXPECT_FALSE(database.HasStatements());
            EXPECT_THAT(database.Stored(), IsEmpty());
        });
        EXPECT_EQ(count, 0);
    }
}

TEST(ConnectionShortage, SetForeignKeyConstraintsEnabled_WithoutSqlitesMemoryLogsAndCanBeSwitchedAgain) {
    int told = 0;
    SweepSqlite(Operations{"SetForeignKeyConstraintsEnabled"}, [&told](Attempt& attempt) {
        Database database;
        attempt.Run([&] { database.connection.SetForeignKeyConstraintsEnabled(true); });
        // SQLite may have switched already when its memory ends.
        if (attempt.Count("I SetForeignKeyConstraintsEnabled > SQLite3 Error - out of memory") > 0) {
            EXPECT_GT(attempt.Failed(), 0);
            ++told;
        } else {
            EXPECT_THAT(Rows(database.Handle(), "PRAGMA foreign_keys"), ElementsAre("1"));
        }
        database.connection.SetForeignKeyConstraintsEnabled(false);
        EXPECT_THAT(Rows(database.Handle(), "PRAGMA foreign_keys"), ElementsAre("0"));
        database.connection.SetForeignKeyConstraintsEnabled(true);
        EXPECT_THAT(Rows(database.Handle(), "PRAGMA foreign_keys"), ElementsAre("1"));
    });
    EXPECT_GE(told, 2);
}

// ---- Transactions -----------------------------------------------------------------------------------------------

TEST(ConnectionShortage, BeginTransaction_WithoutSqlitesMemoryBeginsOrLogs) {
    using Begin = void (*)(CVantryConnection&);
    const Begin begins[] = {[](CVantryConnection& c) { c.BeginTransaction(); },
                            [](CVantryConnection& c) { c.BeginTransaction(true); },
                            [](CVantryConnection& c) { c.BeginTransaction(false); }};
    for (const Begin begin : begins) {
        SweepJournals(Operations{"BeginTransaction"}, [&](const std::string& journal, Attempt& attempt) {
            Database database(journal);
            attempt.Run([&] { begin(database.connection); });
            const bool begun = sqlite3_get_autocommit(database.Handle()) == 0;
            EXPECT_EQ(attempt.Count("I BeginTransaction > SQLite3 Error - out of memory"), begun ? 0 : 1);
            if (!begun) {
                EXPECT_GT(attempt.Failed(), 0);
                EXPECT_THAT(database.Stored(), ElementsAre(kRow1, kRow2, kRow3));
                begin(database.connection);
                EXPECT_EQ(sqlite3_get_autocommit(database.Handle()), 0);
            }
            EXPECT_EQ(database.connection.DeleteRequest(kTable, ""), 0);
            database.connection.CommitTransaction();
            EXPECT_THAT(database.Stored(), IsEmpty());
        });
    }
}

TEST(ConnectionShortage, EndsOfTransactions_WithoutSqlitesMemoryEndItOrLog) {
    using End = void (*)(CVantryConnection&);
    struct Case {
        End end;
        bool commits;
    };
    const Case cases[] = {{[](CVantryConnection& c) { c.CommitTransaction(); }, true},
                          {[](CVantryConnection& c) { c.RollbackTransaction(); }, false},
                          {[](CVantryConnection& c) { c.EndTransaction(true); }, true},
                          {[](CVantryConnection& c) { c.EndTransaction(false); }, false}};
    for (const Case& one : cases) {
        const std::string line = std::string(one.commits ? "I CommitTransaction" : "I RollbackTransaction") +
                                 " > SQLite3 Error - out of memory";
        for (const std::string& journal : kJournals) {
            SCOPED_TRACE(journal);
            const int count =
                SweepSqlite(Operations{"CommitTransaction", "RollbackTransaction", "EndTransaction"},
                            [&](Attempt& attempt) {
                                Database database(journal);
                                database.connection.BeginTransaction(false);
                                EXPECT_EQ(database.connection.DeleteRequest(kTable, ""), 0);
                                attempt.Run([&] { one.end(database.connection); });
                                const bool ended = sqlite3_get_autocommit(database.Handle()) != 0;
                                EXPECT_EQ(attempt.Count(line), ended ? 0 : 1);
                                if (!ended) {
                                    EXPECT_GT(attempt.Failed(), 0);
                                    if (!journal.empty()) {
                                        EXPECT_THAT(database.Stored(), ElementsAre(kRow1, kRow2, kRow3));
                                    }
                                    one.end(database.connection);
                                    EXPECT_NE(sqlite3_get_autocommit(database.Handle()), 0);
                                }
                                EXPECT_THAT(database.Stored(), SizeIs(one.commits ? 0 : 3));
                            });
            EXPECT_GE(count, 1);
        }
    }
}

// ---- Files ------------------------------------------------------------------------------------------------------

TEST(ConnectionShortage, CopyDBFile_WithoutSqlitesMemoryCopiesAllOrRefuses) {
    for (const bool closeFirst : {false, true}) {
        for (const char* const journal : {"DELETE", "WAL"}) {
            SCOPED_TRACE(journal);
            int refused = 0;
            SweepSqlite(Operations{"CopyDBFile"}, [&](Attempt& attempt) {
                Database database(journal);
                const std::string sourcePath = database.connection.m_dbPath + database.connection.m_dbName;
                const std::string targetPath = database.directory->File("copy.db");
                std::string source = sourcePath;
                std::string target = targetPath;
                bool copied = false;
                {
                    const SqliteFaults sqlite;
                    attempt.Run([&] {
                        copied =
                            database.connection.CopyDBFile(std::move(source), std::move(target), closeFirst);
                    });
                    CloseLeftTarget(sqlite, closeFirst ? 3 : 2);
                }
                EXPECT_THAT(database.Stored(), ElementsAre(kRow1, kRow2, kRow3));
                if (!copied) {
                    ++refused;
                    EXPECT_GT(attempt.Failed(), 0);
                    EXPECT_TRUE(database.connection.CopyDBFile(sourcePath, targetPath, closeFirst));
                }
                EXPECT_THAT(support::RawDb(targetPath).Query("SELECT * FROM " + kTable),
                            ElementsAre(kRow1, kRow2, kRow3));
                EXPECT_EQ(database.connection.IsOpen(), !closeFirst);
            });
            EXPECT_GE(refused, 2);
        }
    }
}

// ---- Cursor -----------------------------------------------------------------------------------------------------

// Values made by the step, which needs memory for them.
const std::string kUpper = "upper(a_column_with_a_long_name), upper(a_second_column_with_a_long_name)";
const std::vector<std::string> kUpperRows = {"THE FIRST ROW OF THE TABLE|THE NOTE OF THE FIRST ROW",
                                             "THE SECOND ROW OF THE TABLE|THE NOTE OF THE SECOND ROW",
                                             "THE THIRD ROW OF THE TABLE|THE NOTE OF THE THIRD ROW"};

TEST(CursorShortage, FirstMoves_WithoutSqlitesMemoryGiveARowOrACode) {
    using Move = int (*)(ISQLiteCursor&);
    const Move moves[] = {[](ISQLiteCursor& c) { return c.MoveNextStep(); },
                          [](ISQLiteCursor& c) { return c.MoveFirstStep(); }};
    for (const Move move : moves) {
        for (const std::string& journal : kJournals) {
            SCOPED_TRACE(journal);
            const int count = SweepSqlite(Operations{"MoveNextStep", "MoveFirstStep"}, [&](Attempt& attempt) {
                Result result(kUpper, journal);
                int code = 1;
                attempt.Run([&] { code = move(result.cursor); });
                if (code == 0) {
                    EXPECT_THAT(result.Row(), RowOrGaps(kUpperRows[0]));
                    EXPECT_EQ(result.Row() != kUpperRows[0], attempt.Failed() > 0);
                } else {
                    EXPECT_GT(attempt.Failed(), 0);
                    EXPECT_THAT(code, AnyOf(-12, SQLITE_NOMEM));
                    EXPECT_TRUE(attempt.HasInfoLine());
                    EXPECT_TRUE(result.cursor.IsEmpty());
                    EXPECT_EQ(result.cursor.MoveFirstStep(), 0);
                    EXPECT_EQ(result.Row(), kUpperRows[0]);
                }
                // SQLite fails the step after a value that it had no memory for, and starts over then.
                const bool gap = result.Row() != kUpperRows[0];
                EXPECT_EQ(result.cursor.MoveNextStep(), gap ? SQLITE_NOMEM : 0);
                EXPECT_EQ(result.cursor.GetCurrentRowIndex(), gap ? 0 : 1);
                EXPECT_EQ(result.cursor.MoveNextStep(), 0);
                EXPECT_EQ(result.Row(), kUpperRows[gap ? 0 : 2]);
            });
            EXPECT_GE(count, 1);
        }
    }
}

// A cursor on its second row, the first one evicted.
class Evicted : public Result {
public:
    Evicted() : Result(kUpper) {
        EXPECT_EQ(cursor.MoveNextStep(), 0);
        EXPECT_EQ(cursor.MoveNextStep(), 0);
        cursor.m_pCache->cacheSize = CSQLiteCursor::MAX_DB_CACHE_SIZE + 1;
        EXPECT_TRUE(cursor.ForceGetCacheSize());
        EXPECT_FALSE(cursor.m_pCache->rows.front()->isCached);
        EXPECT_EQ(Row(), kUpperRows[1]);
    }
};

TEST(CursorShortage, MovesOntoAnEvictedRow_WithoutSqlitesMemoryAnswerACode) {
    using Move = int (*)(OpenCursor&);
    const Move moves[] = {[](OpenCursor& c) { return c.MovePreviousStep(); },
                          [](OpenCursor& c) { return c.UpdateRowCache(c.m_pCache->rows.front(), 0); }};
    for (const Move move : moves) {
        const int count =
            SweepSqlite(Operations{"MovePreviousStep", "UpdateRowCache"}, [move](Attempt& attempt) {
                Evicted result;
                int code = 1;
                attempt.Run([&] { code = move(result.cursor); });
                // Kept: 100 whenever the statement has a row, and the row stays empty.
                EXPECT_EQ(code, attempt.Failed() > 0 ? SQLITE_NOMEM : SQLITE_ROW);
                EXPECT_TRUE(attempt.HasInfoLine());
                EXPECT_EQ(result.cursor.GetCurrentRowIndex(), 1);
                EXPECT_EQ(result.Row(), kUpperRows[1]);
                if (code == SQLITE_NOMEM) {
                    // The reset repeats the answer of the last step once.
                    EXPECT_EQ(move(result.cursor), SQLITE_NOMEM);
                    EXPECT_EQ(move(result.cursor), SQLITE_ROW);
                }
                EXPECT_EQ(result.cursor.MoveNextStep(), 0);
                EXPECT_EQ(result.Row(), kUpperRows[1]);
            });
        EXPECT_GE(count, 1);
    }
}

TEST(CursorShortage, AddRowCache_WithoutSqlitesMemoryCachesARowOrNone) {
    int none = 0;
    SweepSqlite(Operations{"AddRowCache"}, [&none](Attempt& attempt) {
        Result result(kUpper);
        ASSERT_EQ(result.cursor.MoveNextStep(), 0);
        const int sizeBefore = result.cursor.GetCurrentCacheSize();
        int code = 1;
        attempt.Run([&] { code = result.cursor.AddRowCache(false); });
        if (code == 0) {
            EXPECT_EQ(result.cursor.GetNumbersOfRows(), 2);
            EXPECT_THAT(result.Row(), RowOrGaps(kUpperRows[1]));
            EXPECT_EQ(result.Row() != kUpperRows[1], attempt.Failed() > 0);
            return;
        }
        ++none;
        EXPECT_GT(attempt.Failed(), 0);
        EXPECT_EQ(code, SQLITE_NOMEM);
        EXPECT_THAT(attempt.Lines(),
                    ElementsAre("I AddRowCache > [sqlite3_step] SQLite3 Error : out of memory"));
        EXPECT_EQ(result.cursor.GetNumbersOfRows(), 1);
        EXPECT_EQ(result.cursor.GetCurrentCacheSize(), sizeBefore);
        EXPECT_EQ(result.Row(), kUpperRows[0]);
        // A step that failed is followed by the statement's first.
        EXPECT_EQ(result.cursor.AddRowCache(false), 0);
        EXPECT_EQ(result.Row(), kUpperRows[0]);
    });
    EXPECT_GE(none, 2);
}

// In a database of UTF-16 SQLite turns a text into UTF-8, for which memory may not suffice.
TEST(CursorShortage, AddColumnCache_WithoutSqlitesMemoryGivesAColumnWithoutItsValue) {
    int without = 0;
    SweepSqlite(Operations{"AddColumnCache"}, [&without](Attempt& attempt) {
        support::OpenConnection connection("", ":memory:", 6);
        ASSERT_EQ(connection.OpenOperation(), 0);
        Exec(connection.m_pDB,
             "PRAGMA encoding = 'UTF-16'; CREATE TABLE t (a); INSERT INTO t VALUES ('a text')");
        OpenCursor cursor(connection.m_pDB, support::Prepare(connection.m_pDB, "SELECT a FROM t"));
        ASSERT_EQ(sqlite3_step(cursor.m_pStmt), SQLITE_ROW);
        std::unique_ptr<CDbColumn> column;
        attempt.Run([&] { column.reset(cursor.AddColumnCache(0)); });
        ASSERT_NE(column, nullptr);
        EXPECT_EQ(column->type, SQLITE_TEXT);
        if (attempt.Failed() > 0) {
            ++without;
            EXPECT_EQ(column->value, nullptr);
            EXPECT_EQ(column->size, 0);
            EXPECT_THAT(attempt.Lines(), ElementsAre("I AddColumnCache > The memory is insufficient"));
            column.reset(cursor.AddColumnCache(0));
            ASSERT_NE(column, nullptr);
        }
        EXPECT_STREQ(column->value, "a text");
        EXPECT_EQ(column->size, 6);
    });
    EXPECT_GE(without, 2);
}

TEST(CursorShortage, ResetStepAndFinalizeSQLStatement_NeedNoneOfSqlitesMemory) {
    const int count = SweepSqlite(Operations{"ResetStep", "FinalizeSQLStatement"}, [](Attempt& attempt) {
        Result result(kUpper);
        ASSERT_EQ(sqlite3_step(result.cursor.m_pStmt), SQLITE_ROW);
        int reset = 1;
        int finalised = 1;
        attempt.Run([&] {
            reset = result.cursor.ResetStep();
            finalised = result.cursor.FinalizeSQLStatement();
        });
        EXPECT_EQ(reset, 0);
        EXPECT_EQ(finalised, 0);
        EXPECT_FALSE(result.database.HasStatements());
    });
    EXPECT_EQ(count, 0);
}

// ---- Cursor: to the end -----------------------------------------------------------------------------------------

// One allocation alone: kept, these two follow every failure by another try, and so never return while SQLite has no
// memory at all.
const std::vector<Shortage> kOneAlone = {Shortage::OneOfSqlite};

// All that a cursor has seen: what it read before the failure, then, from the try after it, the whole result.
void ExpectBeginningAndAll(Result& result, const Attempt& attempt) {
    EXPECT_EQ(result.cursor.ResetStep(), 0);
    std::vector<std::string> rows;
    for (int row = 0; row < result.cursor.GetNumbersOfRows(); ++row) {
        EXPECT_EQ(result.cursor.MoveNextStep(), 0);
        rows.push_back(result.Row());
    }
    const std::size_t all = kUpperRows.size();
    ASSERT_GE(rows.size(), all);
    const std::size_t before = rows.size() - all;
    ASSERT_LE(before, attempt.Failed() > 0 ? all : 0);
    for (std::size_t i = 0; i < before; ++i) {
        EXPECT_THAT(rows[i], RowOrGaps(kUpperRows[i]));
    }
    EXPECT_EQ(std::vector<std::string>(rows.end() - static_cast<std::ptrdiff_t>(all), rows.end()),
              kUpperRows);
}

TEST(CursorShortage, MovesToTheEnd_WithoutSqlitesMemoryTryAgain) {
    using Move = int (*)(OpenCursor&);
    const Move moves[] = {[](OpenCursor& c) { return c.CreateCacheTillEnd(); },
                          [](OpenCursor& c) { return c.MoveLastStep(); }};
    for (const Move move : moves) {
        const int count = SweepSqlite(
            Operations{"CreateCacheTillEnd", "MoveLastStep"},
            [move](Attempt& attempt) {
                Result result(kUpper);
                ASSERT_EQ(result.cursor.MoveNextStep(), 0);
                int code = 1;
                attempt.Run([&] { code = move(result.cursor); });
                EXPECT_EQ(code, 0);
                EXPECT_EQ(attempt.HasInfoLine(), attempt.Failed() > 0);
                EXPECT_EQ(result.cursor.GetCurrentRowIndex(), result.cursor.GetNumbersOfRows() - 1);
                EXPECT_EQ(result.Row(), kUpperRows[2]);
                ExpectBeginningAndAll(result, attempt);
            },
            kOneAlone);
        EXPECT_GE(count, 1);
    }
}

TEST(CursorShortage, FirstMoveLastStep_WithoutSqlitesMemoryTriesAgain) {
    int ended = 0;
    SweepSqlite(
        Operations{"MoveLastStep"},
        [&ended](Attempt& attempt) {
            Result result(kUpper);
            int code = 1;
            attempt.Run([&] { code = result.cursor.MoveLastStep(); });
            EXPECT_EQ(attempt.HasInfoLine(), attempt.Failed() > 0);
            CSQLiteCursorCache& cache = *result.cursor.GetCusorCache();
            if (code == 0) {
                // Kept: one step past the end, which starts the statement over.
                EXPECT_THAT(result.Row(), RowOrGaps(kUpperRows[0]));
                const std::unique_ptr<CDbRow> past(cache.rows.back());
                cache.rows.pop_back();
            } else {
                ++ended;
                EXPECT_EQ(code, SQLITE_NOMEM);
                EXPECT_EQ(result.Row(), kUpperRows[2]);
            }
            ExpectBeginningAndAll(result, attempt);
        },
        kOneAlone);
    EXPECT_GE(ended, 1);
}

}  // namespace

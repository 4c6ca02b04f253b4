#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "FailingNew.h"
#include "Shortages.h"
#include "VantryExtras.h"

// The companions without memory: theirs, the library's and SQLite's. They answer by codes, and log nothing themselves.

namespace {

using namespace shortage;
using ::testing::AnyOf;
using ::testing::ElementsAre;

using Texts = std::vector<std::string>;
using InJournal = std::function<void(const std::string& journal, Attempt& attempt)>;

const Texts kColumns = {kName, kNote};
const std::string kNewName = "the new row of the table";
const std::string kNewNote = "the note of the new row";

// Allocations of operator new, on a database in memory. Returns how many there were.
int SweepNew(const Scenario& scenario) {
    int count = 0;
    for (const Shortage shortage : {Shortage::OneOfNew, Shortage::AllOfNew}) {
        SCOPED_TRACE(shortage == Shortage::OneOfNew ? "one allocation fails"
                                                    : "all allocations fail from one on");
        count = SweepOne(shortage, scenario, [](const Attempt& /*attempt*/) {});
    }
    return count;
}

// All of them, in memory and in files.
void SweepAll(const InJournal& scenario) {
    EXPECT_GE(SweepNew([&](Attempt& attempt) { scenario("", attempt); }), 1);
    SweepJournals(Operations{}, scenario);
}

// The same for what needs no memory of its own: only SQLite's pages may have to be had anew.
void SweepWithoutOwn(const InJournal& scenario) {
    EXPECT_EQ(SweepNew([&](Attempt& attempt) { scenario("", attempt); }), 0);
    for (const std::string& journal : kJournals) {
        SCOPED_TRACE(journal.empty() ? "in memory" : journal);
        EXPECT_GE(SweepSqlite(Operations{}, [&](Attempt& attempt) { scenario(journal, attempt); }), 1);
    }
}

// That the connection is free: no transaction, no statement; and what the file has.
void ExpectFree(const Database& database, const Texts& rows) {
    EXPECT_NE(sqlite3_get_autocommit(database.Handle()), 0);
    EXPECT_FALSE(database.HasStatements());
    EXPECT_EQ(database.Stored(), rows);
}

// ---- Transactions -----------------------------------------------------------------------------------------------

TEST(ExtrasShortage, TransactionScope_KeepsWhatItAcknowledgedAndNothingElse) {
    SweepAll([](const std::string& journal, Attempt& attempt) {
        Database database(journal);
        int begun = 1;
        int written = 1;
        int committed = 1;
        attempt.Run([&] {
            CTransactionScope transaction(database.connection);
            begun = transaction.Result();
            if (begun == 0) {
                written = database.connection.DeleteRequest(kTable, kWhereFirst);
                committed = written == 0 ? transaction.Commit() : 1;
            }
        });
        EXPECT_THAT(begun, AnyOf(0, -12));
        EXPECT_THAT(committed, AnyOf(0, 1, -12, kUnknown));
        EXPECT_TRUE(committed == 0 || attempt.Failed() > 0);
        ExpectFree(database, committed == 0 ? Texts{kRow2, kRow3} : Texts{kRow1, kRow2, kRow3});
        CTransactionScope again(database.connection);
        EXPECT_EQ(database.connection.DeleteRequest(kTable, kWhereFirst), 0);
        EXPECT_EQ(again.Commit(), 0);
        ExpectFree(database, {kRow2, kRow3});
    });
}

TEST(ExtrasShortage, Rollback_NeedsNoMemory) {
    const InJournal scenario = [](const std::string& journal, Attempt& attempt) {
        Database database(journal);
        CTransactionScope transaction(database.connection);
        EXPECT_EQ(database.connection.DeleteRequest(kTable, kWhereFirst), 0);
        int result = 1;
        attempt.Run([&] { result = transaction.Rollback(); });
        EXPECT_EQ(result, 0);
        ExpectFree(database, {kRow1, kRow2, kRow3});
    };
    SweepWithoutOwn(scenario);
}

// ---- Many rows --------------------------------------------------------------------------------------------------

TEST(ExtrasShortage, BulkInsert_KeepsAllRowsOrNone) {
    SweepAll([](const std::string& journal, Attempt& attempt) {
        Database database(journal);
        int made = 1;
        int first = 1;
        int set = 1;
        int second = 1;
        int committed = 1;
        attempt.Run([&] {
            CBulkInsert rows(database.connection, kTable, kColumns);
            made = rows.Result();
            first = rows.Insert(kNewName, kNewNote);
            const int name = rows.Set(0, "another new row");
            const int note = rows.Set(1, "its note");
            set = name != 0 ? name : note;
            second = rows.Insert();
            committed = first == 0 && second == 0 ? rows.Commit() : 1;
        });
        for (const int result : {made, first, set, second}) {
            EXPECT_THAT(result, AnyOf(0, -12, kUnknown));
            EXPECT_TRUE(result == 0 || attempt.Failed() > 0);
        }
        EXPECT_TRUE(made == 0 || first == made);
        // A value that was not set fails its row.
        EXPECT_TRUE(set == 0 || second != 0);
        EXPECT_TRUE(committed == 0 || attempt.Failed() > 0);
        const Texts all = {kRow1, kRow2, kRow3, kNewRow, "another new row|its note"};
        ExpectFree(database, committed == 0 ? all : Texts{kRow1, kRow2, kRow3});
        if (committed != 0) {
            CBulkInsert again(database.connection, kTable, kColumns);
            EXPECT_EQ(again.Insert(kNewName, kNewNote), 0);
            EXPECT_EQ(again.Insert("another new row", "its note"), 0);
            EXPECT_EQ(again.Commit(), 0);
            EXPECT_EQ(database.Stored(), all);
        }
    });
}

// A row that failed does not end the others, unless SQLite ended the transaction.
TEST(ExtrasShortage, BulkInsert_RowThatFailed_MayBeInsertedAgain) {
    const InJournal scenario = [](const std::string& journal, Attempt& attempt) {
        Database database(journal);
        bool ended = false;
        {
            CBulkInsert rows(database.connection, kTable, kColumns);
            EXPECT_EQ(rows.Insert("another new row", "its note"), 0);
            int result = 1;
            attempt.Run([&] { result = rows.Insert(kNewName, kNewNote); });
            EXPECT_THAT(result, AnyOf(0, -12));
            EXPECT_TRUE(result == 0 || attempt.Failed() > 0);
            ended = rows.Result() != 0;
            if (result != 0 && !ended) {
                result = rows.Insert(kNewName, kNewNote);
            }
            EXPECT_EQ(rows.Commit(), ended ? -12 : 0);
        }
        ExpectFree(database, ended ? Texts{kRow1, kRow2, kRow3}
                                   : Texts{kRow1, kRow2, kRow3, "another new row|its note", kNewRow});
    };
    SweepNew([&](Attempt& attempt) { scenario("", attempt); });
    for (const std::string& journal : kJournals) {
        SweepSqlite(Operations{}, [&](Attempt& attempt) { scenario(journal, attempt); });
    }
}

TEST(ExtrasShortage, BulkInsert_RollbackNeedsNoMemory) {
    const InJournal scenario = [](const std::string& journal, Attempt& attempt) {
        Database database(journal);
        {
            CBulkInsert rows(database.connection, kTable, kColumns);
            EXPECT_EQ(rows.Insert(kNewName, kNewNote), 0);
            int result = 1;
            attempt.Run([&] { result = rows.Rollback(); });
            EXPECT_EQ(result, 0);
        }
        ExpectFree(database, {kRow1, kRow2, kRow3});
    };
    SweepWithoutOwn(scenario);
}

// ---- Bundles ----------------------------------------------------------------------------------------------------

TEST(ExtrasShortage, Put_GivesAWholeBundleOrNone) {
    // The second value takes the first one's place; a text in quotes is copied.
    const std::string quoted = "'" + kNewNote + "'";
    EXPECT_GE(SweepNew([&](Attempt& attempt) {
                  Database database;
                  CBundle row;
                  int results[4] = {1, 1, 1, 1};
                  attempt.Run([&] {
                      results[0] = row.Put(kName, "a name that is replaced");
                      results[1] = row.Put(kName, kNewName);
                      results[2] = row.Put(kNote, quoted);
                      results[3] = row.Put(kNote, kNewNote);
                  });
                  int first = 0;
                  for (const int result : results) {
                      EXPECT_THAT(result, AnyOf(0, -12));
                      first = first != 0 ? first : result;
                  }
                  EXPECT_EQ(row.Result(), first);
                  EXPECT_EQ(row.Get() != nullptr, first == 0);
                  if (first != 0) {
                      EXPECT_GT(attempt.Failed(), 0);
                      EXPECT_EQ(database.connection.InsertRequest(kTable, row.Get()), -22);
                      row.Clear();
                      EXPECT_EQ(row.Put(kName, kNewName), 0);
                      EXPECT_EQ(row.Put(kNote, kNewNote), 0);
                  }
                  EXPECT_EQ(database.connection.InsertRequest(kTable, row.Get()), 0);
                  EXPECT_EQ(database.Stored(), (Texts{kRow1, kRow2, kRow3, kNewRow}));
              }),
              4);
}

// ---- Reading ----------------------------------------------------------------------------------------------------

TEST(ExtrasShortage, Row_GivesTheValueOrNone) {
    EXPECT_GE(SweepNew([](Attempt& attempt) {
                  Result result("*, zeroblob(100) AS bytes");
                  EXPECT_EQ(result.cursor.MoveNextStep(), 0);
                  const CRow row(result.cursor);
                  CMaybe<std::string> text;
                  CMaybe<std::string> named;
                  CMaybe<std::vector<unsigned char>> bytes;
                  bool null = true;
                  attempt.Run([&] {
                      text = row.Get<std::string>(0);
                      named = row.Get<std::string>(kNote);
                      bytes = row.Get<std::vector<unsigned char>>(2);
                      null = row.IsNull(kNote);
                  });
                  EXPECT_FALSE(null);
                  EXPECT_THAT(text.Result(), AnyOf(0, -12));
                  // A name that could not be copied is none of the columns'.
                  EXPECT_THAT(named.Result(), AnyOf(0, -12, -22));
                  EXPECT_THAT(bytes.Result(), AnyOf(0, -12));
                  const int failed = (text ? 0 : 1) + (named ? 0 : 1) + (bytes ? 0 : 1);
                  EXPECT_LE(failed, attempt.Failed());
                  if (text) {
                      EXPECT_EQ(text.Value(), kFirstName);
                  }
                  EXPECT_EQ(row.Get<std::string>(0).Value(), kFirstName);
                  EXPECT_EQ(row.Get<std::string>(kNote).Value(), "the note of the first row");
                  EXPECT_EQ(row.Get<std::vector<unsigned char>>(2).Value().size(), 100U);
              }),
              3);
}

TEST(ExtrasShortage, Rows_EndWithTheFailureOrWithAllRows) {
    const InJournal scenario = [](const std::string& journal, Attempt& attempt) {
        Database database(journal);
        const std::shared_ptr<ISQLiteCursor> cursor =
            database.connection.SelectRequest(kTable, {}, "", kName, false);
        ASSERT_TRUE(cursor);
        CRows rows(cursor);
        int visited = 0;
        attempt.Run([&] {
            for (auto row : rows) {
                visited += row.Cursor().GetColumnCount() == 2 ? 1 : 0;
            }
        });
        EXPECT_THAT(rows.Result(), AnyOf(-34, -12, SQLITE_NOMEM));
        EXPECT_EQ(rows.IsAtEnd(), rows.Result() == -34);
        if (rows.IsAtEnd()) {
            EXPECT_EQ(visited, 3);
        } else {
            EXPECT_LT(visited, 3);
            EXPECT_GT(attempt.Failed(), 0);
        }
        CRows again(database.connection.SelectRequest(kTable, {}, "", "", false));
        Texts names;
        for (auto row : again) {
            names.push_back(row.Get<std::string>(0).ValueOr(""));
        }
        EXPECT_EQ(names.size(), 3U);
        EXPECT_TRUE(again.IsAtEnd());
    };
    EXPECT_GE(SweepNew([&](Attempt& attempt) { scenario("", attempt); }), 3);
    // A result in order is made in memory wherever the rows are.
    for (const std::string& journal : kJournals) {
        const int count = SweepSqlite(Operations{}, [&](Attempt& attempt) { scenario(journal, attempt); });
        EXPECT_TRUE(count >= 1 || journal == "WAL");
    }
}

}  // namespace

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "Cursors.h"
#include "Fixtures.h"
#include "LogCapture.h"
#include "SQLiteCursor.h"
#include "Sleeps.h"
#include "SqliteFaults.h"

namespace {

using cursors::AppendRow;
using cursors::Integer;
using cursors::Letter;
using cursors::Letters;
using cursors::MakeInteger;
using cursors::MEBIBYTE;
using cursors::NoDatabase;
using cursors::NoMemory;
using cursors::NotActivated;
using cursors::NotConstructed;
using cursors::Numbers;
using cursors::Result;
using cursors::Retries;
using cursors::RowAt;
using support::LogCapture;
using support::OpenCursor;
using support::RawDb;
using support::Sleeps;
using support::SqliteFaults;
using support::TempDir;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr const char* NO_ROWS = "SELECT 1 AS id WHERE 0";

// Tells another number of rows than there is.
class BoastfulCursor : public OpenCursor {
public:
    using OpenCursor::OpenCursor;
    int GetNumbersOfRows() override { return rows; }
    int rows = 0;
};

void MoveNext(ISQLiteCursor& cursor, int times) {
    for (int i = 0; i < times; ++i) {
        ASSERT_EQ(cursor.MoveNextStep(), 0);
    }
}

// Where a virtual operation stands in its class's table.
template <typename Method>
std::ptrdiff_t SlotOf(Method method) {
    std::ptrdiff_t words[2] = {};
    static_assert(sizeof method == sizeof words);
    std::memcpy(words, &method, sizeof words);
    return words[0] / static_cast<std::ptrdiff_t>(sizeof(void*));
}

// ---- Layout and construction ------------------------------------------------------------------------------

TEST(CursorInterface, HasItsOperationsInOrder) {
    using I = ISQLiteCursor;
    const std::vector<std::ptrdiff_t> slots = {
        SlotOf(&I::MoveNextStep),     SlotOf(&I::MovePreviousStep), SlotOf(&I::MoveFirstStep),
        SlotOf(&I::MoveLastStep),     SlotOf(&I::GetIntegerData),   SlotOf(&I::GetInteger64Data),
        SlotOf(&I::GetDoubleData),    SlotOf(&I::GetStringData),    SlotOf(&I::GetBlobData),
        SlotOf(&I::GetColumnCount),   SlotOf(&I::GetColumnType),    SlotOf(&I::GetColumnName),
        SlotOf(&I::GetColumnIndex),   SlotOf(&I::GetColumnSize),    SlotOf(&I::GetCurrentRowIndex),
        SlotOf(&I::GetNumbersOfRows), SlotOf(&I::IsEmpty)};
    for (std::size_t i = 0; i < slots.size(); ++i) {
        // The destructor's two entries come first.
        EXPECT_EQ(slots[i], static_cast<std::ptrdiff_t>(i) + 2) << "operation " << i;
    }
}

TEST(CursorInterface, IsAbstractWithAVirtualDestructor) {
    EXPECT_TRUE(std::is_abstract_v<ISQLiteCursor>);
    EXPECT_TRUE(std::has_virtual_destructor_v<ISQLiteCursor>);
    EXPECT_TRUE((std::is_base_of_v<ISQLiteCursor, CSQLiteCursor>));
    EXPECT_FALSE(std::is_abstract_v<CSQLiteCursor>);
}

TEST(CursorConstruction, FieldsStandInOrder) {
    const OpenCursor cursor;
    const std::vector<const void*> fields = {&cursor.m_columnCount,     &cursor.m_rowCount, &cursor.m_pCache,
                                             &cursor.m_bStatementOwned, &cursor.m_pStmt,    &cursor.m_pDB,
                                             &cursor.m_currentRowIndex};
    for (std::size_t i = 1; i < fields.size(); ++i) {
        EXPECT_LT(fields[i - 1], fields[i]) << "field " << i;
    }
}

TEST(CursorConstruction, WithoutHandles_HasNothing) {
    const LogCapture log;
    OpenCursor cursor;
    EXPECT_EQ(cursor.m_columnCount, 0);
    EXPECT_EQ(cursor.m_rowCount, 0);
    EXPECT_EQ(cursor.m_pCache, nullptr);
    EXPECT_FALSE(cursor.m_bStatementOwned);
    EXPECT_EQ(cursor.m_pStmt, nullptr);
    EXPECT_EQ(cursor.m_pDB, nullptr);
    EXPECT_EQ(cursor.m_currentRowIndex, -1);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(CursorConstruction, WithHandles_KeepsThemAndDoesNotStep) {
    const LogCapture log;
    const SqliteFaults faults;
    RawDb db(":memory:");
    sqlite3_stmt* const statement = support::Prepare(db.Handle(), "SELECT 1, 2");
    OpenCursor cursor(db.Handle(), statement);
    EXPECT_EQ(cursor.m_columnCount, 0);
    EXPECT_EQ(cursor.m_rowCount, 0);
    EXPECT_EQ(cursor.m_pCache, nullptr);
    EXPECT_TRUE(cursor.m_bStatementOwned);
    EXPECT_EQ(cursor.m_pStmt, statement);
    EXPECT_EQ(cursor.m_pDB, db.Handle());
    EXPECT_EQ(cursor.m_currentRowIndex, -1);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(CursorDestruction, FinalisesTheStatement) {
    const LogCapture log;
    RawDb db(":memory:");
    {
        const std::shared_ptr<ISQLiteCursor> cursor =
            std::make_shared<CSQLiteCursor>(db.Handle(), support::Prepare(db.Handle(), Numbers(3)));
        ASSERT_EQ(cursor->MoveNextStep(), 0);
        EXPECT_NE(sqlite3_next_stmt(db.Handle(), nullptr), nullptr);
    }
    EXPECT_EQ(sqlite3_next_stmt(db.Handle(), nullptr), nullptr);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(CursorDestruction, FailedFinalisationIsLogged) {
    const LogCapture log;
    RawDb db(":memory:");
    {
        sqlite3_stmt* const statement = support::Prepare(db.Handle(), "SELECT abs(-9223372036854775808)");
        ASSERT_EQ(sqlite3_step(statement), 1);
        const CSQLiteCursor cursor(db.Handle(), statement);
    }
    EXPECT_THAT(log.Lines(),
                ElementsAre("I FinalizeSQLStatement >  Failed to finalize SQL statement. Error MSG"));
}

// ---- FinalizeSQLStatement ---------------------------------------------------------------------------------

TEST(FinalizeSQLStatement, LiveStatement_IsFinalisedOnce) {
    Result result(Numbers(3));
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->FinalizeSQLStatement(), 0);
    EXPECT_FALSE(result->m_bStatementOwned);
    EXPECT_EQ(result->m_pStmt, nullptr);
    EXPECT_EQ(sqlite3_next_stmt(result.Db().Handle(), nullptr), nullptr);
    EXPECT_EQ(result->FinalizeSQLStatement(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 1);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(FinalizeSQLStatement, NoStatement_Returns0) {
    const LogCapture log;
    const SqliteFaults faults;
    OpenCursor cursor;
    cursor.m_bStatementOwned = true;
    EXPECT_EQ(cursor.FinalizeSQLStatement(), 0);
    EXPECT_FALSE(cursor.m_bStatementOwned);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(FinalizeSQLStatement, StatementOfAnother_IsLetGoUnfinalised) {
    RawDb db(":memory:");
    sqlite3_stmt* const statement = support::Prepare(db.Handle(), Numbers(3));
    OpenCursor cursor(db.Handle(), statement);
    cursor.m_bStatementOwned = false;
    EXPECT_EQ(cursor.FinalizeSQLStatement(), 0);
    EXPECT_EQ(cursor.m_pStmt, nullptr);
    EXPECT_EQ(sqlite3_next_stmt(db.Handle(), nullptr), statement);
    sqlite3_finalize(statement);
}

TEST(FinalizeSQLStatement, StatementWhoseLastStepFailed_ReturnsItsCodeAndLetsGo) {
    Result result("SELECT abs(-9223372036854775808)");
    ASSERT_EQ(result->MoveNextStep(), 1);
    const LogCapture log;
    EXPECT_EQ(result->FinalizeSQLStatement(), 1);
    EXPECT_FALSE(result->m_bStatementOwned);
    EXPECT_EQ(result->m_pStmt, nullptr);
    EXPECT_EQ(sqlite3_next_stmt(result.Db().Handle(), nullptr), nullptr);
    EXPECT_THAT(log.Lines(),
                ElementsAre("I FinalizeSQLStatement >  Failed to finalize SQL statement. Error MSG"));
}

TEST(FinalizeSQLStatement, StatementWhoseLastStepMetALock_IsNotRetried) {
    const TempDir dir;
    RawDb writer(dir.File("a.db"));
    writer.Exec("CREATE TABLE t(id); INSERT INTO t VALUES(1)");
    RawDb reader(dir.File("a.db"));
    OpenCursor cursor(reader.Handle(), support::Prepare(reader.Handle(), "SELECT id FROM t"));
    writer.Exec("BEGIN EXCLUSIVE");
    const Sleeps sleeps;
    ASSERT_EQ(cursor.MoveNextStep(), 5);
    const int slept = sleeps.Count();
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(cursor.FinalizeSQLStatement(), 5);
    EXPECT_EQ(faults.Calls("sqlite3_finalize"), 1);
    EXPECT_EQ(sleeps.Count(), slept);
    EXPECT_EQ(cursor.m_pStmt, nullptr);
    EXPECT_THAT(log.Lines(),
                ElementsAre("I FinalizeSQLStatement >  Failed to finalize SQL statement. Error MSG"));
    writer.Exec("COMMIT");
}

TEST(FinalizeSQLStatement, CachedRowsCanStillBeVisited) {
    Result result(Numbers(5));
    MoveNext(*result, 3);
    ASSERT_EQ(result->FinalizeSQLStatement(), 0);
    const LogCapture log;
    EXPECT_EQ(Integer(*result), 2);
    EXPECT_EQ(result->MoveFirstStep(), 0);
    EXPECT_EQ(Integer(*result), 0);
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(Integer(*result), 2);
    EXPECT_EQ(result->MoveNextStep(), -22);
    EXPECT_EQ(result->GetCurrentRowIndex(), 2);
    EXPECT_EQ(Integer(*result), 2);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// ---- MoveNextStep -----------------------------------------------------------------------------------------

TEST(MoveNextStep, CursorWithoutStatement_ReturnsMinus14) {
    const LogCapture log;
    OpenCursor cursor;
    EXPECT_EQ(cursor.MoveNextStep(), -14);
    EXPECT_EQ(cursor.m_pCache, nullptr);
    EXPECT_EQ(cursor.GetCurrentRowIndex(), -1);
    EXPECT_THAT(log.Lines(), ElementsAre(NotConstructed("MoveNextStep")));
}

TEST(MoveNextStep, FinalisedBeforeTheFirstMove_ReturnsMinus14) {
    Result result(Numbers(3));
    result->FinalizeSQLStatement();
    const LogCapture log;
    EXPECT_EQ(result->MoveNextStep(), -14);
    EXPECT_THAT(log.Lines(), ElementsAre(NotConstructed("MoveNextStep")));
}

TEST(MoveNextStep, FirstMove_MakesTheCacheAndCachesTheFirstRow) {
    Result result("SELECT 7 AS a, 8 AS b UNION ALL SELECT 9, 10");
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->MoveNextStep(), 0);
    ASSERT_NE(result->m_pCache, nullptr);
    EXPECT_EQ(result->m_columnCount, 2);
    EXPECT_EQ(result->m_rowCount, 0);
    EXPECT_EQ(result->m_currentRowIndex, 0);
    EXPECT_THAT(result.Cache().columnNames, ElementsAre("a", "b"));
    EXPECT_EQ(result.Cache().currentRow, result.Cache().rows.front());
    EXPECT_EQ(faults.Calls("sqlite3_step"), 1);
    EXPECT_EQ(Integer(*result, 0), 7);
    EXPECT_EQ(Integer(*result, 1), 8);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveNextStep, FirstMoveWithoutDatabase_MakesTheCacheAndReturnsMinus14) {
    RawDb db(":memory:");
    OpenCursor cursor(nullptr, support::Prepare(db.Handle(), "SELECT 1, 2"));
    const LogCapture log;
    EXPECT_EQ(cursor.MoveNextStep(), -14);
    ASSERT_NE(cursor.m_pCache, nullptr);
    EXPECT_EQ(cursor.m_columnCount, 2);
    EXPECT_EQ(cursor.MoveNextStep(), -14);
    EXPECT_EQ(cursor.m_currentRowIndex, -1);
    EXPECT_THAT(log.Lines(), ElementsAre(NoDatabase("AddRowCache"), NoDatabase("AddRowCache")));
}

TEST(MoveNextStep, ResultWithoutRows_ReturnsMinus34AndStaysEmpty) {
    Result result(NO_ROWS);
    const LogCapture log;
    EXPECT_EQ(result->MoveNextStep(), -34);
    EXPECT_TRUE(result->IsEmpty());
    EXPECT_EQ(result->GetNumbersOfRows(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), -1);
    EXPECT_EQ(result->m_rowCount, 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveNextStep, AtTheEnd_ReturnsMinus34StaysAndKnowsTheRowCount) {
    Result result(Numbers(3));
    MoveNext(*result, 3);
    EXPECT_EQ(result->m_rowCount, 0);
    const LogCapture log;
    EXPECT_EQ(result->MoveNextStep(), -34);
    EXPECT_EQ(result->GetCurrentRowIndex(), 2);
    EXPECT_EQ(result->m_rowCount, 3);
    EXPECT_EQ(Integer(*result), 2);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveNextStep, AfterTheEnd_TakesWhatTheStatementGives) {
    Result result(Numbers(2));
    MoveNext(*result, 2);
    ASSERT_EQ(result->MoveNextStep(), -34);
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 2);
    EXPECT_EQ(Integer(*result), 0);
    EXPECT_EQ(result->m_rowCount, 2);
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(Integer(*result), 1);
    EXPECT_EQ(result->MoveNextStep(), -34);
    EXPECT_EQ(result->m_rowCount, 4);
    EXPECT_EQ(result->GetNumbersOfRows(), 4);
    EXPECT_THAT(result.Cache().columnNames, ElementsAre("id"));
}

TEST(MoveNextStep, CachedRow_IsServedWithoutAStep) {
    Result result(Numbers(3));
    MoveNext(*result, 3);
    ASSERT_EQ(result->MovePreviousStep(), 0);
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 2);
    EXPECT_EQ(result.Cache().currentRow, RowAt(result.Cache(), 2));
    EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveNextStep, StatementNotOwned_ReturnsMinus22AtTheEndOfTheCache) {
    Result result(Numbers(3));
    MoveNext(*result, 1);
    result->m_bStatementOwned = false;
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->MoveNextStep(), -22);
    EXPECT_EQ(result->GetCurrentRowIndex(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
    result->m_bStatementOwned = true;
}

TEST(MoveNextStep, OwnedButMissingStatement_ReturnsMinus22AtTheEndOfTheCache) {
    OpenCursor cursor;
    AppendRow(cursor, MakeInteger(4));
    cursor.m_bStatementOwned = true;
    const LogCapture log;
    EXPECT_EQ(cursor.MoveNextStep(), 0);
    EXPECT_EQ(cursor.MoveNextStep(), -22);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveNextStep, EvictedRow_Returns100AndStays) {
    Result result(Letters(4, MEBIBYTE));
    MoveNext(*result, 4);
    result->ResetStep();
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->MoveNextStep(), 100);
    EXPECT_EQ(result->GetCurrentRowIndex(), -1);
    EXPECT_EQ(result.Cache().currentRow, nullptr);
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 1);
    EXPECT_THAT(log.Lines(), ElementsAre("I UpdateRowCache > another row available"));
}

TEST(MoveNextStep, EvictedRowWithoutStatement_ReturnsMinus14) {
    Result result(Letters(4, MEBIBYTE));
    MoveNext(*result, 4);
    result->FinalizeSQLStatement();
    result->ResetStep();
    const LogCapture log;
    EXPECT_EQ(result->MoveNextStep(), -14);
    EXPECT_EQ(result->GetCurrentRowIndex(), -1);
    EXPECT_THAT(log.Lines(), ElementsAre(NotConstructed("UpdateRowCache")));
}

TEST(MoveNextStep, PositionFarBeforeTheRows_IsLoggedAndReturns0) {
    OpenCursor cursor;
    AppendRow(cursor, MakeInteger(4));
    for (const int position : {-2, -3, -100}) {
        cursor.m_currentRowIndex = position;
        const LogCapture log;
        EXPECT_EQ(cursor.MoveNextStep(), 0);
        EXPECT_EQ(cursor.GetCurrentRowIndex(), position);
        EXPECT_EQ(cursor.m_pCache->currentRow, nullptr);
        EXPECT_THAT(log.Lines(), ElementsAre("I MoveNextStep > Can't find the next item "));
    }
}

TEST(MoveNextStep, PositionFarBeforeTheRowsAndAKnownPlace_IsLoggedAndReturns0) {
    Result result(Numbers(3));
    MoveNext(*result, 3);
    ASSERT_EQ(result->MoveFirstStep(), 0);
    ASSERT_EQ(result.Cache().placeRows, 3U);
    ASSERT_EQ(result.Cache().placeIndex, 0);
    result->m_currentRowIndex = -2;
    const LogCapture log;
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), -2);
    EXPECT_THAT(log.Lines(), ElementsAre("I MoveNextStep > Can't find the next item "));
}

TEST(MoveNextStep, RowThatIsNotInTheList_IsLoggedAndReturns0) {
    BoastfulCursor cursor;
    AppendRow(cursor, MakeInteger(4));
    cursor.rows = 10;
    ASSERT_EQ(cursor.MoveNextStep(), 0);
    const LogCapture log;
    EXPECT_EQ(cursor.MoveNextStep(), 0);
    EXPECT_EQ(cursor.GetCurrentRowIndex(), 0);
    EXPECT_EQ(cursor.m_pCache->currentRow, cursor.m_pCache->rows.front());
    EXPECT_THAT(log.Lines(), ElementsAre("I MoveNextStep > Can't find the next item "));
}

TEST(MoveNextStep, AsksTheVirtualNumberOfRows) {
    BoastfulCursor cursor;
    AppendRow(cursor, MakeInteger(4));
    cursor.rows = 0;
    const LogCapture log;
    EXPECT_EQ(cursor.MoveNextStep(), -22);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveNextStep, FailedFirstStep_LeavesTheCursorWithoutColumnNames) {
    Result result(Numbers(2));
    SqliteFaults faults;
    faults.Answer("sqlite3_step", 10);
    ASSERT_EQ(result->MoveNextStep(), 10);
    EXPECT_TRUE(result->IsEmpty());
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 0);
    EXPECT_EQ(Integer(*result), 0);
    EXPECT_THAT(result.Cache().columnNames, IsEmpty());
}

TEST(MoveNextStep, LockReleasedWhileItWaits_GoesOnWithoutASuccessLine) {
    const TempDir dir;
    RawDb writer(dir.File("a.db"));
    writer.Exec("CREATE TABLE t(id); INSERT INTO t VALUES(5)");
    RawDb reader(dir.File("a.db"));
    OpenCursor cursor(reader.Handle(), support::Prepare(reader.Handle(), "SELECT id FROM t"));
    writer.Exec("BEGIN EXCLUSIVE");
    const Sleeps sleeps([&writer](int number) {
        if (number == 4) {
            writer.Exec("COMMIT");
        }
    });
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(cursor.MoveNextStep(), 0);
    EXPECT_EQ(Integer(cursor), 5);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 5);
    EXPECT_EQ(sleeps.Count(), 4);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_THAT(log.Lines(), ElementsAreArray(Retries("AddRowCache", "sqlite3_step", 4)));
}

TEST(MoveNextStep, LockThatStays_Returns5After31StepsAnd30Waits) {
    const TempDir dir;
    RawDb writer(dir.File("a.db"));
    writer.Exec("CREATE TABLE t(id); INSERT INTO t VALUES(5)");
    RawDb reader(dir.File("a.db"));
    OpenCursor cursor(reader.Handle(), support::Prepare(reader.Handle(), "SELECT id FROM t"));
    writer.Exec("BEGIN EXCLUSIVE");
    const Sleeps sleeps;
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(cursor.MoveNextStep(), 5);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 31);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_EQ(cursor.GetCurrentRowIndex(), -1);
    EXPECT_THAT(log.Lines(), ElementsAreArray(Retries(
                                 "AddRowCache", "sqlite3_step", 30,
                                 {"I AddRowCache > [sqlite3_step] SQLite3 Error : database is locked"})));
    writer.Exec("COMMIT");
    EXPECT_EQ(cursor.MoveNextStep(), 0);
    EXPECT_EQ(Integer(cursor), 5);
}

// ---- MovePreviousStep -------------------------------------------------------------------------------------

TEST(MovePreviousStep, BeforeTheFirstMove_ReturnsMinus14) {
    Result result(Numbers(3));
    const LogCapture log;
    EXPECT_EQ(result->MovePreviousStep(), -14);
    EXPECT_THAT(log.Lines(), ElementsAre(NotActivated("MovePreviousStep")));
}

TEST(MovePreviousStep, OnTheFirstRow_ReturnsMinus22AndStays) {
    Result result(Numbers(3));
    MoveNext(*result, 1);
    const LogCapture log;
    EXPECT_EQ(result->MovePreviousStep(), -22);
    EXPECT_EQ(result->GetCurrentRowIndex(), 0);
    EXPECT_EQ(Integer(*result), 0);
    EXPECT_THAT(log.Lines(), ElementsAre(NotConstructed("MovePreviousStep")));
}

TEST(MovePreviousStep, BeforeTheFirstRow_ReturnsMinus22) {
    Result result(Numbers(3));
    MoveNext(*result, 2);
    result->ResetStep();
    const LogCapture log;
    EXPECT_EQ(result->MovePreviousStep(), -22);
    EXPECT_EQ(result->GetCurrentRowIndex(), -1);
    EXPECT_EQ(result.Cache().currentRow, nullptr);
    EXPECT_THAT(log.Lines(), ElementsAre(NotConstructed("MovePreviousStep")));
}

TEST(MovePreviousStep, EmptyRowList_Returns0) {
    Result result(NO_ROWS);
    ASSERT_EQ(result->MoveNextStep(), -34);
    result->m_currentRowIndex = 3;
    const LogCapture log;
    EXPECT_EQ(result->MovePreviousStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 3);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MovePreviousStep, ListEndsBeforeTheRow_Returns0) {
    Result result(Numbers(3));
    MoveNext(*result, 2);
    result->m_currentRowIndex = 3;
    const LogCapture log;
    EXPECT_EQ(result->MovePreviousStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 3);
    EXPECT_EQ(Integer(*result), 1);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MovePreviousStep, RowsTakenOutByHandBehindAKnownPlace_Returns0) {
    Result result(Numbers(5));
    MoveNext(*result, 5);
    ASSERT_EQ(result->MovePreviousStep(), 0);
    auto& rows = result.Cache().rows;
    while (!rows.empty()) {
        delete rows.back();
        rows.pop_back();
    }
    result.Cache().currentRow = nullptr;
    EXPECT_EQ(result->MovePreviousStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 3);
    EXPECT_EQ(result.Cache().currentRow, nullptr);
}

TEST(MovePreviousStep, RowTakenOutByHandBeforeAKnownPlace_FindsTheRowByItsNumber) {
    Result result(Numbers(5));
    MoveNext(*result, 5);
    ASSERT_EQ(result->MovePreviousStep(), 0);
    auto& rows = result.Cache().rows;
    delete rows.front();
    rows.pop_front();
    EXPECT_EQ(result->MovePreviousStep(), 0);
    EXPECT_EQ(Integer(*result), 3);
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(Integer(*result), 4);
}

TEST(MovePreviousStep, CachedRow_BecomesCurrentWithoutAStep) {
    Result result(Numbers(3));
    MoveNext(*result, 3);
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->MovePreviousStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 1);
    EXPECT_EQ(Integer(*result), 1);
    EXPECT_EQ(result->MovePreviousStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 0);
    EXPECT_EQ(Integer(*result), 0);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MovePreviousStep, EvictedRow_Returns100AndStays) {
    Result result(Letters(4, MEBIBYTE));
    MoveNext(*result, 4);
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->MovePreviousStep(), 100);
    EXPECT_EQ(result->GetCurrentRowIndex(), 3);
    EXPECT_EQ(Letter(*result), 'd');
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 1);
    EXPECT_THAT(log.Lines(), ElementsAre("I UpdateRowCache > another row available"));
}

// ---- MoveFirstStep ----------------------------------------------------------------------------------------

TEST(MoveFirstStep, AsTheFirstMove_IsMoveNextStep) {
    Result result(Numbers(3));
    EXPECT_EQ(result->MoveFirstStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 0);
    EXPECT_EQ(Integer(*result), 0);
    EXPECT_THAT(result.Cache().columnNames, ElementsAre("id"));
}

TEST(MoveFirstStep, CursorWithoutStatement_ReturnsMinus14) {
    const LogCapture log;
    OpenCursor cursor;
    EXPECT_EQ(cursor.MoveFirstStep(), -14);
    EXPECT_THAT(log.Lines(), ElementsAre(NotConstructed("MoveNextStep")));
}

TEST(MoveFirstStep, OnTheFirstRow_DoesNothing) {
    Result result(Numbers(3));
    MoveNext(*result, 1);
    result.Cache().currentRow = nullptr;
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->MoveFirstStep(), 0);
    EXPECT_EQ(result.Cache().currentRow, nullptr);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveFirstStep, CachedFirstRow_BecomesCurrentWithoutAStep) {
    Result result(Numbers(3));
    MoveNext(*result, 3);
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->MoveFirstStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 0);
    EXPECT_EQ(Integer(*result), 0);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveFirstStep, EvictedFirstRow_Returns100AndMakesItCurrent) {
    Result result(Letters(4, MEBIBYTE));
    MoveNext(*result, 4);
    const LogCapture log;
    EXPECT_EQ(result->MoveFirstStep(), 100);
    EXPECT_EQ(result->GetCurrentRowIndex(), 3);
    EXPECT_EQ(result.Cache().currentRow, result.Cache().rows.front());
    EXPECT_THAT(log.Lines(), ElementsAre("I UpdateRowCache > another row available"));
}

TEST(MoveFirstStep, EmptyRowList_AsksTheDatabaseAgain) {
    Result result("SELECT id FROM t", "CREATE TABLE t(id)");
    ASSERT_EQ(result->MoveNextStep(), -34);
    result.Db().Exec("INSERT INTO t VALUES(42)");
    result->m_rowCount = 7;
    result->m_currentRowIndex = 5;
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->MoveFirstStep(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 1);
    EXPECT_EQ(result->GetCurrentRowIndex(), 0);
    EXPECT_EQ(result->m_rowCount, 0);
    EXPECT_EQ(result->GetNumbersOfRows(), 1);
    EXPECT_EQ(Integer(*result), 42);
    EXPECT_THAT(result.Cache().columnNames, ElementsAre("id"));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveFirstStep, EmptyRowListOfAStillEmptyResult_ReturnsMinus34) {
    Result result(NO_ROWS);
    ASSERT_EQ(result->MoveNextStep(), -34);
    const LogCapture log;
    EXPECT_EQ(result->MoveFirstStep(), -34);
    EXPECT_EQ(result->GetCurrentRowIndex(), -1);
    EXPECT_TRUE(result->IsEmpty());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveFirstStep, EmptyRowListWithoutStatement_LosesTheCacheAndReturnsMinus14) {
    Result result(NO_ROWS);
    ASSERT_EQ(result->MoveNextStep(), -34);
    result->FinalizeSQLStatement();
    const LogCapture log;
    EXPECT_EQ(result->MoveFirstStep(), -14);
    EXPECT_EQ(result->m_pCache, nullptr);
    EXPECT_THAT(log.Lines(), ElementsAre(NotConstructed("ResetStep"), NotConstructed("MoveNextStep")));
}

TEST(MoveFirstStep, EmptyRowListWithoutDatabase_ReturnsMinus14) {
    RawDb db(":memory:");
    OpenCursor cursor(nullptr, support::Prepare(db.Handle(), Numbers(2)));
    ASSERT_EQ(cursor.MoveNextStep(), -14);
    const LogCapture log;
    EXPECT_EQ(cursor.MoveFirstStep(), -14);
    EXPECT_THAT(log.Lines(), ElementsAre(NoDatabase("ResetStep"), NoDatabase("AddRowCache")));
}

TEST(MoveFirstStep, FailedResetOfTheRebuild_IsLoggedAndPassedOver) {
    Result result("SELECT abs(-9223372036854775808) AS a");
    ASSERT_EQ(result->MoveNextStep(), 1);
    const LogCapture log;
    EXPECT_EQ(result->MoveFirstStep(), 1);
    EXPECT_THAT(log.Lines(), ElementsAre("I ResetStep > integer overflow",
                                         "I AddRowCache > [sqlite3_step] SQLite3 Error : integer overflow"));
}

// ---- MoveLastStep -----------------------------------------------------------------------------------------

TEST(MoveLastStep, AsTheFirstMove_EndsOnASecondCopyOfTheFirstRow) {
    Result result(Numbers(3));
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->MoveLastStep(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 5);
    EXPECT_EQ(result->GetCurrentRowIndex(), 3);
    EXPECT_EQ(result->GetNumbersOfRows(), 4);
    EXPECT_EQ(result->m_rowCount, 3);
    EXPECT_EQ(Integer(*result), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveLastStep, AsTheFirstMoveOfAResultWithoutRows_ReturnsMinus34) {
    Result result(NO_ROWS);
    const SqliteFaults faults;
    EXPECT_EQ(result->MoveLastStep(), -34);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 3);
    EXPECT_EQ(result->GetCurrentRowIndex(), -1);
    EXPECT_TRUE(result->IsEmpty());
}

TEST(MoveLastStep, OnTheFirstOfManyRows_StepsToTheEnd) {
    Result result(Numbers(5));
    MoveNext(*result, 1);
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->MoveLastStep(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 5);
    EXPECT_EQ(result->GetCurrentRowIndex(), 4);
    EXPECT_EQ(result->m_rowCount, 5);
    EXPECT_EQ(Integer(*result), 4);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveLastStep, OnTheLastRow_DoesNothing) {
    Result result(Numbers(3));
    MoveNext(*result, 3);
    ASSERT_EQ(result->MoveNextStep(), -34);
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->MoveLastStep(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 2);
    EXPECT_EQ(Integer(*result), 2);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveLastStep, EmptyRowList_StepsToTheEndAndReturns0) {
    Result result(NO_ROWS);
    ASSERT_EQ(result->MoveNextStep(), -34);
    const SqliteFaults faults;
    EXPECT_EQ(result->MoveLastStep(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 1);
    EXPECT_EQ(result->GetCurrentRowIndex(), -1);
}

TEST(MoveLastStep, EmptyRowListOfAResultThatGotRows_CachesThem) {
    Result result("SELECT id FROM t", "CREATE TABLE t(id)");
    ASSERT_EQ(result->MoveNextStep(), -34);
    result.Db().Exec("INSERT INTO t VALUES(42), (43)");
    EXPECT_EQ(result->MoveLastStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 1);
    EXPECT_EQ(Integer(*result), 43);
}

// Four more rows are counted from row 0, on which the cursor stood, and not from row 2, the last of the list.
TEST(MoveLastStep, FromBeforeTheEndOfTheList_CountsFromWhereTheIndexStood) {
    Result result(Numbers(7));
    MoveNext(*result, 3);
    ASSERT_EQ(result->MoveFirstStep(), 0);
    const LogCapture log;
    EXPECT_EQ(result->MoveLastStep(), 0);
    EXPECT_EQ(result->GetNumbersOfRows(), 7);
    EXPECT_EQ(result->GetCurrentRowIndex(), 4);
    EXPECT_EQ(result->m_rowCount, 5);
    EXPECT_EQ(Integer(*result), 6);
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 5);
    EXPECT_EQ(Integer(*result), 5);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveLastStep, OnTheFirstRowOfAnExhaustedResult_AppendsItAgain) {
    Result result(Numbers(3));
    MoveNext(*result, 3);
    ASSERT_EQ(result->MoveNextStep(), -34);
    ASSERT_EQ(result->MoveFirstStep(), 0);
    EXPECT_EQ(result->MoveLastStep(), 0);
    EXPECT_EQ(result->GetNumbersOfRows(), 6);
    EXPECT_EQ(result->GetCurrentRowIndex(), 3);
    EXPECT_EQ(result->m_rowCount, 4);
    EXPECT_EQ(Integer(*result), 2);
}

TEST(MoveLastStep, AfterAReset_StandsOnTheFirstRowAndCountsFromThere) {
    Result result(Numbers(5));
    MoveNext(*result, 2);
    result->ResetStep();
    const LogCapture log;
    EXPECT_EQ(result->MoveLastStep(), 0);
    EXPECT_EQ(result->GetNumbersOfRows(), 5);
    EXPECT_EQ(result->GetCurrentRowIndex(), 3);
    EXPECT_EQ(result->m_rowCount, 4);
    EXPECT_EQ(Integer(*result), 4);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveLastStep, AfterAResetOfAnExhaustedOneRowResult_StandsOnItsRowWithoutAStep) {
    Result result(Numbers(1));
    MoveNext(*result, 1);
    ASSERT_EQ(result->MoveNextStep(), -34);
    result->FinalizeSQLStatement();
    result->ResetStep();
    const LogCapture log;
    EXPECT_EQ(result->MoveLastStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 0);
    EXPECT_EQ(Integer(*result), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(MoveLastStep, AfterAResetWithAnEvictedFirstRow_KeepsTheRefillsResult) {
    Result result(Letters(3, MEBIBYTE));
    MoveNext(*result, 2);
    result->ResetStep();
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->MoveLastStep(), 100);
    // The refill left the statement on row 0: rows 1 and 2 are cached, and counted from -1.
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 4);
    EXPECT_EQ(result->GetNumbersOfRows(), 4);
    EXPECT_EQ(result->GetCurrentRowIndex(), 1);
    EXPECT_EQ(result->m_rowCount, 2);
    EXPECT_EQ(Letter(*result), 'c');
    EXPECT_EQ(log.Lines().front(), "I UpdateRowCache > another row available");
}

// ---- ResetStep --------------------------------------------------------------------------------------------

TEST(ResetStep, WithACache_GoesBeforeTheFirstRowAndKeepsTheRows) {
    Result result(Numbers(3));
    MoveNext(*result, 2);
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->ResetStep(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), -1);
    EXPECT_EQ(result.Cache().currentRow, nullptr);
    EXPECT_EQ(result->GetNumbersOfRows(), 2);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(ResetStep, ThenMoveNextStep_ReplaysTheCacheWithoutAStep) {
    Result result(Numbers(3));
    MoveNext(*result, 2);
    result->ResetStep();
    const SqliteFaults faults;
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 0);
    EXPECT_EQ(Integer(*result), 0);
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(Integer(*result), 1);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(Integer(*result), 2);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 1);
}

TEST(ResetStep, WithACacheAndNothingElse_Returns0) {
    OpenCursor cursor;
    AppendRow(cursor, MakeInteger(1));
    ASSERT_EQ(cursor.MoveNextStep(), 0);
    EXPECT_EQ(cursor.ResetStep(), 0);
    EXPECT_EQ(cursor.GetCurrentRowIndex(), -1);
}

TEST(ResetStep, WithoutStatement_ReturnsMinus14) {
    const LogCapture log;
    OpenCursor cursor;
    EXPECT_EQ(cursor.ResetStep(), -14);
    EXPECT_THAT(log.Lines(), ElementsAre(NotConstructed("ResetStep")));
}

TEST(ResetStep, WithoutDatabase_ReturnsMinus14) {
    RawDb db(":memory:");
    OpenCursor cursor(nullptr, support::Prepare(db.Handle(), Numbers(2)));
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(cursor.ResetStep(), -14);
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 0);
    EXPECT_THAT(log.Lines(), ElementsAre(NoDatabase("ResetStep")));
}

TEST(ResetStep, BeforeTheFirstMove_ResetsTheStatement) {
    Result result(Numbers(2));
    ASSERT_EQ(sqlite3_step(result->m_pStmt), 100);
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->ResetStep(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 1);
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(Integer(*result), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(ResetStep, FailedReset_IsLoggedAndNotRetried) {
    const TempDir dir;
    RawDb writer(dir.File("a.db"));
    writer.Exec("CREATE TABLE t(id)");
    RawDb reader(dir.File("a.db"));
    OpenCursor cursor(reader.Handle(), support::Prepare(reader.Handle(), "SELECT id FROM t"));
    writer.Exec("BEGIN EXCLUSIVE");
    ASSERT_EQ(sqlite3_step(cursor.m_pStmt), 5);
    const Sleeps sleeps;
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(cursor.ResetStep(), 5);
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 1);
    EXPECT_EQ(sleeps.Count(), 0);
    EXPECT_THAT(log.Lines(), ElementsAre("I ResetStep > database is locked"));
    writer.Exec("COMMIT");
}

// ---- GetNumbersOfRows, IsEmpty ----------------------------------------------------------------------------

TEST(GetNumbersOfRows, BeforeTheFirstMove_LogsAndReturns0) {
    Result result(Numbers(3));
    const LogCapture log;
    EXPECT_EQ(result->GetNumbersOfRows(), 0);
    EXPECT_THAT(log.Lines(), ElementsAre(NotActivated("GetNumbersOfRows")));
}

TEST(GetNumbersOfRows, CountsTheRowsSeenSoFar) {
    Result result(Numbers(3));
    const LogCapture log;
    for (int seen = 1; seen <= 3; ++seen) {
        ASSERT_EQ(result->MoveNextStep(), 0);
        EXPECT_EQ(result->GetNumbersOfRows(), seen);
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(GetNumbersOfRows, CountsEvictedRows) {
    Result result(Letters(4, MEBIBYTE));
    MoveNext(*result, 4);
    ASSERT_FALSE(result.Cache().rows.front()->isCached);
    EXPECT_EQ(result->GetNumbersOfRows(), 4);
}

TEST(IsEmpty, BeforeTheFirstMove_LogsAndReturnsTrue) {
    Result result(Numbers(3));
    const LogCapture log;
    EXPECT_TRUE(result->IsEmpty());
    EXPECT_THAT(log.Lines(), ElementsAre(NotActivated("IsEmpty")));
}

TEST(IsEmpty, AfterTheFirstRow_ReturnsFalse) {
    Result result(Numbers(3));
    MoveNext(*result, 1);
    const LogCapture log;
    EXPECT_FALSE(result->IsEmpty());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(IsEmpty, AsksTheVirtualNumberOfRows) {
    BoastfulCursor cursor;
    AppendRow(cursor, MakeInteger(4));
    cursor.rows = 0;
    EXPECT_TRUE(cursor.IsEmpty());
    cursor.rows = 1;
    EXPECT_FALSE(cursor.IsEmpty());
}

// ---- What a move costs ------------------------------------------------------------------------------------

// A place that lies tells where a move starts: it ends beside the row that the place points at.
TEST(MoveCost, NextAndPreviousStartAtThePlaceOfTheLastMove) {
    Result result(Numbers(1000));
    ASSERT_EQ(result->MoveNextStep(), 0);
    ASSERT_EQ(result->CreateCacheTillEnd(), 0);
    auto& cache = result.Cache();

    result->m_currentRowIndex = 500;
    cache.place = std::next(cache.rows.begin(), 10);
    cache.placeIndex = 500;
    cache.placeRows = cache.rows.size();
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(Integer(*result), 11);
    EXPECT_EQ(cache.placeIndex, 501);
    EXPECT_EQ(*cache.place, RowAt(cache, 11));

    result->m_currentRowIndex = 500;
    cache.place = std::next(cache.rows.begin(), 10);
    cache.placeIndex = 500;
    cache.placeRows = cache.rows.size();
    EXPECT_EQ(result->MovePreviousStep(), 0);
    EXPECT_EQ(Integer(*result), 9);
    EXPECT_EQ(cache.placeIndex, 499);
}

TEST(MoveCost, PlaceNearerThanTheEnds_IsWhereTheSearchStarts) {
    Result result(Numbers(1000));
    ASSERT_EQ(result->MoveNextStep(), 0);
    ASSERT_EQ(result->CreateCacheTillEnd(), 0);
    auto& cache = result.Cache();
    const auto found = [&](int from, int (CSQLiteCursor::*move)()) {
        cache.place = std::next(cache.rows.begin(), 450);
        cache.placeIndex = 500;
        cache.placeRows = cache.rows.size();
        result->m_currentRowIndex = from;
        EXPECT_EQ(((*result).*move)(), 0);
        return Integer(*result);
    };
    EXPECT_EQ(found(502, &CSQLiteCursor::MoveNextStep), 453);
    EXPECT_EQ(found(498, &CSQLiteCursor::MovePreviousStep), 447);
    EXPECT_EQ(found(499, &CSQLiteCursor::MoveNextStep), 450);
    EXPECT_EQ(found(501, &CSQLiteCursor::MovePreviousStep), 450);
    // On the way between two, at the last row that is nearer to the place and the first that is not.
    EXPECT_EQ(found(748, &CSQLiteCursor::MoveNextStep), 699);
    EXPECT_EQ(found(749, &CSQLiteCursor::MoveNextStep), 750);
    EXPECT_EQ(found(252, &CSQLiteCursor::MovePreviousStep), 201);
    EXPECT_EQ(found(251, &CSQLiteCursor::MovePreviousStep), 250);
}

TEST(MoveCost, FarPlace_IsNotUsedNearTheEnds) {
    Result result(Numbers(1000));
    ASSERT_EQ(result->MoveNextStep(), 0);
    ASSERT_EQ(result->CreateCacheTillEnd(), 0);
    auto& cache = result.Cache();

    cache.place = std::next(cache.rows.begin(), 10);
    cache.placeIndex = 500;
    cache.placeRows = cache.rows.size();
    EXPECT_EQ(result->MovePreviousStep(), 0);
    EXPECT_EQ(Integer(*result), 998);

    cache.place = std::next(cache.rows.begin(), 10);
    cache.placeIndex = 500;
    cache.placeRows = cache.rows.size();
    EXPECT_EQ(result->MoveFirstStep(), 0);
    EXPECT_EQ(Integer(*result), 0);
    EXPECT_EQ(cache.placeIndex, 0);
}

TEST(MoveCost, HundredThousandRowsBothWays_PlaceFollowsEveryMove) {
    constexpr int ROWS = 100000;
    Result result(Numbers(ROWS));
    const LogCapture log;
    ASSERT_EQ(result->MoveNextStep(), 0);
    ASSERT_EQ(result->CreateCacheTillEnd(), 0);
    ASSERT_EQ(result->GetNumbersOfRows(), ROWS);
    auto& cache = result.Cache();
    int wrong = 0;
    for (int index = ROWS - 2; index >= 0; --index) {
        wrong += result->MovePreviousStep() != 0 || cache.placeIndex != index ||
                 *cache.place != cache.currentRow || Integer(*result) != index;
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(result->MovePreviousStep(), -22);
    for (int index = 1; index < ROWS; ++index) {
        wrong += result->MoveNextStep() != 0 || cache.placeIndex != index ||
                 *cache.place != cache.currentRow || Integer(*result) != index;
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_THAT(log.Lines(), ElementsAre(NotConstructed("MovePreviousStep")));
}

}  // namespace

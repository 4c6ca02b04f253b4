#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "Cursors.h"
#include "Fixtures.h"
#include "LogCapture.h"
#include "SQLiteCursor.h"
#include "Sleeps.h"
#include "SqliteFaults.h"

namespace {

using cursors::AppendRow;
using cursors::CachedRows;
using cursors::Integer;
using cursors::Letter;
using cursors::Letters;
using cursors::MakeColumn;
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
using cursors::Text;
using support::LogCapture;
using support::OpenCursor;
using support::RawDb;
using support::Sleeps;
using support::SqliteFaults;
using support::TempDir;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr const char* EVICTED_BY_ADDING =
    "I AddRowCache >  Cache memory is not enough. Removing old rows in FIFO manner till there is enough "
    "space for the "
    "current row";
constexpr const char* EVICTED_BY_REFILLING =
    "I UpdateRowCache >  Cache memory wasn't enough. Remove old rows in FIFO manner till there is enough "
    "space for "
    "the current row";

// A select of one column, v, and a table that gives its rows so many bytes of text each.
constexpr const char* SIZED = "SELECT substr(hex(zeroblob(2097152)), 1, n) AS v FROM t ORDER BY rowid";
std::string SizedSetup(const std::vector<int>& sizes) {
    std::string sql = "CREATE TABLE t(n);";
    for (const int size : sizes) {
        sql += "INSERT INTO t VALUES(" + std::to_string(size) + ");";
    }
    return sql;
}

void MoveNext(ISQLiteCursor& cursor, int times) {
    for (int i = 0; i < times; ++i) {
        ASSERT_EQ(cursor.MoveNextStep(), 0);
    }
}

// A live cursor that has a cache and has not stepped.
class Unstepped : public Result {
public:
    explicit Unstepped(const std::string& select, const std::string& setup = "") : Result(select, setup) {
        (*this)->m_pCache = new CSQLiteCursorCache;
        (*this)->m_columnCount = sqlite3_column_count((*this)->m_pStmt);
    }
};

std::string Bytes(const CDbColumn& column, int count) {
    return {column.value, static_cast<std::size_t>(count)};
}

template <typename Number>
std::string BytesOf(Number number) {
    std::string bytes(sizeof number, '\0');
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

// ---- The classes ------------------------------------------------------------------------------------------

TEST(MaxDbCacheSize, Is2MiB) {
    const int* const exported = &CSQLiteCursor::MAX_DB_CACHE_SIZE;
    EXPECT_EQ(*exported, 2097152);
}

TEST(DbColumn, New_IsANullOfNoSize) {
    const CDbColumn column;
    EXPECT_EQ(column.type, 5);
    EXPECT_EQ(column.size, 0);
    EXPECT_EQ(column.value, nullptr);
    EXPECT_LT(offsetof(CDbColumn, type), offsetof(CDbColumn, size));
    EXPECT_LT(offsetof(CDbColumn, size), offsetof(CDbColumn, value));
}

struct LargeColumn : CDbColumn {
    char more[100] = {};
};

struct LargeRow : CDbRow {
    char more[100] = {};
};

// Makes many of one kind, writes all of their own bytes and says how many keep them.
template <typename Object>
int MadeAndKept() {
    std::vector<std::unique_ptr<Object>> objects;
    for (int i = 0; i < 200; ++i) {
        objects.emplace_back(i % 2 == 0 ? new Object : new (std::nothrow) Object);
        std::memset(objects.back()->more, i, sizeof objects.back()->more);
    }
    int kept = 0;
    for (int i = 0; i < 200; ++i) {
        const char* const more = objects[static_cast<std::size_t>(i)]->more;
        kept += std::count(more, more + sizeof(Object::more), static_cast<char>(i)) == sizeof(Object::more);
    }
    return kept;
}

// The library keeps memory for columns and rows in pieces of their size.
TEST(DbColumn, LargerClassDerivedFromIt_HasItsOwnMemory) { EXPECT_EQ(MadeAndKept<LargeColumn>(), 200); }

TEST(DbRow, LargerClassDerivedFromIt_HasItsOwnMemory) { EXPECT_EQ(MadeAndKept<LargeRow>(), 200); }

TEST(DbColumn, DeleteOfNoMemory_DoesNothing) {
    CDbColumn::operator delete(nullptr, sizeof(CDbColumn));
    CDbRow::operator delete(nullptr, sizeof(CDbRow));
    CDbColumn::operator delete(nullptr, sizeof(LargeColumn));
}

// Goes after what the library keeps for a thread, when it was made before that.
class Latecomer {
public:
    Latecomer() = default;
    Latecomer(const Latecomer&) = delete;
    Latecomer& operator=(const Latecomer&) = delete;
    ~Latecomer() {
        std::vector<std::unique_ptr<CDbColumn>> columns;
        std::vector<std::unique_ptr<CDbRow>> rows;
        for (int i = 0; i < 300; ++i) {
            columns.push_back(MakeInteger(i));
            rows.push_back(std::make_unique<CDbRow>());
            rows.back()->size = i;
        }
        for (int i = 0; i < 300; ++i) {
            long long number = -1;
            std::memcpy(&number, columns[static_cast<std::size_t>(i)]->value, sizeof number);
            *right += number == i && rows[static_cast<std::size_t>(i)]->size == i;
        }
    }

    int* right = nullptr;
};

TEST(DbColumn, MadeWhileItsThreadEnds_IsLikeAnyOther) {
    int right = 0;
    std::thread([&right] {
        thread_local Latecomer latecomer;
        latecomer.right = &right;
        MakeInteger(1);
        std::make_unique<CDbRow>();
    }).join();
    EXPECT_EQ(right, 300);
}

TEST(DbRow, New_IsEmptyAndNotCached) {
    const CDbRow row;
    EXPECT_THAT(row.columns, IsEmpty());
    EXPECT_FALSE(row.isCached);
    EXPECT_EQ(row.size, 0);
    EXPECT_THAT(row.evictedColumns, IsEmpty());
    EXPECT_LT(offsetof(CDbRow, columns), offsetof(CDbRow, isCached));
    EXPECT_LT(offsetof(CDbRow, isCached), offsetof(CDbRow, size));
}

TEST(DbRow, Destruction_PassesOverMissingColumns) {
    auto row = std::make_unique<CDbRow>();
    row->columns = {MakeInteger(1).release(), nullptr, MakeInteger(2).release()};
    row->evictedColumns = {nullptr, MakeInteger(3).release()};
    EXPECT_NO_THROW(row.reset());
}

TEST(CursorCache, New_IsEmpty) {
    CSQLiteCursorCache cache;
    EXPECT_EQ(cache.cacheSize, 0);
    EXPECT_EQ(cache.currentRow, nullptr);
    EXPECT_THAT(cache.columnNames, IsEmpty());
    EXPECT_THAT(cache.rows, IsEmpty());
    EXPECT_EQ(cache.placeIndex, -1);
    EXPECT_TRUE(cache.lastEvicted == cache.rows.end());
    const std::vector<const void*> fields = {&cache.cacheSize, &cache.currentRow, &cache.columnNames,
                                             &cache.rows};
    EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end()));
}

TEST(GetCusorCache, IsNullUntilTheFirstMove) {
    Result result(Numbers(2));
    EXPECT_EQ(result->GetCusorCache(), nullptr);
    MoveNext(*result, 1);
    ASSERT_NE(result->GetCusorCache(), nullptr);
    EXPECT_EQ(result->GetCusorCache(), result->m_pCache);
}

TEST(GetCurrentCacheSize, IsTheCount) {
    Result result(Numbers(2));
    MoveNext(*result, 1);
    EXPECT_EQ(result->GetCurrentCacheSize(), 10);
    result.Cache().cacheSize = -3;
    EXPECT_EQ(result->GetCurrentCacheSize(), -3);
}

// ---- AddColumnCache ---------------------------------------------------------------------------------------

struct ColumnCase {
    const char* name;
    const char* sql;
    int type;
    std::string bytes;
};

class ColumnOfType : public testing::TestWithParam<ColumnCase> {};

INSTANTIATE_TEST_SUITE_P(
    AddColumnCache, ColumnOfType,
    testing::Values(
        ColumnCase{"Integer", "72623859790382856", 1, BytesOf(72623859790382856LL)},
        ColumnCase{"GreatestInteger", "9223372036854775807", 1, BytesOf(LLONG_MAX)},
        ColumnCase{"LeastInteger", "-9223372036854775807 - 1", 1, BytesOf(LLONG_MIN)},
        ColumnCase{"Float", "-2.5", 2, BytesOf(-2.5)},
        // A power of two, reached by exact steps: SQLite reads great decimals to the last bit only where long
        // double is wider than double.
        ColumnCase{"GreatFloat", "(1 << 62) * 1.0 * (1 << 62)", 2, BytesOf(std::ldexp(1.0, 124))},
        ColumnCase{"Text", "'text'", 3, "text"}, ColumnCase{"EmptyText", "''", 3, ""},
        ColumnCase{"TextWithAZeroByte", "CAST(x'61006200' AS TEXT)", 3, std::string("a\0b\0", 4)},
        ColumnCase{"Blob", "x'00ff00'", 4, std::string("\0\xff\0", 3)}, ColumnCase{"EmptyBlob", "x''", 4, ""},
        ColumnCase{"ZeroBlob", "zeroblob(5)", 4, std::string(5, '\0')}),
    [](const auto& tested) { return std::string(tested.param.name); });

// One zero byte follows every value: the ninth of a number, the terminator of a text.
TEST_P(ColumnOfType, IsCopiedWithAZeroByteBehind) {
    Result result(std::string("SELECT 0, ") + GetParam().sql);
    ASSERT_EQ(sqlite3_step(result->m_pStmt), 100);
    const LogCapture log;
    const std::unique_ptr<CDbColumn> column(result->AddColumnCache(1));
    ASSERT_NE(column, nullptr);
    EXPECT_EQ(column->type, GetParam().type);
    EXPECT_EQ(column->size, static_cast<int>(GetParam().bytes.size()));
    ASSERT_NE(column->value, nullptr);
    EXPECT_EQ(Bytes(*column, column->size + 1), GetParam().bytes + std::string(1, '\0'));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(AddColumnCache, Null_HasNoValue) {
    Result result("SELECT NULL");
    ASSERT_EQ(sqlite3_step(result->m_pStmt), 100);
    const LogCapture log;
    const std::unique_ptr<CDbColumn> column(result->AddColumnCache(0));
    EXPECT_EQ(column->type, 5);
    EXPECT_EQ(column->size, 0);
    EXPECT_EQ(column->value, nullptr);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(AddColumnCache, UnknownType_IsLoggedAndKept) {
    for (const int type : {0, 6, -1, 99}) {
        Result result("SELECT 'text'");
        ASSERT_EQ(sqlite3_step(result->m_pStmt), 100);
        const LogCapture log;
        SqliteFaults faults;
        faults.Answer("sqlite3_column_type", type);
        const std::unique_ptr<CDbColumn> column(result->AddColumnCache(0));
        EXPECT_EQ(column->type, type);
        EXPECT_EQ(column->size, 0);
        EXPECT_EQ(column->value, nullptr);
        EXPECT_THAT(log.Lines(), ElementsAre("I AddColumnCache > The column type is invalid."));
    }
}

TEST(AddColumnCache, NoStatement_GivesAnEmptyColumn) {
    const LogCapture log;
    OpenCursor cursor;
    const std::unique_ptr<CDbColumn> column(cursor.AddColumnCache(0));
    ASSERT_NE(column, nullptr);
    EXPECT_EQ(column->type, 5);
    EXPECT_EQ(column->size, 0);
    EXPECT_EQ(column->value, nullptr);
    EXPECT_THAT(log.Lines(), ElementsAre(NotConstructed("AddColumnCache")));
}

TEST(AddColumnCache, ColumnThatDoesNotExist_IsNull) {
    Result result("SELECT 'text'");
    ASSERT_EQ(sqlite3_step(result->m_pStmt), 100);
    for (const int number : {-1, 1, INT_MAX, INT_MIN}) {
        const std::unique_ptr<CDbColumn> column(result->AddColumnCache(number));
        EXPECT_EQ(column->type, 5);
        EXPECT_EQ(column->size, 0);
        EXPECT_EQ(column->value, nullptr);
    }
}

// A text in UTF-16 has to be converted, for which SQLite needs memory of its own.
TEST(AddColumnCache, NoMemoryInSqlite_LeavesTheTypeOnly) {
    Result result(
        "SELECT v FROM t",
        "PRAGMA encoding = 'UTF-16le'; CREATE TABLE t(v); INSERT INTO t VALUES(hex(zeroblob(500000)))");
    ASSERT_EQ(sqlite3_step(result->m_pStmt), 100);
    const LogCapture log;
    const auto before = sqlite3_hard_heap_limit64(-1);
    sqlite3_hard_heap_limit64(sqlite3_memory_used() + 100000);
    const std::unique_ptr<CDbColumn> column(result->AddColumnCache(0));
    sqlite3_hard_heap_limit64(before);
    ASSERT_NE(column, nullptr);
    EXPECT_EQ(column->type, 3);
    EXPECT_EQ(column->size, 0);
    EXPECT_EQ(column->value, nullptr);
    EXPECT_THAT(log.Lines(), ElementsAre(NoMemory("AddColumnCache")));
}

// ---- AddRowCache ------------------------------------------------------------------------------------------

TEST(AddRowCache, Row_IsCopiedLinkedAndCurrent) {
    Unstepped result("SELECT 1 AS id, 'text' AS name, NULL AS n, x'0102' AS b");
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->AddRowCache(true), 0);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 1);
    EXPECT_EQ(faults.Calls("sqlite3_data_count"), 1);
    auto& cache = result.Cache();
    ASSERT_EQ(cache.rows.size(), 1U);
    const CDbRow& row = *cache.rows.front();
    EXPECT_EQ(cache.currentRow, &row);
    EXPECT_TRUE(row.isCached);
    EXPECT_EQ(row.size, 8 + 4 + 2);
    ASSERT_EQ(row.columns.size(), 4U);
    EXPECT_EQ(row.columns[0]->type, 1);
    EXPECT_EQ(row.columns[1]->type, 3);
    EXPECT_EQ(row.columns[2]->type, 5);
    EXPECT_EQ(row.columns[3]->type, 4);
    EXPECT_THAT(row.evictedColumns, IsEmpty());
    EXPECT_EQ(result->m_currentRowIndex, 0);
    EXPECT_EQ(result->m_rowCount, 0);
    EXPECT_THAT(cache.columnNames, ElementsAre("id", "name", "n", "b"));
    EXPECT_EQ(cache.cacheSize, 2 + 4 + 1 + 1 + 14);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(AddRowCache, FurtherRows_StandBehindInOrder) {
    Unstepped result(Numbers(3));
    EXPECT_EQ(result->AddRowCache(true), 0);
    EXPECT_EQ(result->AddRowCache(false), 0);
    EXPECT_EQ(result->AddRowCache(false), 0);
    EXPECT_EQ(result->m_currentRowIndex, 2);
    EXPECT_EQ(result.Cache().currentRow, result.Cache().rows.back());
    EXPECT_EQ(Integer(*result), 2);
    EXPECT_EQ(result->MoveFirstStep(), 0);
    EXPECT_EQ(Integer(*result), 0);
}

TEST(AddRowCache, ColumnNames_AreCountedOnceAndNeverSubtracted) {
    Result result("SELECT id AS a_longer_name, id AS b FROM t",
                  "CREATE TABLE t(id); INSERT INTO t VALUES(1), (2), (3)");
    MoveNext(*result, 1);
    EXPECT_EQ(result->GetCurrentCacheSize(), 14 + 16);
    MoveNext(*result, 2);
    EXPECT_EQ(result->GetCurrentCacheSize(), 14 + 3 * 16);
    result.Cache().cacheSize += 2097152;
    ASSERT_TRUE(result->ForceGetCacheSize());
    EXPECT_THAT(CachedRows(result.Cache()), ElementsAre(false, false, false));
    EXPECT_EQ(result->GetCurrentCacheSize(), 14 + 2097152);
    EXPECT_THAT(result.Cache().columnNames, ElementsAre("a_longer_name", "b"));
}

TEST(AddRowCache, WithoutNames_RecordsAndCountsNone) {
    Unstepped result("SELECT 1 AS id");
    EXPECT_EQ(result->AddRowCache(false), 0);
    EXPECT_THAT(result.Cache().columnNames, IsEmpty());
    EXPECT_EQ(result->GetCurrentCacheSize(), 8);
}

TEST(AddRowCache, TextOfNBytes_CountsN) {
    Unstepped result("SELECT 'caf\xC3\xA9' AS v");
    EXPECT_EQ(result->AddRowCache(false), 0);
    EXPECT_EQ(result->GetCurrentCacheSize(), 5);
    EXPECT_EQ(Bytes(*result.Cache().currentRow->columns[0], 6), std::string("caf\xC3\xA9\0", 6));
}

TEST(AddRowCache, Utf16Database_CountsTheUtf8Bytes) {
    for (const char* encoding : {"UTF-16le", "UTF-16be"}) {
        Unstepped result("SELECT v AS \"\xC3\xA9\" FROM t",
                         std::string("PRAGMA encoding = '") + encoding +
                             "'; CREATE TABLE t(v); INSERT INTO t VALUES('abc\xE2\x82\xAC')");
        EXPECT_EQ(result->AddRowCache(true), 0);
        EXPECT_EQ(Text(*result), "abc\xE2\x82\xAC");
        EXPECT_EQ(result.Cache().currentRow->size, 6);
        EXPECT_EQ(result->GetCurrentCacheSize(), 2 + 6);
    }
}

TEST(AddRowCache, NoRows_ReturnsMinus34AndLeavesEverything) {
    Unstepped result("SELECT 1 AS id WHERE 0");
    result->m_rowCount = 7;
    const LogCapture log;
    EXPECT_EQ(result->AddRowCache(true), -34);
    EXPECT_THAT(result.Cache().rows, IsEmpty());
    EXPECT_THAT(result.Cache().columnNames, IsEmpty());
    EXPECT_EQ(result->m_rowCount, 7);
    EXPECT_EQ(result->m_currentRowIndex, -1);
    EXPECT_EQ(result->GetCurrentCacheSize(), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(AddRowCache, Done_SetsTheRowCountFromTheIndex) {
    Unstepped result("SELECT 1 AS id WHERE 0");
    result->m_currentRowIndex = 0;
    EXPECT_EQ(result->AddRowCache(true), -34);
    EXPECT_EQ(result->m_rowCount, 1);
    result->m_currentRowIndex = 41;
    EXPECT_EQ(result->AddRowCache(true), -34);
    EXPECT_EQ(result->m_rowCount, 42);
}

TEST(AddRowCache, NotReady_ChecksStatementCacheAndDatabaseInThatOrder) {
    RawDb db(":memory:");
    const LogCapture log;
    const SqliteFaults faults;

    OpenCursor nothing;
    EXPECT_EQ(nothing.AddRowCache(true), -14);
    OpenCursor statementOnly(nullptr, support::Prepare(db.Handle(), Numbers(1)));
    EXPECT_EQ(statementOnly.AddRowCache(true), -14);
    statementOnly.m_pCache = new CSQLiteCursorCache;
    EXPECT_EQ(statementOnly.AddRowCache(true), -14);
    EXPECT_THAT(log.Lines(), ElementsAre(NotConstructed("AddRowCache"), NotActivated("AddRowCache"),
                                         NoDatabase("AddRowCache")));
    EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
}

class AddRowCacheBusy : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Codes, AddRowCacheBusy, testing::Values(5, 6), testing::PrintToStringParamName());

TEST_P(AddRowCacheBusy, GivesUpAfter31StepsAnd30Waits) {
    Unstepped result(Numbers(2));
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults faults;
    faults.Answer("sqlite3_step", GetParam(), 100);
    EXPECT_EQ(result->AddRowCache(true), GetParam());
    EXPECT_EQ(faults.Calls("sqlite3_step"), 31);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_THAT(result.Cache().rows, IsEmpty());
    EXPECT_THAT(log.Lines(),
                ElementsAreArray(Retries("AddRowCache", "sqlite3_step", 30,
                                         {"I AddRowCache > [sqlite3_step] SQLite3 Error : not an error"})));
}

TEST_P(AddRowCacheBusy, RowAfterRetries_HasNoSuccessLine) {
    for (const int busy : {1, 29, 30}) {
        Unstepped result(Numbers(2));
        const LogCapture log;
        const Sleeps sleeps;
        SqliteFaults faults;
        faults.Answer("sqlite3_step", GetParam(), busy);
        EXPECT_EQ(result->AddRowCache(true), 0);
        EXPECT_EQ(faults.Calls("sqlite3_step"), busy + 1);
        EXPECT_EQ(sleeps.Count(), busy);
        EXPECT_EQ(Integer(*result), 0);
        EXPECT_THAT(log.Lines(), ElementsAreArray(Retries("AddRowCache", "sqlite3_step", busy)));
    }
}

TEST_P(AddRowCacheBusy, DoneAfterRetries_HasNoSuccessLine) {
    Unstepped result("SELECT 1 WHERE 0");
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults faults;
    faults.Answer("sqlite3_step", GetParam(), 3);
    EXPECT_EQ(result->AddRowCache(true), -34);
    EXPECT_EQ(sleeps.Count(), 3);
    EXPECT_THAT(log.Lines(), ElementsAreArray(Retries("AddRowCache", "sqlite3_step", 3)));
}

TEST_P(AddRowCacheBusy, ZeroAfterRetries_HasSuccessAndErrorLines) {
    for (const int busy : {1, 30}) {
        Unstepped result(Numbers(2));
        const LogCapture log;
        const Sleeps sleeps;
        SqliteFaults faults;
        faults.Answer("sqlite3_step", GetParam(), busy);
        faults.Answer("sqlite3_step", 0);
        EXPECT_EQ(result->AddRowCache(true), 0);
        EXPECT_EQ(faults.Calls("sqlite3_step"), busy + 1);
        EXPECT_EQ(sleeps.Count(), busy);
        EXPECT_THAT(result.Cache().rows, IsEmpty());
        EXPECT_EQ(result->m_currentRowIndex, -1);
        EXPECT_THAT(log.Lines(), ElementsAreArray(Retries(
                                     "AddRowCache", "sqlite3_step", busy,
                                     {"I AddRowCache > Executing single query succeeded after: " +
                                          std::to_string(busy) + " attempts;",
                                      "I AddRowCache > [sqlite3_step] SQLite3 Error : not an error"})));
    }
}

TEST(AddRowCache, BothAddRowCacheBusys_AreCountedTogether) {
    Unstepped result(Numbers(2));
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults faults;
    faults.Answer("sqlite3_step", 5, 2);
    faults.Answer("sqlite3_step", 6, 2);
    EXPECT_EQ(result->AddRowCache(true), 0);
    EXPECT_EQ(sleeps.Count(), 4);
    EXPECT_THAT(log.Lines(), ElementsAreArray(Retries("AddRowCache", "sqlite3_step", 4)));
}

TEST(AddRowCache, ZeroWithoutRetries_IsLoggedAsAnErrorAndCachesNothing) {
    Unstepped result(Numbers(2));
    const LogCapture log;
    SqliteFaults faults;
    faults.Answer("sqlite3_step", 0);
    EXPECT_EQ(result->AddRowCache(true), 0);
    EXPECT_THAT(result.Cache().rows, IsEmpty());
    EXPECT_EQ(result->m_currentRowIndex, -1);
    EXPECT_THAT(log.Lines(), ElementsAre("I AddRowCache > [sqlite3_step] SQLite3 Error : not an error"));
}

TEST(AddRowCache, OtherCodes_AreReturnedUnchanged) {
    for (const int code : {1, 4, 7, 9, 10, 11, 21, 26, 99, 102, 266, 517, -3}) {
        Unstepped result(Numbers(2));
        const LogCapture log;
        const Sleeps sleeps;
        SqliteFaults faults;
        faults.Answer("sqlite3_step", code);
        EXPECT_EQ(result->AddRowCache(true), code);
        EXPECT_EQ(sleeps.Count(), 0);
        EXPECT_THAT(result.Cache().rows, IsEmpty());
        EXPECT_THAT(log.Lines(), ElementsAre("I AddRowCache > [sqlite3_step] SQLite3 Error : not an error"));
    }
}

TEST(AddRowCache, RealFailure_IsLoggedWithItsMessage) {
    Unstepped result("SELECT abs(-9223372036854775807 - 1)");
    const LogCapture log;
    EXPECT_EQ(result->AddRowCache(true), 1);
    EXPECT_THAT(log.Lines(), ElementsAre("I AddRowCache > [sqlite3_step] SQLite3 Error : integer overflow"));
}

// ---- IsCachesFull, ForceGetCacheSize ----------------------------------------------------------------------

TEST(IsCachesFull, WithoutACache_IsFalse) {
    const LogCapture log;
    OpenCursor cursor;
    EXPECT_FALSE(cursor.IsCachesFull());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(IsCachesFull, IsTrueFromOneByteAboveTheLimit) {
    Result result(Numbers(1));
    MoveNext(*result, 1);
    for (const int size : {INT_MIN, -1, 0, 2097151, 2097152}) {
        result.Cache().cacheSize = size;
        EXPECT_FALSE(result->IsCachesFull()) << size;
    }
    for (const int size : {2097153, INT_MAX}) {
        result.Cache().cacheSize = size;
        EXPECT_TRUE(result->IsCachesFull()) << size;
    }
}

TEST(IsCachesFull, RowsThatReachTheLimitExactly_DoNotFillIt) {
    Result result(SIZED, SizedSetup({MEBIBYTE, MEBIBYTE - 1, 1}));
    const LogCapture log;
    MoveNext(*result, 2);
    EXPECT_EQ(result->GetCurrentCacheSize(), 2097152);
    EXPECT_FALSE(result->IsCachesFull());
    EXPECT_THAT(CachedRows(result.Cache()), ElementsAre(true, true));
    EXPECT_THAT(log.Lines(), IsEmpty());
    MoveNext(*result, 1);
    EXPECT_THAT(CachedRows(result.Cache()), ElementsAre(false, true, true));
    EXPECT_EQ(result->GetCurrentCacheSize(), 1 + MEBIBYTE);
    EXPECT_THAT(log.Lines(), ElementsAre(EVICTED_BY_ADDING));
}

TEST(ForceGetCacheSize, WithoutACache_LogsAndReturnsFalse) {
    const LogCapture log;
    OpenCursor cursor;
    EXPECT_FALSE(cursor.ForceGetCacheSize());
    EXPECT_THAT(log.Lines(), ElementsAre(NotActivated("ForceGetCacheSize")));
}

TEST(ForceGetCacheSize, CacheThatIsNotFull_ReturnsFalseAndEvictsNothing) {
    Result result(Numbers(3));
    MoveNext(*result, 3);
    result.Cache().cacheSize = 2097152;
    const LogCapture log;
    EXPECT_FALSE(result->ForceGetCacheSize());
    EXPECT_THAT(CachedRows(result.Cache()), ElementsAre(true, true, true));
    EXPECT_EQ(result->GetCurrentCacheSize(), 2097152);
    EXPECT_TRUE(result.Cache().lastEvicted == result.Cache().rows.end());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(ForceGetCacheSize, FullCache_EvictsTheOldestRowsUntilItIsNot) {
    Result result(Numbers(5));
    MoveNext(*result, 5);
    result.Cache().cacheSize = 2097152 + 9;
    const LogCapture log;
    EXPECT_TRUE(result->ForceGetCacheSize());
    EXPECT_THAT(CachedRows(result.Cache()), ElementsAre(false, false, true, true, true));
    EXPECT_EQ(result->GetCurrentCacheSize(), 2097152 - 7);
    EXPECT_EQ(*result.Cache().lastEvicted, RowAt(result.Cache(), 1));
    EXPECT_EQ(result->GetNumbersOfRows(), 5);
    EXPECT_FALSE(result->ForceGetCacheSize());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(ForceGetCacheSize, EvictedRow_KeepsItsPlaceAndItsValuesForReadingByPosition) {
    Result result("SELECT 7 AS id, 'text' AS t, NULL AS n UNION ALL SELECT 8, 'more', NULL");
    MoveNext(*result, 2);
    const std::vector<CDbColumn*> columns = RowAt(result.Cache(), 0)->columns;
    result.Cache().cacheSize = 2097152 + 1;
    ASSERT_TRUE(result->ForceGetCacheSize());
    const CDbRow& row = *RowAt(result.Cache(), 0);
    EXPECT_FALSE(row.isCached);
    EXPECT_EQ(row.size, 0);
    EXPECT_THAT(row.columns, IsEmpty());
    EXPECT_EQ(row.evictedColumns, columns);
    ASSERT_EQ(columns.size(), 3U);
    EXPECT_EQ(Bytes(*columns[0], 8), BytesOf(7LL));
    EXPECT_EQ(Bytes(*columns[1], 5), std::string("text\0", 5));
    EXPECT_EQ(columns[2]->type, 5);
}

TEST(ForceGetCacheSize, StillFullAfterEveryRow_ReturnsTrue) {
    Result result(Numbers(3));
    MoveNext(*result, 3);
    result.Cache().cacheSize = INT_MAX;
    EXPECT_TRUE(result->ForceGetCacheSize());
    EXPECT_THAT(CachedRows(result.Cache()), ElementsAre(false, false, false));
    EXPECT_EQ(result->GetCurrentCacheSize(), INT_MAX - 24);
    EXPECT_TRUE(result->IsCachesFull());
    EXPECT_TRUE(result->ForceGetCacheSize());
    EXPECT_EQ(result->GetCurrentCacheSize(), INT_MAX - 24);
}

TEST(ForceGetCacheSize, NoRows_ReturnsTrueWhenFull) {
    Unstepped result(Numbers(1));
    result.Cache().cacheSize = 2097153;
    EXPECT_TRUE(result->ForceGetCacheSize());
    EXPECT_EQ(result->GetCurrentCacheSize(), 2097153);
}

TEST(ForceGetCacheSize, RowsAlreadyEvicted_AreSkipped) {
    OpenCursor cursor;
    for (int number = 0; number < 4; ++number) {
        AppendRow(cursor, MakeInteger(number));
    }
    CDbRow* const emptied = RowAt(*cursor.m_pCache, 0);
    emptied->isCached = false;
    emptied->size = 1000;
    cursor.m_pCache->cacheSize = 2097152 + 8;
    EXPECT_TRUE(cursor.ForceGetCacheSize());
    EXPECT_THAT(CachedRows(*cursor.m_pCache), ElementsAre(false, false, true, true));
    EXPECT_EQ(cursor.GetCurrentCacheSize(), 2097152);
    EXPECT_EQ(emptied->size, 1000);
}

TEST(ForceGetCacheSize, MissingColumns_AreEvictedLikeOthers) {
    Result result("SELECT 1, 2, 3");
    MoveNext(*result, 1);
    CDbRow& row = *result.Cache().rows.front();
    delete row.columns[1];
    row.columns[1] = nullptr;
    result.Cache().cacheSize = 2097152 + 1;
    EXPECT_TRUE(result->ForceGetCacheSize());
    EXPECT_FALSE(row.isCached);
    EXPECT_EQ(result->GetCurrentCacheSize(), 2097152 + 1 - 24);
    ASSERT_EQ(row.evictedColumns.size(), 3U);
    EXPECT_EQ(row.evictedColumns[1], nullptr);
}

// ---- Eviction while rows arrive ---------------------------------------------------------------------------

TEST(Eviction, SecondMebibyte_EvictsTheFirstBeforeItIsLinked) {
    Result result(Letters(2, MEBIBYTE));
    const LogCapture log;
    MoveNext(*result, 1);
    EXPECT_EQ(result->GetCurrentCacheSize(), 1048577);
    EXPECT_THAT(log.Lines(), IsEmpty());
    MoveNext(*result, 1);
    auto& cache = result.Cache();
    ASSERT_EQ(cache.rows.size(), 2U);
    EXPECT_FALSE(RowAt(cache, 0)->isCached);
    EXPECT_EQ(RowAt(cache, 0)->size, 0);
    EXPECT_TRUE(RowAt(cache, 1)->isCached);
    EXPECT_EQ(RowAt(cache, 1)->size, 1048576);
    EXPECT_EQ(result->GetCurrentCacheSize(), 1048577);
    EXPECT_EQ(result->GetNumbersOfRows(), 2);
    EXPECT_EQ(result->GetCurrentRowIndex(), 1);
    EXPECT_EQ(Letter(*result), 'b');
    EXPECT_THAT(log.Lines(), ElementsAre(EVICTED_BY_ADDING));
}

TEST(Eviction, RowAboveTheLimit_IsCachedWholeAndEvictsAllOthers) {
    Result result(SIZED, SizedSetup({10, 20, 3 * MEBIBYTE, 5}));
    const LogCapture log;
    MoveNext(*result, 3);
    EXPECT_THAT(CachedRows(result.Cache()), ElementsAre(false, false, true));
    EXPECT_EQ(result->GetCurrentCacheSize(), 1 + 3 * MEBIBYTE);
    EXPECT_EQ(result->GetColumnSize(0), 3 * MEBIBYTE);
    EXPECT_EQ(Text(*result).size(), static_cast<std::size_t>(3 * MEBIBYTE));
    EXPECT_TRUE(result->IsCachesFull());
    EXPECT_THAT(log.Lines(), ElementsAre(EVICTED_BY_ADDING));
    MoveNext(*result, 1);
    EXPECT_THAT(CachedRows(result.Cache()), ElementsAre(false, false, false, true));
    EXPECT_EQ(result->GetCurrentCacheSize(), 1 + 5);
    EXPECT_THAT(log.Lines(), ElementsAre(EVICTED_BY_ADDING, EVICTED_BY_ADDING));
}

TEST(Eviction, FirstRowAboveTheLimit_IsCachedWholeAndLogged) {
    Result result(SIZED, SizedSetup({3 * MEBIBYTE}));
    const LogCapture log;
    MoveNext(*result, 1);
    EXPECT_THAT(CachedRows(result.Cache()), ElementsAre(true));
    EXPECT_EQ(result->GetCurrentCacheSize(), 1 + 3 * MEBIBYTE);
    EXPECT_THAT(log.Lines(), ElementsAre(EVICTED_BY_ADDING));
}

TEST(Eviction, NegativeCount_IsNeverFull) {
    Result result(Letters(4, MEBIBYTE));
    MoveNext(*result, 1);
    result.Cache().cacheSize = -5 * MEBIBYTE;
    const LogCapture log;
    MoveNext(*result, 3);
    EXPECT_THAT(CachedRows(result.Cache()), ElementsAre(true, true, true, true));
    EXPECT_EQ(result->GetCurrentCacheSize(), -2 * MEBIBYTE);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(Eviction, CountAtItsGreatestValue_DoesNotWrapRound) {
    Result result(Numbers(2));
    MoveNext(*result, 1);
    result.Cache().cacheSize = INT_MAX - 3;
    MoveNext(*result, 1);
    EXPECT_GT(result->GetCurrentCacheSize(), 2097152);
    EXPECT_THAT(CachedRows(result.Cache()), ElementsAre(false, true));
}

TEST(Eviction, ManyTimesOver_KeepsTheNewestRowsAndEveryValueByPosition) {
    constexpr int ROWS = 20;
    Result result(Letters(ROWS, 524288));
    const LogCapture log;
    MoveNext(*result, ROWS);
    EXPECT_EQ(result->MoveNextStep(), -34);
    auto& cache = result.Cache();
    for (int index = 0; index < ROWS; ++index) {
        const CDbRow& row = *RowAt(cache, index);
        EXPECT_EQ(row.isCached, index >= ROWS - 3) << index;
        EXPECT_EQ(row.size, index >= ROWS - 3 ? 524288 : 0) << index;
        const auto& columns = row.isCached ? row.columns : row.evictedColumns;
        ASSERT_EQ(columns.size(), 1U) << index;
        EXPECT_EQ(columns[0]->value[0], 'a' + index);
        EXPECT_EQ(columns[0]->size, 524288);
    }
    EXPECT_EQ(result->GetCurrentCacheSize(), 1 + 3 * 524288);
    EXPECT_EQ(*cache.lastEvicted, RowAt(cache, ROWS - 4));
    EXPECT_THAT(log.Lines(), ElementsAreArray(std::vector<std::string>(17, EVICTED_BY_ADDING)));
}

TEST(Eviction, MoveBeyondTheCachedRows_LeavesTheStatementOnTheFirstRow) {
    Result result(Letters(4, MEBIBYTE));
    MoveNext(*result, 4);
    ASSERT_EQ(result->MovePreviousStep(), 100);
    // The statement was started over and stands on row 0: its row 1 comes next, as row 4.
    EXPECT_EQ(result->MoveNextStep(), 0);
    EXPECT_EQ(result->GetCurrentRowIndex(), 4);
    EXPECT_EQ(Letter(*result), 'b');
}

// Rows before the last evicted one are known to be evicted, and are not looked at again: one that is cached
// against that knowledge stays.
TEST(EvictionCost, StartsBehindTheLastEvictedRow) {
    OpenCursor cursor;
    for (int number = 0; number < 10; ++number) {
        AppendRow(cursor, MakeInteger(number));
    }
    auto& cache = *cursor.m_pCache;
    cache.lastEvicted = std::next(cache.rows.begin(), 4);
    cache.cacheSize = 2097152 + 9;
    EXPECT_TRUE(cursor.ForceGetCacheSize());
    EXPECT_THAT(CachedRows(cache), ElementsAre(true, true, true, true, true, false, false, true, true, true));
    EXPECT_EQ(*cache.lastEvicted, RowAt(cache, 6));
}

TEST(EvictionCost, RowsTakenOutByHand_StartsAtTheFirst) {
    OpenCursor cursor;
    for (int number = 0; number < 10; ++number) {
        AppendRow(cursor, MakeInteger(number));
    }
    auto& cache = *cursor.m_pCache;
    cache.cacheSize = 2097152 + 9;
    ASSERT_TRUE(cursor.ForceGetCacheSize());
    ASSERT_EQ(*cache.lastEvicted, RowAt(cache, 1));
    for (int i = 0; i < 3; ++i) {
        delete cache.rows.front();
        cache.rows.pop_front();
    }
    cache.cacheSize = 2097152 + 9;
    EXPECT_TRUE(cursor.ForceGetCacheSize());
    EXPECT_THAT(CachedRows(cache), ElementsAre(false, false, true, true, true, true, true));
}

TEST(EvictionCost, HundredThousandRows_LastEvictedFollowsRowByRow) {
    constexpr int ROWS = 100000;
    // 3 bytes of names and 48 of every row: this many rows fit.
    constexpr int FITTING = 43690;
    Result result(
        "WITH RECURSIVE c(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM c) "
        "SELECT i AS id, '0123456789012345678901234567890123456789' AS t FROM c LIMIT 100000");
    MoveNext(*result, FITTING);
    auto& cache = result.Cache();
    EXPECT_EQ(result->GetCurrentCacheSize(), 3 + FITTING * 48);
    EXPECT_TRUE(cache.lastEvicted == cache.rows.end());
    auto expected = cache.rows.begin();
    int wrong = 0;
    for (int index = FITTING; index < ROWS; ++index, ++expected) {
        wrong += result->MoveNextStep() != 0 || cache.lastEvicted != expected || (*expected)->isCached ||
                 !(*std::next(expected))->isCached || result->GetCurrentCacheSize() != 3 + FITTING * 48;
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(Integer(*result), ROWS - 1);
    const std::vector<bool> cached = CachedRows(cache);
    EXPECT_EQ(std::count(cached.begin(), cached.end(), true), FITTING);
}

// ---- UpdateRowCache ---------------------------------------------------------------------------------------

// Six rows of a letter and a number, all stepped over.
class SixRows : public Result {
public:
    SixRows()
        : Result(
              "WITH RECURSIVE c(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM c) "
              "SELECT char(97 + i) AS v, i AS n FROM c LIMIT 6") {
        MoveNext(**this, 6);
    }
};

// A result whose first three rows are evicted. Its statement stands where the test puts it:
// scripted answers let a refill complete without moving it.
class UpdateRowCacheReplay : public testing::Test {
protected:
    UpdateRowCacheReplay() {
        Evict(3);
        EXPECT_EQ(m_result->GetCurrentCacheSize(), 2 + 3 * 9);
    }
    // Evicts so many of the rows that are cached.
    void Evict(int rows) {
        auto& cache = m_result.Cache();
        const int before = cache.cacheSize;
        cache.cacheSize = 2097152 + 9 * (rows - 1) + 1;
        EXPECT_TRUE(m_result->ForceGetCacheSize());
        cache.cacheSize = before - 9 * rows;
    }
    // Puts the statement on a row, past the library.
    void Stand(int index) {
        sqlite3_reset(m_result->m_pStmt);
        for (int i = 0; i <= index; ++i) {
            ASSERT_EQ(sqlite3_step(m_result->m_pStmt), 100);
        }
    }
    // Lets the reset and that many steps be answered with 0.
    void LetPass(int steps) {
        m_faults.Answer("sqlite3_reset", 0);
        m_faults.Answer("sqlite3_step", 0, steps);
    }

    SixRows m_result;
    const LogCapture m_log;
    const Sleeps m_sleeps;
    SqliteFaults m_faults;
};

TEST(UpdateRowCache, NotReady_ChecksStatementCacheRowAndDatabaseInThatOrder) {
    RawDb db(":memory:");
    const LogCapture log;
    const SqliteFaults faults;

    OpenCursor nothing;
    EXPECT_EQ(nothing.UpdateRowCache(nullptr, 0), -14);
    OpenCursor cursor(nullptr, support::Prepare(db.Handle(), Numbers(1)));
    EXPECT_EQ(cursor.UpdateRowCache(nullptr, 0), -14);
    CDbRow* const row = AppendRow(cursor, MakeInteger(1));
    EXPECT_EQ(cursor.UpdateRowCache(nullptr, 0), -14);
    EXPECT_EQ(cursor.UpdateRowCache(row, 0), -14);
    EXPECT_THAT(log.Lines(), ElementsAre(NotConstructed("UpdateRowCache"), NotActivated("UpdateRowCache"),
                                         NotConstructed("UpdateRowCache"), NoDatabase("UpdateRowCache")));
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 0);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
}

TEST_F(UpdateRowCacheReplay, StatementWithRows_Returns100AfterOneStepAndLeavesTheRow) {
    for (const int index : {0, 2}) {
        CDbRow* const row = RowAt(m_result.Cache(), index);
        EXPECT_EQ(m_result->UpdateRowCache(row, index), 100);
        EXPECT_FALSE(row->isCached);
        EXPECT_THAT(row->columns, IsEmpty());
        EXPECT_EQ(row->size, 0);
        EXPECT_EQ(m_result->m_currentRowIndex, 5);
        EXPECT_EQ(Letter(*m_result), 'f');
        EXPECT_EQ(sqlite3_column_int(m_result->m_pStmt, 1), 0);
    }
    EXPECT_EQ(m_faults.Calls("sqlite3_reset"), 2);
    EXPECT_EQ(m_faults.Calls("sqlite3_step"), 2);
    EXPECT_THAT(m_log.Lines(), ElementsAre("I UpdateRowCache > another row available",
                                           "I UpdateRowCache > another row available"));
}

TEST(UpdateRowCache, StatementWithoutRows_Returns101) {
    Unstepped result("SELECT 1 WHERE 0");
    CDbRow* const row = AppendRow(*result, MakeInteger(1));
    const LogCapture log;
    EXPECT_EQ(result->UpdateRowCache(row, 0), 101);
    EXPECT_EQ(result->m_rowCount, 0);
    EXPECT_THAT(log.Lines(), ElementsAre("I UpdateRowCache > no more rows available"));
}

TEST_F(UpdateRowCacheReplay, StepsThatComplete_FillTheRow) {
    CDbRow* const row = RowAt(m_result.Cache(), 1);
    Stand(1);
    LetPass(2);
    EXPECT_EQ(m_result->UpdateRowCache(row, 1), 0);
    EXPECT_EQ(m_faults.Calls("sqlite3_reset"), 1);
    EXPECT_EQ(m_faults.Calls("sqlite3_step"), 2);
    EXPECT_TRUE(row->isCached);
    EXPECT_EQ(row->size, 9);
    ASSERT_EQ(row->columns.size(), 2U);
    EXPECT_EQ(m_result.Cache().currentRow, row);
    EXPECT_EQ(m_result->m_currentRowIndex, 1);
    EXPECT_EQ(Text(*m_result, 0), "b");
    EXPECT_EQ(Integer(*m_result, 1), 1);
    EXPECT_THAT(m_result.Cache().columnNames, ElementsAre("v", "n"));
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(UpdateRowCacheReplay, FilledRow_IsNotCountedYetSubtractedWhenEvicted) {
    auto& cache = m_result.Cache();
    Stand(0);
    LetPass(1);
    ASSERT_EQ(m_result->UpdateRowCache(RowAt(cache, 0), 0), 0);
    EXPECT_EQ(m_result->GetCurrentCacheSize(), 2 + 3 * 9);
    cache.cacheSize = 2097153;
    EXPECT_TRUE(m_result->ForceGetCacheSize());
    EXPECT_EQ(m_result->GetCurrentCacheSize(), 2097153 - 9);
    EXPECT_THAT(CachedRows(cache), ElementsAre(false, false, false, true, true, true));
}

TEST_F(UpdateRowCacheReplay, EvictedAndFilledAgainAndAgain_KeepsTheValuesByPosition) {
    auto& cache = m_result.Cache();
    CDbRow* const row = RowAt(cache, 0);
    for (int round = 0; round < 3; ++round) {
        Stand(0);
        LetPass(1);
        ASSERT_EQ(m_result->UpdateRowCache(row, 0), 0);
        EXPECT_EQ(Letter(*m_result), 'a');
        Evict(1);
        EXPECT_FALSE(row->isCached);
        EXPECT_THAT(row->columns, IsEmpty());
        ASSERT_EQ(row->evictedColumns.size(), 2U);
        EXPECT_EQ(Bytes(*row->evictedColumns[0], 2), std::string("a\0", 2));
    }
    EXPECT_THAT(CachedRows(cache), ElementsAre(false, false, false, true, true, true));
    EXPECT_EQ(m_result->GetCurrentCacheSize(), 2 + 3 * 9 - 3 * 9);
    Stand(0);
    LetPass(1);
    ASSERT_EQ(m_result->UpdateRowCache(row, 0), 0);
    Evict(4);
    EXPECT_EQ(m_result->GetCurrentCacheSize(), 2 - 4 * 9);
    EXPECT_FALSE(m_result->IsCachesFull());
}

TEST_F(UpdateRowCacheReplay, FullCache_EvictsOlderRowsAndNeverTheFilledOne) {
    auto& cache = m_result.Cache();
    Stand(2);
    LetPass(3);
    cache.cacheSize = 2097152 + 10;
    EXPECT_EQ(m_result->UpdateRowCache(RowAt(cache, 2), 2), 0);
    EXPECT_THAT(CachedRows(cache), ElementsAre(false, false, true, false, false, true));
    EXPECT_EQ(m_result->GetCurrentCacheSize(), 2097152 - 8);
    EXPECT_EQ(Letter(*m_result), 'c');
    EXPECT_THAT(m_log.Lines(), ElementsAre(EVICTED_BY_REFILLING));
}

TEST_F(UpdateRowCacheReplay, FilledRow_IsTheOldestOfTheNextEviction) {
    auto& cache = m_result.Cache();
    Stand(1);
    LetPass(2);
    ASSERT_EQ(m_result->UpdateRowCache(RowAt(cache, 1), 1), 0);
    ASSERT_THAT(CachedRows(cache), ElementsAre(false, true, false, true, true, true));
    Evict(2);
    EXPECT_THAT(CachedRows(cache), ElementsAre(false, false, false, false, true, true));
}

TEST_F(UpdateRowCacheReplay, MovesThatComplete_StandOnTheFilledRow) {
    ASSERT_EQ(m_result->MovePreviousStep(), 0);
    ASSERT_EQ(m_result->MovePreviousStep(), 0);
    Stand(2);
    LetPass(3);
    EXPECT_EQ(m_result->MovePreviousStep(), 0);
    EXPECT_EQ(m_result->GetCurrentRowIndex(), 2);
    EXPECT_EQ(Letter(*m_result), 'c');

    Stand(0);
    LetPass(1);
    EXPECT_EQ(m_result->MoveFirstStep(), 0);
    EXPECT_EQ(m_result->GetCurrentRowIndex(), 0);
    EXPECT_EQ(Letter(*m_result), 'a');

    Stand(1);
    LetPass(2);
    EXPECT_EQ(m_result->MoveNextStep(), 0);
    EXPECT_EQ(m_result->GetCurrentRowIndex(), 1);
    EXPECT_EQ(Letter(*m_result), 'b');
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(UpdateRowCacheReplay, NegativeIndex_FillsWithoutAStep) {
    CDbRow* const row = RowAt(m_result.Cache(), 0);
    for (const int index : {-1, INT_MIN}) {
        Stand(3);
        m_faults.Answer("sqlite3_reset", 0);
        EXPECT_EQ(m_result->UpdateRowCache(row, index), 0);
        EXPECT_EQ(m_faults.Calls("sqlite3_step"), 0);
        EXPECT_EQ(m_result->m_currentRowIndex, index);
        EXPECT_EQ(Letter(*m_result), 'd');
    }
}

TEST_F(UpdateRowCacheReplay, ResetBusyToTheEnd_ReturnsItsCodeAfter30Calls) {
    for (const int code : {5, 6}) {
        const LogCapture log;
        const Sleeps sleeps;
        SqliteFaults faults;
        faults.Answer("sqlite3_reset", code, 100);
        EXPECT_EQ(m_result->UpdateRowCache(RowAt(m_result.Cache(), 0), 0), code);
        EXPECT_EQ(faults.Calls("sqlite3_reset"), 30);
        EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
        EXPECT_EQ(sleeps.Count(), 30);
        EXPECT_TRUE(sleeps.AllOf(30000));
        EXPECT_EQ(m_result->m_currentRowIndex, 5);
        EXPECT_THAT(log.Lines(), ElementsAreArray(Retries("UpdateRowCache", "sqlite3_reset", 30,
                                                          {"I UpdateRowCache > another row available"})));
    }
}

TEST_F(UpdateRowCacheReplay, ResetSucceedsAfterRetries_IsLoggedAndGoesOn) {
    for (const int busy : {1, 29}) {
        Stand(0);
        const LogCapture log;
        const Sleeps sleeps;
        SqliteFaults faults;
        faults.Answer("sqlite3_reset", 5, busy);
        faults.Answer("sqlite3_reset", 0);
        faults.Answer("sqlite3_step", 0);
        EXPECT_EQ(m_result->UpdateRowCache(RowAt(m_result.Cache(), 0), 0), 0);
        EXPECT_EQ(faults.Calls("sqlite3_reset"), busy + 1);
        EXPECT_EQ(sleeps.Count(), busy);
        EXPECT_EQ(Letter(*m_result), 'a');
        EXPECT_THAT(log.Lines(),
                    ElementsAreArray(Retries("UpdateRowCache", "sqlite3_reset", busy,
                                             {"I UpdateRowCache > Executing single query succeeded after: " +
                                              std::to_string(busy) + " attempts;"})));
    }
}

TEST_F(UpdateRowCacheReplay, ResetFails_IsLoggedAndReturned) {
    for (const int code : {1, 10, 100, 101}) {
        const LogCapture log;
        const Sleeps sleeps;
        SqliteFaults faults;
        faults.Answer("sqlite3_reset", 6, 2);
        faults.Answer("sqlite3_reset", code);
        EXPECT_EQ(m_result->UpdateRowCache(RowAt(m_result.Cache(), 0), 0), code);
        EXPECT_EQ(faults.Calls("sqlite3_reset"), 3);
        EXPECT_EQ(faults.Calls("sqlite3_step"), 0);
        EXPECT_THAT(log.Lines(), ElementsAreArray(Retries("UpdateRowCache", "sqlite3_reset", 2,
                                                          {"I UpdateRowCache > another row available"})));
    }
}

TEST_F(UpdateRowCacheReplay, StepBusyToTheEnd_ReturnsItsCodeAfter30Calls) {
    for (const int code : {5, 6}) {
        Stand(0);
        const LogCapture log;
        const Sleeps sleeps;
        SqliteFaults faults;
        faults.Answer("sqlite3_reset", 0);
        faults.Answer("sqlite3_step", 0);
        faults.Answer("sqlite3_step", code, 100);
        EXPECT_EQ(m_result->UpdateRowCache(RowAt(m_result.Cache(), 1), 1), code);
        EXPECT_EQ(faults.Calls("sqlite3_step"), 31);
        EXPECT_EQ(sleeps.Count(), 30);
        EXPECT_TRUE(sleeps.AllOf(30000));
        EXPECT_FALSE(RowAt(m_result.Cache(), 1)->isCached);
        EXPECT_THAT(log.Lines(), ElementsAreArray(Retries("UpdateRowCache", "sqlite3_step", 30,
                                                          {"I UpdateRowCache > another row available"})));
    }
}

TEST_F(UpdateRowCacheReplay, EveryStepsRetries_AreCountedAnew) {
    Stand(2);
    m_faults.Answer("sqlite3_reset", 0);
    m_faults.Answer("sqlite3_step", 5, 29);
    m_faults.Answer("sqlite3_step", 0, 2);
    m_faults.Answer("sqlite3_step", 6, 2);
    m_faults.Answer("sqlite3_step", 0);
    EXPECT_EQ(m_result->UpdateRowCache(RowAt(m_result.Cache(), 2), 2), 0);
    EXPECT_EQ(m_faults.Calls("sqlite3_step"), 34);
    EXPECT_EQ(m_sleeps.Count(), 31);
    EXPECT_EQ(Letter(*m_result), 'c');
    auto lines = Retries("UpdateRowCache", "sqlite3_step", 29,
                         {"I UpdateRowCache > Executing single query succeeded after: 29 attempts;"});
    const auto second = Retries("UpdateRowCache", "sqlite3_step", 2,
                                {"I UpdateRowCache > Executing single query succeeded after: 2 attempts;"});
    lines.insert(lines.end(), second.begin(), second.end());
    EXPECT_THAT(m_log.Lines(), ElementsAreArray(lines));
}

TEST_F(UpdateRowCacheReplay, StepFails_IsLoggedAndReturnedAtOnce) {
    for (const int code : {1, 10, 101}) {
        const LogCapture log;
        SqliteFaults faults;
        faults.Answer("sqlite3_reset", 0);
        faults.Answer("sqlite3_step", 0);
        faults.Answer("sqlite3_step", code);
        EXPECT_EQ(m_result->UpdateRowCache(RowAt(m_result.Cache(), 2), 2), code);
        EXPECT_EQ(faults.Calls("sqlite3_step"), 2);
        EXPECT_FALSE(RowAt(m_result.Cache(), 2)->isCached);
        EXPECT_EQ(m_result->m_currentRowIndex, 5);
        EXPECT_THAT(log.Lines(), ElementsAre("I UpdateRowCache > another row available"));
    }
}

TEST_F(UpdateRowCacheReplay, RowAfterRetriedSteps_HasNoSuccessLine) {
    m_faults.Answer("sqlite3_step", 5, 3);
    EXPECT_EQ(m_result->UpdateRowCache(RowAt(m_result.Cache(), 0), 0), 100);
    EXPECT_EQ(m_faults.Calls("sqlite3_step"), 4);
    EXPECT_THAT(m_log.Lines(), ElementsAreArray(Retries("UpdateRowCache", "sqlite3_step", 3,
                                                        {"I UpdateRowCache > another row available"})));
}

// A statement that met a lock answers so once more when it is reset, and not again.
TEST(UpdateRowCache, StatementThatMetALock_IsResetAtTheSecondCall) {
    const TempDir dir;
    RawDb writer(dir.File("a.db"));
    writer.Exec("CREATE TABLE t(n); INSERT INTO t VALUES(1), (2), (3)");
    RawDb reader(dir.File("a.db"));
    OpenCursor cursor(
        reader.Handle(),
        support::Prepare(reader.Handle(), "SELECT hex(zeroblob(524288)) AS v FROM t ORDER BY rowid"));
    MoveNext(cursor, 3);
    ASSERT_EQ(cursor.MoveNextStep(), -34);
    ASSERT_FALSE(cursor.m_pCache->rows.front()->isCached);
    writer.Exec("BEGIN EXCLUSIVE");
    {
        const Sleeps sleeps;
        ASSERT_EQ(cursor.MoveNextStep(), 5);
        ASSERT_EQ(sleeps.Count(), 30);
    }
    const Sleeps sleeps([&writer](int number) {
        if (number == 3) {
            writer.Exec("COMMIT");
        }
    });
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(cursor.MoveFirstStep(), 100);
    EXPECT_EQ(faults.Calls("sqlite3_reset"), 2);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 3);
    EXPECT_EQ(sleeps.Count(), 3);
    EXPECT_TRUE(sleeps.AllOf(30000));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("I UpdateRowCache > [sqlite3_reset] SQLITE3 busy or locked - Retrying : 1 attempts;",
                    "I UpdateRowCache > Executing single query succeeded after: 1 attempts;",
                    "I UpdateRowCache > [sqlite3_step] SQLITE3 busy or locked - Retrying : 1 attempts;",
                    "I UpdateRowCache > [sqlite3_step] SQLITE3 busy or locked - Retrying : 2 attempts;",
                    "I UpdateRowCache > another row available"));
}

TEST(UpdateRowCache, LockThatStays_Returns5After30StepsAnd30Waits) {
    const TempDir dir;
    RawDb writer(dir.File("a.db"));
    writer.Exec("CREATE TABLE t(n); INSERT INTO t VALUES(1), (2), (3)");
    RawDb reader(dir.File("a.db"));
    OpenCursor cursor(
        reader.Handle(),
        support::Prepare(reader.Handle(), "SELECT hex(zeroblob(524288)) AS v FROM t ORDER BY rowid"));
    MoveNext(cursor, 3);
    ASSERT_EQ(cursor.MoveNextStep(), -34);
    writer.Exec("BEGIN EXCLUSIVE");
    const Sleeps sleeps;
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(cursor.MoveFirstStep(), 5);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 30);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_THAT(log.Lines(), ElementsAreArray(Retries("UpdateRowCache", "sqlite3_step", 30,
                                                      {"I UpdateRowCache > database is locked"})));
    writer.Exec("COMMIT");
}

// ---- CreateCacheTillEnd -----------------------------------------------------------------------------------

TEST(CreateCacheTillEnd, CachesEveryRemainingRow) {
    Result result(Numbers(5));
    MoveNext(*result, 2);
    const LogCapture log;
    const SqliteFaults faults;
    EXPECT_EQ(result->CreateCacheTillEnd(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 4);
    EXPECT_EQ(result->GetNumbersOfRows(), 5);
    EXPECT_EQ(result->GetCurrentRowIndex(), 4);
    EXPECT_EQ(result->m_rowCount, 5);
    EXPECT_EQ(Integer(*result), 4);
    EXPECT_THAT(result.Cache().columnNames, ElementsAre("id"));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(CreateCacheTillEnd, RecordsNoNames) {
    Unstepped result(Numbers(5));
    EXPECT_EQ(result->CreateCacheTillEnd(), 0);
    EXPECT_EQ(result->GetNumbersOfRows(), 5);
    EXPECT_THAT(result.Cache().columnNames, IsEmpty());
    EXPECT_EQ(result->GetCurrentCacheSize(), 40);
}

TEST(CreateCacheTillEnd, NoRows_Returns0AfterOneStep) {
    Unstepped result("SELECT 1 WHERE 0");
    const SqliteFaults faults;
    EXPECT_EQ(result->CreateCacheTillEnd(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 1);
    EXPECT_EQ(result->GetNumbersOfRows(), 0);
}

TEST(CreateCacheTillEnd, Failures_AreFollowedByTheNextTry) {
    Result result(Numbers(4));
    MoveNext(*result, 1);
    const LogCapture log;
    const Sleeps sleeps;
    SqliteFaults faults;
    faults.Answer("sqlite3_step", 10, 2);
    faults.Answer("sqlite3_step", 0);
    faults.Answer("sqlite3_step", 5, 31);
    EXPECT_EQ(result->CreateCacheTillEnd(), 0);
    EXPECT_EQ(faults.Calls("sqlite3_step"), 2 + 1 + 31 + 4);
    EXPECT_EQ(sleeps.Count(), 30);
    EXPECT_EQ(result->GetNumbersOfRows(), 4);
    EXPECT_EQ(Integer(*result), 3);
    const std::string error = "I AddRowCache > [sqlite3_step] SQLite3 Error : another row available";
    std::vector<std::string> lines = {error, error, error};
    const auto busy = Retries("AddRowCache", "sqlite3_step", 30, {error});
    lines.insert(lines.end(), busy.begin(), busy.end());
    EXPECT_THAT(log.Lines(), ElementsAreArray(lines));
}

}  // namespace

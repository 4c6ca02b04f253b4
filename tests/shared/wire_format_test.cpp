#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <thread>

#include "Allocations.h"
#include "LogCapture.h"
#include "SharedResults.h"

namespace {

using support::Allocations;
using support::Blob;
using support::CachedNames;
using support::CachedRows;
using support::Cell;
using support::FieldOf;
using support::Float;
using support::Int;
using support::Integer;
using support::LogCapture;
using support::Long;
using support::MakeCursor;
using support::Name;
using support::Null;
using support::OpenCursor;
using support::OpenSharedObject;
using support::Text;
using support::Value;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

const std::string ZERO(1, '\0');
const std::string INDEX_LINE =
    "I DeserializeCursorData > Memory size check error : currentOffset + indexSize <= bufferSize : ";
const std::string DATA_LINE =
    "I DeserializeCursorData > Memory size check error : currentOffset + currentDataSize <= bufferSize : ";
const std::string NO_MEMORY_LINE = "The memory is insufficient";

std::string Bytes(std::initializer_list<int> bytes) {
    std::string text;
    for (const int byte : bytes) {
        text += static_cast<char>(byte);
    }
    return text;
}

std::string Serialized(const std::shared_ptr<ISQLiteCursor>& cursor) {
    OpenSharedObject object;
    EXPECT_EQ(0, object.SerializeCursorData(cursor));
    EXPECT_EQ(object.m_dataSize, static_cast<int>(object.m_buffer.size()));
    return std::string(object.m_buffer.begin(), object.m_buffer.end());
}

// Reads from a buffer that ends where the block ends.
std::shared_ptr<ISQLiteCursor> Read(const std::string& block) {
    const std::unique_ptr<char[]> exact(new char[block.size()]);
    std::copy(block.begin(), block.end(), exact.get());
    return CSharedQueryObject::DeserializeCursorData(exact.get(), static_cast<int>(block.size()));
}

// Goes through all rows, and asks for everything in them.
int Visit(ISQLiteCursor& cursor) {
    const int columns = std::clamp(cursor.GetColumnCount(), 0, 20);
    int rows = 0;
    while (cursor.MoveNextStep() == 0) {
        for (int column = -1; column <= columns; ++column) {
            int number = 0;
            long long longNumber = 0;
            double realNumber = 0;
            std::string text;
            std::vector<char> blob(static_cast<std::size_t>(std::max(cursor.GetColumnSize(column), 1)));
            cursor.GetIntegerData(column, number);
            cursor.GetInteger64Data(column, longNumber);
            cursor.GetDoubleData(column, realNumber);
            cursor.GetStringData(column, text);
            cursor.GetBlobData(column, blob.data(), static_cast<int>(blob.size()));
            cursor.GetColumnType(column);
            cursor.GetColumnIndex(cursor.GetColumnName(column));
        }
        ++rows;
    }
    while (cursor.MovePreviousStep() == 0 && cursor.GetCurrentRowIndex() > 0) {
    }
    cursor.MoveFirstStep();
    return rows;
}

// A block with the places of its fields.
class Block {
public:
    struct Field {
        std::size_t begin;
        std::size_t end;
        bool isNumber;
    };

    Block& Number(std::int32_t value) {
        Put(Int(value), true);
        return *this;
    }
    Block& Data(const std::string& data) {
        Put(data, false);
        return *this;
    }
    Block& ColumnName(const std::string& name) {
        return Number(static_cast<std::int32_t>(name.size()) + 1).Data(name + ZERO);
    }
    Block& Value(int type, const std::string& data) {
        return Number(type).Number(static_cast<std::int32_t>(data.size())).Data(data);
    }
    Block& EndOfRow() {
        rowEnds.push_back(bytes.size());
        return *this;
    }

    std::string bytes;
    std::vector<Field> fields;
    std::vector<std::size_t> rowEnds;

private:
    void Put(const std::string& data, bool isNumber) {
        fields.push_back({bytes.size(), bytes.size() + data.size(), isNumber});
        bytes += data;
    }
};

// Every cell type, three rows.
Block AllTypes() {
    Block block;
    block.Number(5).Number(3);
    block.ColumnName("i").ColumnName("real").ColumnName("t").ColumnName("").ColumnName("nothing");
    for (int row = 0; row < 3; ++row) {
        block.Value(1, Long(row - 1)).Value(2, Long(0x3ff8000000000000 + row));
        block.Value(3, std::string(static_cast<std::size_t>(row), 'x') + "y" + ZERO);
        block.Value(4, std::string("\0\xff\0", 3) + ZERO).Value(5, "").EndOfRow();
    }
    return block;
}

// ---- Writing ------------------------------------------------------------------------------------------

TEST(SerializeCursorData, NullCursor_Minus22AndTheBufferIsEmptied) {
    OpenSharedObject object;
    object.m_buffer.assign(5, 'x');
    const LogCapture log;
    EXPECT_EQ(-22, object.SerializeCursorData(nullptr));
    EXPECT_THAT(log.Lines(), ElementsAre("I SerializeCursorData > Cursor is NULL "));
    EXPECT_THAT(object.m_buffer, IsEmpty());
}

TEST(SerializeCursorData, TwoColumnsOneRow_51BytesAsTheFormatSays) {
    const auto cursor = support::Stepped("SELECT 7 AS id, 'ab' AS name");
    const LogCapture log;
    OpenSharedObject object;
    ASSERT_EQ(0, object.SerializeCursorData(cursor));
    EXPECT_THAT(log.Lines(), IsEmpty());
    const std::string expected = Bytes({2, 0, 0, 0, 1,   0,   0,   0,                                //
                                        3, 0, 0, 0, 'i', 'd', 0,                                     //
                                        5, 0, 0, 0, 'n', 'a', 'm', 'e', 0,                           //
                                        1, 0, 0, 0, 8,   0,   0,   0,   7,   0,   0, 0, 0, 0, 0, 0,  //
                                        3, 0, 0, 0, 3,   0,   0,   0,   'a', 'b', 0});
    EXPECT_EQ(51, object.m_dataSize);
    EXPECT_EQ(expected, std::string(object.m_buffer.begin(), object.m_buffer.end()));
}

TEST(SerializeCursorData, EveryCellType_HasItsBytes) {
    const struct {
        const char* value;
        std::string cell;
    } rows[] = {
        {"7", Bytes({1, 0, 0, 0, 8, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0})},
        {"-2", Bytes({1, 0, 0, 0, 8, 0, 0, 0, 0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff})},
        {"4294967297", Bytes({1, 0, 0, 0, 8, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0})},
        {"-9223372036854775808", Bytes({1, 0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80})},
        {"9223372036854775807", Bytes({1, 0, 0, 0, 8, 0, 0, 0, 255, 255, 255, 255, 255, 255, 255, 0x7f})},
        {"1.5", Bytes({2, 0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xf8, 0x3f})},
        {"-0.1", Bytes({2, 0, 0, 0, 8, 0, 0, 0, 0x9a, 0x99, 0x99, 0x99, 0x99, 0x99, 0xb9, 0xbf})},
        {"'ab'", Bytes({3, 0, 0, 0, 3, 0, 0, 0, 'a', 'b', 0})},
        {"''", Bytes({3, 0, 0, 0, 1, 0, 0, 0, 0})},
        {"'\xc3\xa9'", Bytes({3, 0, 0, 0, 3, 0, 0, 0, 0xc3, 0xa9, 0})},
        {"CAST(x'610062' AS TEXT)", Bytes({3, 0, 0, 0, 4, 0, 0, 0, 'a', 0, 'b', 0})},
        {"x'00ff'", Bytes({4, 0, 0, 0, 3, 0, 0, 0, 0, 0xff, 0})},
        {"x''", Bytes({4, 0, 0, 0, 1, 0, 0, 0, 0})},
        {"NULL", Bytes({5, 0, 0, 0, 0, 0, 0, 0})},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        const auto cursor = support::Stepped(std::string("SELECT ") + row.value + " AS v");
        EXPECT_EQ(Bytes({1, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 'v', 0}) + row.cell, Serialized(cursor));
    }
}

TEST(SerializeCursorData, ResultWithoutRows_IsTwoCountsAlone) {
    const auto cursor = support::Stepped("SELECT 1 AS a, 2 AS b WHERE 0");
    EXPECT_EQ(Bytes({2, 0, 0, 0, 0, 0, 0, 0}), Serialized(cursor));
}

TEST(SerializeCursorData, NotSteppedToTheEnd_HeaderSaysNoRowsAndTheRowsAreWritten) {
    const auto cursor = support::Stepped("SELECT 7 AS v UNION ALL SELECT 8", false);
    EXPECT_EQ(
        Bytes({1, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 'v', 0, 1, 0, 0, 0, 8, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0}),
        Serialized(cursor));
}

TEST(SerializeCursorData, CountsAndNames_AreTheCursorsFieldsAndTheNameList) {
    EXPECT_EQ(Int(2) + Int(77) + Name("only"), Serialized(MakeCursor(2, 77, {"only"}, {})));
    EXPECT_EQ(Int(1) + Int(0) + Name("a") + Name("b") + Cell(1, Long(5)),
              Serialized(MakeCursor(1, 0, {"a", "b"}, {{Integer(5), Integer(6)}})));
    EXPECT_EQ(Int(0) + Int(0), Serialized(MakeCursor(0, 0, {}, {{Integer(5)}})));
}

TEST(SerializeCursorData, EvictedRow_IsWrittenFromTheValuesItHeld) {
    const std::string first(1048576, 'a');
    const std::string second(1048576, 'b');
    const auto cursor = support::Stepped(
        "SELECT replace(hex(zeroblob(524288)), '0', 'a') AS v UNION ALL "
        "SELECT replace(hex(zeroblob(524288)), '0', 'b')");
    ASSERT_FALSE(cursor->GetCusorCache()->rows.front()->isCached);
    ASSERT_THAT(cursor->GetCusorCache()->rows.front()->columns, IsEmpty());
    const std::string block = Serialized(cursor);
    EXPECT_TRUE(block == Int(1) + Int(2) + Name("v") + Cell(3, first + ZERO) + Cell(3, second + ZERO));
    const auto copy = Read(block);
    ASSERT_EQ(2, copy->GetNumbersOfRows());
    std::string text;
    ASSERT_EQ(0, copy->MoveNextStep());
    ASSERT_EQ(0, copy->GetStringData(0, text));
    EXPECT_TRUE(first == text);
    ASSERT_EQ(0, copy->MoveNextStep());
    ASSERT_EQ(0, copy->GetStringData(0, text));
    EXPECT_TRUE(second == text);
}

TEST(SerializeCursorData, EvictedRowsOfEveryType_AreWrittenLikeCachedOnes) {
    const std::vector<Value> values = {Integer(7), Float(1.5), Text("ab"), Blob(std::string("\0\1", 2)),
                                       Null()};
    const auto cursor = MakeCursor(5, 2, {"a", "b", "c", "d", "e"}, {values, values});
    const std::string before = Serialized(cursor);
    auto& cache = *cursor->GetCusorCache();
    cache.cacheSize = CSQLiteCursor::MAX_DB_CACHE_SIZE + 1;
    ASSERT_TRUE(cursor->ForceGetCacheSize());
    ASSERT_FALSE(cache.rows.front()->isCached);
    ASSERT_TRUE(cache.rows.back()->isCached);
    EXPECT_EQ(before, Serialized(cursor));
    const std::string row = Cell(1, Long(7)) + Cell(2, Long(0x3ff8000000000000)) + Cell(3, "ab" + ZERO) +
                            Cell(4, std::string("\0\1\0", 3)) + Cell(5, "");
    EXPECT_EQ(Int(5) + Int(2) + Name("a") + Name("b") + Name("c") + Name("d") + Name("e") + row + row,
              before);
}

TEST(SerializeCursorData, RowMarkedAsNotCached_IsWrittenAllTheSame) {
    const auto cursor = MakeCursor(1, 1, {"v"}, {{Integer(7)}});
    cursor->GetCusorCache()->rows.front()->isCached = false;
    EXPECT_EQ(Int(1) + Int(1) + Name("v") + Cell(1, Long(7)), Serialized(cursor));
}

TEST(SerializeCursorData, ValueWithoutMemory_IsWrittenAsNull) {
    const auto cursor = MakeCursor(2, 1, {"a", "b"}, {{Integer(7), Integer(8)}});
    CDbColumn& lost = *cursor->GetCusorCache()->rows.front()->columns.front();
    delete[] lost.value;
    lost.value = nullptr;
    lost.size = 0;
    EXPECT_EQ(Int(2) + Int(1) + Name("a") + Name("b") + Cell(5, "") + Cell(1, Long(8)), Serialized(cursor));
}

TEST(SerializeCursorData, RowWithFewerColumns_NeverReadsPastIt) {
    const auto cursor = MakeCursor(2, 1, {"a", "b"}, {{Integer(7)}});
    EXPECT_THAT(Serialized(cursor), StartsWith(Int(2) + Int(1) + Name("a") + Name("b") + Cell(1, Long(7))));
}

TEST(SerializeCursorData, Twice_HoldsOnlyTheSecond) {
    OpenSharedObject object;
    ASSERT_EQ(0, object.SerializeCursorData(support::Stepped("SELECT 'a long text to begin with' AS v")));
    ASSERT_EQ(0, object.SerializeCursorData(support::Stepped("SELECT NULL AS v")));
    EXPECT_EQ(22, object.m_dataSize);
    EXPECT_EQ(Int(1) + Int(1) + Name("v") + Cell(5, ""),
              std::string(object.m_buffer.begin(), object.m_buffer.end()));
}

TEST(SerializeCursorData, Cursor_IsReadAndNotMoved) {
    const auto cursor = support::Stepped("SELECT 7 AS v UNION ALL SELECT 8");
    ASSERT_EQ(1, cursor->GetCurrentRowIndex());
    OpenSharedObject object;
    ASSERT_EQ(0, object.SerializeCursorData(cursor));
    EXPECT_EQ(1, cursor->GetCurrentRowIndex());
    EXPECT_EQ(2, cursor->GetNumbersOfRows());
    EXPECT_EQ(1, cursor.use_count());
    int number = 0;
    EXPECT_EQ(0, cursor->GetIntegerData(0, number));
    EXPECT_EQ(8, number);
}

TEST(SerializeCursorData, NeverSteppedCursor_ACodeAndALineAndNoCrash) {
    OpenSharedObject object;
    object.m_buffer.assign(5, 'x');
    const LogCapture log;
    EXPECT_EQ(-14, object.SerializeCursorData(std::make_shared<CSQLiteCursor>()));
    EXPECT_THAT(log.Lines(), ElementsAre(StartsWith("I SerializeCursorData > ")));
    EXPECT_THAT(object.m_buffer, IsEmpty());
}

TEST(SerializeCursorData, BlockBeyondTheMemory_Minus12) {
    const auto cursor = MakeCursor(1, 1, {"v"}, {{Integer(7)}});
    OpenSharedObject object;
    const LogCapture log;
    int result = 0;
    {
        const Allocations failing(1, Allocations::Of::Library);
        result = object.SerializeCursorData(cursor);
    }
    EXPECT_EQ(-12, result);
    EXPECT_THAT(log.Lines(), ElementsAre("I SerializeCursorData > " + NO_MEMORY_LINE));
}

TEST(SerializeCursorData, ValuesOfMoreThan2GiB_Minus12) {
    const auto cursor = MakeCursor(2, 1, {"a", "b"}, {{Text("x"), Text("y")}});
    for (CDbColumn* const column : cursor->m_pCache->rows.front()->columns) {
        column->size = INT_MAX;
    }
    OpenSharedObject object;
    object.m_buffer.assign(5, 'x');
    const LogCapture log;
    EXPECT_EQ(-12, object.SerializeCursorData(cursor));
    EXPECT_THAT(log.Lines(), ElementsAre("I SerializeCursorData > " + NO_MEMORY_LINE));
    EXPECT_THAT(object.m_buffer, IsEmpty());
}

TEST(SerializeCursorData, ColumnThatIsMissing_IsNull) {
    const auto cursor = MakeCursor(3, 1, {"a", "b", "c"}, {{Text("x"), Text("y"), Text("z")}});
    CDbColumn*& missing = cursor->m_pCache->rows.front()->columns[1];
    delete missing;
    missing = nullptr;
    const std::string names = Name("a") + Name("b") + Name("c");
    EXPECT_EQ(Serialized(cursor),
              Int(3) + Int(1) + names + Cell(3, {'x', 0}) + Cell(5, "") + Cell(3, {'z', 0}));
}

TEST(SerializeCursorData, RowOfFewerColumnsThanTheResult_IsFilledUpWithNulls) {
    constexpr int COLUMNS = 1000;
    const auto cursor = MakeCursor(COLUMNS, 2, {}, {{Text("x")}, {}});
    std::string expected = Int(COLUMNS) + Int(2) + Cell(3, {'x', 0});
    for (int i = 1; i < 2 * COLUMNS; ++i) {
        expected += Cell(5, "");
    }
    EXPECT_EQ(Serialized(cursor), expected);
}

TEST(SerializeCursorData, RowOfMoreColumnsThanTheResult_IsCutOff) {
    EXPECT_EQ(Serialized(MakeCursor(1, 1, {"a"}, {{Text("x"), Text("y")}})),
              Int(1) + Int(1) + Name("a") + Cell(3, {'x', 0}));
    EXPECT_EQ(Serialized(MakeCursor(0, 1, {}, {{Text("x")}})), Int(0) + Int(1));
    EXPECT_EQ(Serialized(MakeCursor(-1, 1, {}, {{Text("x")}})), Int(-1) + Int(1));
}

// ---- Reading whole blocks -----------------------------------------------------------------------------

TEST(DeserializeCursorData, NullBufferOrLessThan4Bytes_NullWithItsLine) {
    char bytes[8] = {};
    const struct {
        char* data;
        int size;
    } rows[] = {{nullptr, 100}, {nullptr, 0}, {bytes, 3},      {bytes, 1},
                {bytes, 0},     {bytes, -1},  {bytes, INT_MIN}};
    for (const auto& row : rows) {
        const LogCapture log;
        EXPECT_EQ(nullptr, CSharedQueryObject::DeserializeCursorData(row.data, row.size));
        EXPECT_THAT(log.Lines(),
                    ElementsAre("I DeserializeCursorData > Wrong parameters : buffer is NULL or Size "
                                "is wrong"));
    }
}

TEST(DeserializeCursorData, LessThan8Bytes_RefusedWithTheIndexSizeLine) {
    for (int size = 4; size < 8; ++size) {
        const LogCapture log;
        const auto cursor = Read((Int(3) + Int(1)).substr(0, static_cast<std::size_t>(size)));
        EXPECT_THAT(log.Lines(), ElementsAre(INDEX_LINE + "8 <= " + std::to_string(size)));
        ASSERT_NE(nullptr, cursor);
        EXPECT_EQ(3, cursor->GetColumnCount());
        EXPECT_EQ(0, cursor->GetNumbersOfRows());
        EXPECT_TRUE(cursor->IsEmpty());
        EXPECT_THAT(CachedNames(*cursor), IsEmpty());
    }
}

TEST(DeserializeCursorData, ColumnCountBelow1_NoResultLineAndAnEmptyCursor) {
    for (const int count : {0, -1, INT_MIN}) {
        const LogCapture log;
        const auto cursor = Read(Int(count) + Int(1) + Name("v") + Cell(1, Long(7)));
        EXPECT_THAT(log.Lines(), ElementsAre("I DeserializeCursorData > No result , exit"));
        ASSERT_NE(nullptr, cursor);
        EXPECT_EQ(count, cursor->GetColumnCount());
        EXPECT_THAT(CachedNames(*cursor), IsEmpty());
        EXPECT_EQ(0, cursor->GetNumbersOfRows());
        EXPECT_EQ(0, Visit(*cursor));
    }
}

TEST(DeserializeCursorData, ExampleBlock_AnswersLikeTheSource) {
    const std::string block = Bytes({2, 0, 0, 0, 1,   0,   0,   0,                                //
                                     3, 0, 0, 0, 'i', 'd', 0,                                     //
                                     5, 0, 0, 0, 'n', 'a', 'm', 'e', 0,                           //
                                     1, 0, 0, 0, 8,   0,   0,   0,   7,   0,   0, 0, 0, 0, 0, 0,  //
                                     3, 0, 0, 0, 3,   0,   0,   0,   'a', 'b', 0});
    const LogCapture log;
    const auto cursor = Read(block);
    ASSERT_NE(nullptr, cursor);
    EXPECT_EQ(2, cursor->GetColumnCount());
    EXPECT_EQ(1, cursor->GetNumbersOfRows());
    EXPECT_FALSE(cursor->IsEmpty());
    EXPECT_EQ("id", cursor->GetColumnName(0));
    EXPECT_EQ("name", cursor->GetColumnName(1));
    EXPECT_EQ(1, cursor->GetColumnIndex("name"));
    EXPECT_EQ(0, cursor->MoveNextStep());
    long long number = 0;
    std::string text;
    EXPECT_EQ(0, cursor->GetInteger64Data(0, number));
    EXPECT_EQ(7, number);
    EXPECT_EQ(0, cursor->GetStringData(1, text));
    EXPECT_EQ("ab", text);
    EXPECT_EQ(2, cursor->GetColumnSize(1));
    EXPECT_EQ(-22, cursor->MoveNextStep());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(DeserializeCursorData, RebuiltCursor_HasNoStatementAndStandsBeforeItsFirstRow) {
    const auto cursor = Read(AllTypes().bytes);
    ASSERT_NE(nullptr, cursor);
    EXPECT_EQ(-1, cursor->GetCurrentRowIndex());
    EXPECT_EQ(nullptr, FieldOf(*cursor, &OpenCursor::m_pStmt));
    EXPECT_EQ(nullptr, FieldOf(*cursor, &OpenCursor::m_pDB));
    EXPECT_FALSE(FieldOf(*cursor, &OpenCursor::m_bStatementOwned));
    EXPECT_EQ(5, FieldOf(*cursor, &OpenCursor::m_columnCount));
    EXPECT_EQ(3, FieldOf(*cursor, &OpenCursor::m_rowCount));
    const auto* const cache = FieldOf(*cursor, &OpenCursor::m_pCache);
    EXPECT_EQ(nullptr, cache->currentRow);
    int number = 0;
    EXPECT_EQ(-14, cursor->GetIntegerData(0, number));
}

TEST(DeserializeCursorData, Rows_AreCachedWithTheirSizes) {
    const auto cursor = Read(AllTypes().bytes);
    std::vector<int> sizes;
    for (const CDbRow* row : FieldOf(*cursor, &OpenCursor::m_pCache)->rows) {
        EXPECT_TRUE(row->isCached);
        EXPECT_EQ(5U, row->columns.size());
        sizes.push_back(row->size);
    }
    EXPECT_THAT(sizes, ElementsAre(8 + 8 + 1 + 3, 8 + 8 + 2 + 3, 8 + 8 + 3 + 3));
    EXPECT_THAT(CachedNames(*cursor), ElementsAre("i", "real", "t", "", "nothing"));
    EXPECT_THAT(CachedRows(*cursor),
                ElementsAre("1:8:ffffffffffffffff 2:8:000000000000f83f 3:1:79 4:3:00ff00 5:0:",
                            "1:8:0000000000000000 2:8:010000000000f83f 3:2:7879 4:3:00ff00 5:0:",
                            "1:8:0100000000000000 2:8:020000000000f83f 3:3:787879 4:3:00ff00 5:0:"));
}

TEST(DeserializeCursorData, RebuiltNull_HasABufferAndReadsAsNull) {
    const auto cursor = Read(Int(1) + Int(1) + Name("v") + Cell(5, ""));
    ASSERT_EQ(0, cursor->MoveNextStep());
    const CDbColumn* const column = FieldOf(*cursor, &OpenCursor::m_pCache)->currentRow->columns[0];
    EXPECT_EQ(5, column->type);
    EXPECT_EQ(0, column->size);
    ASSERT_NE(nullptr, column->value);
    std::fill_n(column->value, 2, '\0');
    EXPECT_EQ(5, cursor->GetColumnType(0));
    EXPECT_EQ(0, cursor->GetColumnSize(0));
    std::string text = "before";
    EXPECT_EQ(-22, cursor->GetStringData(0, text));
    EXPECT_EQ("before", text);
}

TEST(DeserializeCursorData, RebuiltCursor_WalksBothWaysFromItsCache) {
    const auto cursor = Read(AllTypes().bytes);
    long long number = 0;
    for (int row = 0; row < 3; ++row) {
        EXPECT_EQ(0, cursor->MoveNextStep());
        EXPECT_EQ(row, cursor->GetCurrentRowIndex());
        EXPECT_EQ(0, cursor->GetInteger64Data(0, number));
        EXPECT_EQ(row - 1, number);
    }
    EXPECT_EQ(-22, cursor->MoveNextStep());
    EXPECT_EQ(0, cursor->MoveLastStep());
    EXPECT_EQ(2, cursor->GetCurrentRowIndex());
    EXPECT_EQ(0, cursor->MovePreviousStep());
    EXPECT_EQ(0, cursor->GetInteger64Data(0, number));
    EXPECT_EQ(0, number);
    EXPECT_EQ(0, cursor->MoveFirstStep());
    EXPECT_EQ(0, cursor->GetInteger64Data(0, number));
    EXPECT_EQ(-1, number);
    EXPECT_EQ(-22, cursor->MovePreviousStep());
}

TEST(DeserializeCursorData, NotSteppedToTheEnd_ReadsBackWithNamesAndNoRows) {
    const auto source = support::Stepped("SELECT 7 AS a, 8 AS b UNION ALL SELECT 8, 9", false);
    const LogCapture log;
    const auto cursor = Read(Serialized(source));
    EXPECT_THAT(CachedNames(*cursor), ElementsAre("a", "b"));
    EXPECT_EQ(2, cursor->GetColumnCount());
    EXPECT_EQ(0, cursor->GetNumbersOfRows());
    EXPECT_EQ(-22, cursor->MoveNextStep());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(DeserializeCursorData, ResultWithoutRows_EndsAtTheMissingNames) {
    const LogCapture log;
    const auto cursor = Read(Serialized(support::Stepped("SELECT 1 AS a, 2 AS b WHERE 0")));
    EXPECT_THAT(log.Lines(), ElementsAre(INDEX_LINE + "12 <= 8"));
    ASSERT_NE(nullptr, cursor);
    EXPECT_EQ(2, cursor->GetColumnCount());
    EXPECT_TRUE(cursor->IsEmpty());
    EXPECT_THAT(CachedNames(*cursor), IsEmpty());
}

TEST(DeserializeCursorData, RowCountBelow1_StopsAfterTheNames) {
    for (const int count : {0, -1, INT_MIN}) {
        const LogCapture log;
        const auto cursor = Read(Int(1) + Int(count) + Name("v") + Cell(1, Long(7)));
        EXPECT_THAT(log.Lines(), IsEmpty());
        EXPECT_THAT(CachedNames(*cursor), ElementsAre("v"));
        EXPECT_EQ(0, cursor->GetNumbersOfRows());
        EXPECT_EQ(count, FieldOf(*cursor, &OpenCursor::m_rowCount));
    }
}

TEST(DeserializeCursorData, RowCountBelowTheRowsThatAreThere_ReadsThatMany) {
    const LogCapture log;
    const auto cursor = Read(Int(1) + Int(1) + Name("v") + Cell(1, Long(7)) + Cell(1, Long(8)));
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_THAT(CachedRows(*cursor), ElementsAre("1:8:0700000000000000"));
}

TEST(DeserializeCursorData, RowCountAboveTheRowsThatAreThere_KeepsTheWholeOnes) {
    for (const int count : {3, INT_MAX}) {
        const std::string block = Int(1) + Int(count) + Name("v") + Cell(1, Long(7)) + Cell(1, Long(8));
        const LogCapture log;
        const auto cursor = Read(block);
        EXPECT_THAT(log.Lines(), ElementsAre(INDEX_LINE + "50 <= 46"));
        EXPECT_THAT(CachedRows(*cursor), ElementsAre("1:8:0700000000000000", "1:8:0800000000000000"));
        EXPECT_EQ(2, Visit(*cursor));
    }
}

TEST(DeserializeCursorData, NameWithoutItsZeroByte_EndsWhereItsLengthEnds) {
    const LogCapture log;
    const auto cursor = Read(Int(1) + Int(1) + Int(2) + "ab" + Cell(1, Long(7)));
    EXPECT_THAT(log.Lines(), IsEmpty());
    EXPECT_EQ(1, cursor->GetNumbersOfRows());
    EXPECT_THAT(cursor->GetColumnName(0), StartsWith("a"));
}

TEST(DeserializeCursorData, TextWithoutItsZeroByte_IsTerminatedInTheCache) {
    const auto cursor = Read(Int(1) + Int(1) + Name("v") + Int(3) + Int(3) + "abc");
    ASSERT_EQ(0, cursor->MoveNextStep());
    std::string text;
    EXPECT_EQ(0, cursor->GetStringData(0, text));
    EXPECT_THAT(text, StartsWith("ab"));
    EXPECT_EQ(2, cursor->GetColumnSize(0));
}

TEST(DeserializeCursorData, Bytes_AreBorrowedForTheCallAlone) {
    std::string block = AllTypes().bytes;
    const auto cursor =
        CSharedQueryObject::DeserializeCursorData(block.data(), static_cast<int>(block.size()));
    const auto rows = CachedRows(*cursor);
    const auto names = CachedNames(*cursor);
    std::fill(block.begin(), block.end(), '\x5a');
    EXPECT_EQ(rows, CachedRows(*cursor));
    EXPECT_EQ(names, CachedNames(*cursor));
}

// ---- From SQLite and back -----------------------------------------------------------------------------

std::shared_ptr<ISQLiteCursor> RoundTrip(const std::shared_ptr<ISQLiteCursor>& cursor) {
    return Read(Serialized(cursor));
}

// A cursor over one row of one column, the value being what `bind` binds.
template <typename Bind>
std::shared_ptr<CSQLiteCursor> Bound(Bind bind) {
    support::RawDb db(":memory:");
    sqlite3_stmt* const statement = support::Prepare(db.Handle(), "SELECT ?1 AS v");
    bind(statement);
    auto cursor = std::make_shared<CSQLiteCursor>(db.Handle(), statement);
    EXPECT_EQ(0, cursor->MoveNextStep());
    EXPECT_EQ(-34, cursor->MoveNextStep());
    cursor->FinalizeSQLStatement();
    return cursor;
}

TEST(RoundTripOfAResult, EdgeIntegers_ArriveWhole) {
    for (const long long number : {LLONG_MIN, LLONG_MIN + 1, -4294967297LL, -1LL, 0LL, 1LL, 2147483648LL,
                                   4294967297LL, LLONG_MAX - 1, LLONG_MAX}) {
        const auto copy =
            RoundTrip(Bound([number](sqlite3_stmt* statement) { sqlite3_bind_int64(statement, 1, number); }));
        ASSERT_EQ(0, copy->MoveNextStep());
        long long read = 1234;
        EXPECT_EQ(0, copy->GetInteger64Data(0, read));
        EXPECT_EQ(number, read);
        EXPECT_EQ(0, copy->GetColumnType(0));
        EXPECT_EQ(8, copy->GetColumnSize(0));
    }
    const auto copy = RoundTrip(support::Stepped("SELECT 4294967297 AS v"));
    ASSERT_EQ(0, copy->MoveNextStep());
    int low = 0;
    EXPECT_EQ(0, copy->GetIntegerData(0, low));
    EXPECT_EQ(1, low);
}

TEST(RoundTripOfAResult, EdgeDoubles_ArriveToTheLastBit) {
    using Limits = std::numeric_limits<double>;
    for (const double number :
         {0.0, -0.0, 0.1, -0.1, 1.0 / 3, std::nextafter(1.0, 2.0), DBL_MIN, DBL_MAX, -DBL_MAX,
          Limits::denorm_min(), Limits::infinity(), -Limits::infinity(), M_PI}) {
        const auto copy = RoundTrip(
            Bound([number](sqlite3_stmt* statement) { sqlite3_bind_double(statement, 1, number); }));
        ASSERT_EQ(0, copy->MoveNextStep());
        double read = 1234;
        EXPECT_EQ(0, copy->GetDoubleData(0, read));
        EXPECT_EQ(0, std::memcmp(&number, &read, sizeof number)) << number;
        EXPECT_EQ(2, copy->GetColumnType(0));
        EXPECT_EQ(8, copy->GetColumnSize(0));
    }
}

TEST(RoundTripOfAResult, Texts_ArriveWithEveryByte) {
    const std::string longText(100000, 'x');
    for (const std::string& text :
         {std::string(), std::string("a"), std::string("a\0b\0", 4), std::string("\0", 1),
          std::string("\xc3\xa4\xf0\x9f\x8e\xac"), std::string("\xff\xfe"), longText}) {
        const auto source = Bound([&text](sqlite3_stmt* statement) {
            sqlite3_bind_text(statement, 1, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
        });
        const auto copy = RoundTrip(source);
        EXPECT_EQ(std::vector<std::string>{support::Shown(Text(text))}, CachedRows(*copy));
        ASSERT_EQ(0, copy->MoveNextStep());
        std::string read = "before";
        EXPECT_EQ(0, copy->GetStringData(0, read));
        EXPECT_EQ(text.substr(0, text.find('\0')), read);
        EXPECT_EQ(static_cast<int>(text.size()), copy->GetColumnSize(0));
        EXPECT_EQ(3, copy->GetColumnType(0));
    }
}

TEST(RoundTripOfAResult, Blobs_ArriveWithAll256ByteValues) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    for (const std::string& blob : {all, std::string(), std::string(3, '\0')}) {
        const auto copy = RoundTrip(Bound([&blob](sqlite3_stmt* statement) {
            sqlite3_bind_blob(statement, 1, blob.data(), static_cast<int>(blob.size()), SQLITE_TRANSIENT);
        }));
        ASSERT_EQ(0, copy->MoveNextStep());
        EXPECT_EQ(4, copy->GetColumnType(0));
        ASSERT_EQ(static_cast<int>(blob.size()), copy->GetColumnSize(0));
        std::string read(blob.size() + 2, 'x');
        EXPECT_EQ(0, copy->GetBlobData(0, read.data(), static_cast<int>(read.size())));
        EXPECT_EQ(blob + "xx", read);
    }
}

TEST(RoundTripOfAResult, ManyRowsAndColumns_AnswerLikeTheSource) {
    support::RawDb db(":memory:");
    db.Exec("CREATE TABLE t (\"a name with blanks\", \"\xc3\xa4\", \"A\", a2, e)");
    db.Exec(
        "WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM c WHERE n < 500) INSERT INTO t "
        "SELECT n, n / 7.0, 'text ' || n, CASE n % 3 WHEN 0 THEN NULL ELSE x'0001' END, '' FROM c");
    const auto source = support::Stepped(db, "SELECT * FROM t");
    const auto copy = RoundTrip(source);
    EXPECT_EQ(500, copy->GetNumbersOfRows());
    EXPECT_EQ(CachedRows(*source), CachedRows(*copy));
    EXPECT_THAT(CachedNames(*copy), ElementsAre("a name with blanks", "\xc3\xa4", "A", "a2", "e"));
    EXPECT_EQ(500, Visit(*copy));
}

TEST(RoundTripOfAResult, CopyOfACopy_IsTheSameBlock) {
    const std::string block = AllTypes().bytes;
    EXPECT_EQ(block, Serialized(Read(block)));
}

// ---- Reading damaged blocks ---------------------------------------------------------------------------

TEST(DeserializeCursorData, CutAtEveryOffset_StopsWithTheOffsetsAndKeepsTheWholeRows) {
    const Block whole = AllTypes();
    const auto rows = CachedRows(*Read(whole.bytes));
    for (std::size_t size = 4; size < whole.bytes.size(); ++size) {
        SCOPED_TRACE(size);
        const auto cut = std::find_if(whole.fields.begin(), whole.fields.end(),
                                      [size](const Block::Field& field) { return field.end > size; });
        const auto rowCount = static_cast<std::size_t>(std::count_if(
            whole.rowEnds.begin(), whole.rowEnds.end(), [size](std::size_t end) { return end <= size; }));
        const LogCapture log;
        const auto cursor = Read(whole.bytes.substr(0, size));
        EXPECT_THAT(log.Lines(), ElementsAre((cut->isNumber ? INDEX_LINE : DATA_LINE) +
                                             std::to_string(cut->end) + " <= " + std::to_string(size)));
        ASSERT_NE(nullptr, cursor);
        EXPECT_EQ(
            std::vector<std::string>(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(rowCount)),
            CachedRows(*cursor));
        EXPECT_EQ(static_cast<int>(rowCount), Visit(*cursor));
    }
}

TEST(DeserializeCursorData, RowCutShort_IsLeftOutAndTheOnesBeforeItStay) {
    const std::string block = Int(2) + Int(2) + Name("a") + Name("b") + Cell(1, Long(1)) +
                              Cell(3, "x" + ZERO) + Cell(1, Long(2)) + Int(3) + Int(3) + "y";
    const LogCapture log;
    const auto cursor = Read(block);
    EXPECT_THAT(log.Lines(), ElementsAre(DATA_LINE + "73 <= 71"));
    EXPECT_THAT(CachedRows(*cursor), ElementsAre("1:8:0100000000000000 3:1:78"));
    EXPECT_EQ(1, cursor->GetNumbersOfRows());
}

TEST(DeserializeCursorData, NamesCutShort_NamesBeforeStayAndNoRowIsRead) {
    const LogCapture log;
    const auto cursor = Read(Int(2) + Int(1) + Name("a") + Int(1000) + Cell(1, Long(1)));
    EXPECT_THAT(log.Lines(), ElementsAre(DATA_LINE + "1018 <= 34"));
    EXPECT_THAT(CachedNames(*cursor), ElementsAre("a"));
    EXPECT_EQ(0, cursor->GetNumbersOfRows());
}

TEST(DeserializeCursorData, LengthThatNoWriterMakes_IsAReadPastTheEnd) {
    const struct {
        int type;
        int length;
    } cells[] = {
        {1, 0},       {1, 1},       {1, 4},       {1, 7},       {1, 9},  {1, -1},
        {1, INT_MIN}, {1, INT_MAX}, {2, 0},       {2, 4},       {2, 7},  {2, 9},
        {2, -1},      {0, 0},       {0, 7},       {0, 9},       {-1, 0}, {-1, 9},
        {3, 0},       {3, -1},      {3, INT_MIN}, {3, INT_MAX}, {4, 0},  {4, -1},
        {4, INT_MIN}, {4, INT_MAX}, {5, -1},      {5, 40},      {6, -1}, {5, INT_MIN},
        {5, INT_MAX}, {6, 40},      {3, 40},      {4, 40},      {2, 40}, {INT_MIN, 0},
    };
    for (const auto& cell : cells) {
        SCOPED_TRACE(testing::Message() << "type " << cell.type << ", length " << cell.length);
        const LogCapture log;
        const auto cursor = Read(Int(1) + Int(3) + Name("v") + Cell(1, Long(7)) + Int(cell.type) +
                                 Int(cell.length) + std::string(16, '\1'));
        EXPECT_THAT(log.Lines(),
                    ElementsAre(MatchesRegex("I DeserializeCursorData > Memory size check error : "
                                             "currentOffset \\+ currentDataSize <= bufferSize : "
                                             "-?[0-9]+ <= 54")));
        EXPECT_THAT(CachedRows(*cursor), ElementsAre("1:8:0700000000000000"));
    }
}

TEST(DeserializeCursorData, LengthPastTheEnd_LogsTheOffsetBehindIt) {
    const std::string before = Int(1) + Int(1) + Name("v");
    const struct {
        std::string block;
        const char* offsets;
    } rows[] = {
        {before + Int(3) + Int(40) + "abc", "62 <= 25"}, {before + Int(4) + Int(4) + "abc", "26 <= 25"},
        {before + Int(5) + Int(100), "122 <= 22"},       {before + Int(1) + Int(8) + "1234567", "30 <= 29"},
        {Int(1) + Int(1) + Int(3) + "v", "15 <= 13"},    {Int(1) + Int(1) + Int(1000000), "1000012 <= 12"},
    };
    for (const auto& row : rows) {
        const LogCapture log;
        const auto cursor = Read(row.block);
        EXPECT_THAT(log.Lines(), ElementsAre(DATA_LINE + row.offsets));
        EXPECT_EQ(0, cursor->GetNumbersOfRows());
    }
}

TEST(DeserializeCursorData, UnknownTypes_AreKeptAndReadAsUndefined) {
    const auto cursor = Read(Int(3) + Int(1) + Name("a") + Name("b") + Name("c") + Cell(0, Long(1)) +
                             Cell(6, "abc") + Cell(INT_MAX, ""));
    ASSERT_EQ(1, cursor->GetNumbersOfRows());
    ASSERT_EQ(0, cursor->MoveNextStep());
    for (int column = 0; column < 3; ++column) {
        EXPECT_EQ(6, cursor->GetColumnType(column));
        std::string text;
        EXPECT_EQ(-22, cursor->GetStringData(column, text));
    }
    EXPECT_EQ(8, cursor->GetColumnSize(0));
    EXPECT_EQ(3, cursor->GetColumnSize(1));
    EXPECT_EQ(0, cursor->GetColumnSize(2));
    cursor->MoveFirstStep();
    Visit(*cursor);
}

TEST(DeserializeCursorData, EveryNumberSetToAnEdgeValue_ReadsNothingPastTheEndAndKeepsTheRowsBefore) {
    const Block whole = AllTypes();
    const auto rows = CachedRows(*Read(whole.bytes));
    for (const auto& field : whole.fields) {
        for (const int value : {0, 1, -1, INT_MAX, INT_MIN}) {
            if (!field.isNumber) {
                continue;
            }
            SCOPED_TRACE(testing::Message() << "offset " << field.begin << ", value " << value);
            std::string block = whole.bytes;
            block.replace(field.begin, 4, Int(value));
            std::shared_ptr<ISQLiteCursor> cursor;
            std::size_t taken = 0;
            const LogCapture log;
            {
                const Allocations allocations(0, Allocations::Of::Library);
                cursor = Read(block);
                taken = allocations.Bytes();
            }
            ASSERT_NE(nullptr, cursor);
            // A null value of 8 bytes becomes a column, its buffer and its place in the row.
            EXPECT_LT(taken, 40 * block.size());
            EXPECT_LE(log.Lines().size(), 1U);
            const auto got = CachedRows(*cursor);
            EXPECT_LE(got.size(), rows.size());
            const auto untouched = static_cast<std::size_t>(
                std::count_if(whole.rowEnds.begin(), whole.rowEnds.end(),
                              [&field](std::size_t end) { return end <= field.begin; }));
            ASSERT_GE(got.size(), untouched);
            EXPECT_TRUE(
                std::equal(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(untouched), got.begin()));
            const std::string again = Serialized(cursor);
            EXPECT_EQ(got, CachedRows(*Read(again)));
            EXPECT_EQ(static_cast<int>(got.size()), Visit(*cursor));
        }
    }
}

TEST(DeserializeCursorData, AbsurdCounts_TakeNoMemoryBeforeTheBytesAreThere) {
    const std::string blocks[] = {
        Int(INT_MAX) + Int(INT_MAX),
        Int(INT_MAX) + Int(INT_MAX) + Name("v") + Cell(1, Long(7)),
        Int(1) + Int(INT_MAX) + Name("v") + Cell(1, Long(7)),
        Int(1) + Int(INT_MAX) + Int(INT_MAX),
        Int(1) + Int(1) + Name("v") + Int(3) + Int(INT_MAX),
        Int(1) + Int(1) + Name("v") + Int(4) + Int(INT_MIN),
        Int(100000) + Int(100000) + Name("v"),
    };
    for (const auto& block : blocks) {
        const LogCapture log;
        std::shared_ptr<ISQLiteCursor> cursor;
        std::size_t greatest = 0;
        int count = 0;
        {
            const Allocations allocations(0, Allocations::Of::Library);
            cursor = Read(block);
            greatest = allocations.Greatest();
            count = allocations.Count();
        }
        ASSERT_NE(nullptr, cursor);
        EXPECT_GT(count, 0);
        // A stock of columns is the greatest.
        EXPECT_LT(greatest, 4097U);
        EXPECT_EQ(1U, log.Lines().size());
        EXPECT_EQ(cursor->GetNumbersOfRows(), Visit(*cursor));
    }
}

TEST(DeserializeCursorData, MemoryRunsOutAnywhere_NullWithItsLineAndNoException) {
    const std::string block = AllTypes().bytes;
    int failing = 0;
    for (bool failed = true; failed;) {
        SCOPED_TRACE(++failing);
        std::string copy = block;
        const LogCapture log;
        std::shared_ptr<ISQLiteCursor> cursor;
        // A thread of its own has nothing in store.
        std::thread([&] {
            const Allocations allocations(failing, Allocations::Of::Library);
            EXPECT_NO_THROW(cursor = CSharedQueryObject::DeserializeCursorData(
                                copy.data(), static_cast<int>(copy.size())));
            failed = allocations.Failed();
        }).join();
        EXPECT_EQ(failed, cursor == nullptr);
        EXPECT_EQ(failed ? 1 : 0, log.Count("I DeserializeCursorData > " + NO_MEMORY_LINE));
    }
    EXPECT_GT(failing, 20);
}

// The library keeps a stock of columns and one of rows for each thread.
TEST(DeserializeCursorData, ThreadThatEnds_LeavesNoStockBehind) {
    const int before = Allocations::Aligned();
    std::shared_ptr<ISQLiteCursor> cursor;
    std::thread([&cursor] { cursor = Read(AllTypes().bytes); }).join();
    EXPECT_EQ(Allocations::Aligned(), before + 2);
    cursor.reset();
    EXPECT_EQ(Allocations::Aligned(), before);
    std::thread([] { Read(AllTypes().bytes); }).join();
    EXPECT_EQ(Allocations::Aligned(), before);
}

TEST(DbRow, AnyNumberMadeInAThread_LeavesNoStockBehind) {
    const int before = Allocations::Aligned();
    for (int count = 1; count <= 200; ++count) {
        std::thread([count] {
            for (int i = 0; i < count; ++i) {
                std::make_unique<CDbRow>();
            }
        }).join();
        ASSERT_EQ(Allocations::Aligned(), before) << count;
    }
}

// Goes after the thread's stock, when it was made before that.
struct LateReader {
    ~LateReader() {
        for (int i = 0; i < 3; ++i) {
            Read(AllTypes().bytes);
        }
    }
};

TEST(DeserializeCursorData, ReadWhileItsThreadEnds_LeavesNoStockBehind) {
    const int before = Allocations::Aligned();
    std::thread([] {
        thread_local const LateReader reader;
        static_cast<void>(&reader);
        Read(AllTypes().bytes);
    }).join();
    EXPECT_EQ(Allocations::Aligned(), before);
}

// ---- What the fuzzer starts from ----------------------------------------------------------------------

TEST(DeserializeCursorData, EveryFileOfTheFuzzersCorpus_ReadsAndWritesToTheSameBlockAgain) {
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(WIRE_FORMAT_CORPUS)) {
        SCOPED_TRACE(entry.path().filename());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string block((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        ++files;
        const auto cursor = Read(block);
        if (!cursor) {
            EXPECT_LT(block.size(), 4U);
            continue;
        }
        const std::string first = Serialized(cursor);
        EXPECT_EQ(first, Serialized(Read(first)));
        EXPECT_EQ(cursor->GetNumbersOfRows(), Visit(*cursor));
    }
    EXPECT_GT(files, 5);
    EXPECT_LE(files, 1000);
}

}  // namespace

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "Cursors.h"
#include "Fixtures.h"
#include "LogCapture.h"
#include "SQLiteCursor.h"
#include "SqliteFaults.h"

namespace {

using cursors::AppendRow;
using cursors::Letters;
using cursors::MakeColumn;
using cursors::MakeInteger;
using cursors::MEBIBYTE;
using cursors::NoMemory;
using cursors::NotActivated;
using cursors::Result;
using cursors::RowAt;
using support::LogCapture;
using support::OpenCursor;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* ALL_TYPES = "SELECT 1 AS i, 1.5 AS f, 'text' AS t, x'00ff' AS b, NULL AS n";

std::string OutOfRange(const std::string& function) {
    return "I " + function + " > Given column index is out of range";
}

std::string NoRow(const std::string& function) { return "I " + function + " > Result row is not activated"; }

std::string NoColumn(const std::string& function) {
    return "I " + function + " > Result Column is not activated";
}

// A select's first row.
class Row : public Result {
public:
    explicit Row(const std::string& select, const std::string& setup = "") : Result(select, setup) {
        EXPECT_EQ((*this)->MoveNextStep(), 0);
    }
    // Takes the entry of a column away.
    void Drop(std::size_t column) {
        delete Cache().currentRow->columns[column];
        Cache().currentRow->columns[column] = nullptr;
    }
    // Takes the value of a column away; type and size stay.
    void Empty(std::size_t column) {
        CDbColumn* entry = Cache().currentRow->columns[column];
        delete[] entry->value;
        entry->value = nullptr;
    }
};

// A cursor on a row of that one column.
class Made {
public:
    explicit Made(std::unique_ptr<CDbColumn> column) {
        AppendRow(m_cursor, std::move(column));
        EXPECT_EQ(m_cursor.MoveNextStep(), 0);
    }
    OpenCursor* operator->() { return &m_cursor; }

private:
    OpenCursor m_cursor;
};

// ---- What the five value getters share --------------------------------------------------------------------

struct Getter {
    const char* name;
    // The column of ALL_TYPES that it accepts.
    int column;
    // Reads a column; the flag tells whether the out-argument was left as it was.
    std::function<int(ISQLiteCursor&, int, bool&)> read;
};

template <typename Value, typename Method>
std::function<int(ISQLiteCursor&, int, bool&)> ReadBy(Method method, Value untouched) {
    return [method, untouched](ISQLiteCursor& cursor, int column, bool& same) {
        Value value = untouched;
        const int code = (cursor.*method)(column, value);
        same = value == untouched;
        return code;
    };
}

const std::vector<Getter>& Getters() {
    static const std::vector<Getter> getters = {
        {"GetIntegerData", 0, ReadBy(&ISQLiteCursor::GetIntegerData, -777)},
        {"GetInteger64Data", 0, ReadBy(&ISQLiteCursor::GetInteger64Data, -777LL)},
        {"GetDoubleData", 1, ReadBy(&ISQLiteCursor::GetDoubleData, -777.0)},
        {"GetStringData", 2, ReadBy(&ISQLiteCursor::GetStringData, std::string("untouched"))},
        {"GetBlobData", 3, [](ISQLiteCursor& cursor, int column, bool& same) {
             std::string buffer(16, '#');
             const int code = cursor.GetBlobData(column, buffer.data(), 16);
             same = buffer == std::string(16, '#');
             return code;
         }}};
    return getters;
}

class ValueGetter : public testing::TestWithParam<Getter> {
protected:
    // Reads a column, and expects the out-argument to be written only on success.
    static int Read(ISQLiteCursor& cursor, int column) {
        bool same = false;
        const int code = GetParam().read(cursor, column, same);
        EXPECT_EQ(same, code != 0);
        return code;
    }
};

INSTANTIATE_TEST_SUITE_P(EveryGetter, ValueGetter, testing::ValuesIn(Getters()),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST_P(ValueGetter, BeforeTheFirstMove_IsNotActivated) {
    Result result(ALL_TYPES);
    const LogCapture log;
    EXPECT_EQ(Read(*result, GetParam().column), -14);
    EXPECT_EQ(Read(*result, -1), -14);
    EXPECT_THAT(log.Lines(), ElementsAre(NotActivated(GetParam().name), NotActivated(GetParam().name)));
}

TEST_P(ValueGetter, AfterAReset_HasNoRow) {
    Row row(ALL_TYPES);
    row->ResetStep();
    const LogCapture log;
    EXPECT_EQ(Read(*row, GetParam().column), -14);
    EXPECT_EQ(Read(*row, 99), -14);
    EXPECT_THAT(log.Lines(), ElementsAre(NoRow(GetParam().name), NoRow(GetParam().name)));
}

TEST_P(ValueGetter, ResultWithoutRows_HasNoRow) {
    Result result("SELECT 1 WHERE 0");
    ASSERT_EQ(result->MoveNextStep(), -34);
    const LogCapture log;
    EXPECT_EQ(Read(*result, 0), -14);
    EXPECT_THAT(log.Lines(), ElementsAre(NoRow(GetParam().name)));
}

TEST_P(ValueGetter, ColumnOutsideTheRow_IsOutOfRange) {
    Row row(ALL_TYPES);
    for (const int column : {-1, 5, 6, INT_MAX, INT_MIN}) {
        const LogCapture log;
        EXPECT_EQ(Read(*row, column), -22) << column;
        EXPECT_THAT(log.Lines(), ElementsAre(OutOfRange(GetParam().name)));
    }
}

TEST_P(ValueGetter, RangeIsTheRowsAndNotTheResults) {
    Row row(ALL_TYPES);
    row->m_columnCount = 0;
    EXPECT_EQ(Read(*row, GetParam().column), 0);
    row->m_columnCount = 10;
    EXPECT_EQ(Read(*row, 5), -22);
}

TEST_P(ValueGetter, EvictedRow_IsOutOfRange) {
    Result result(Letters(4, MEBIBYTE));
    ASSERT_EQ(result->MoveNextStep(), 0);
    ASSERT_EQ(result->CreateCacheTillEnd(), 0);
    ASSERT_EQ(result->MoveFirstStep(), 100);
    ASSERT_FALSE(result.Cache().currentRow->isCached);
    const LogCapture log;
    EXPECT_EQ(Read(*result, 0), -22);
    EXPECT_THAT(log.Lines(), ElementsAre(OutOfRange(GetParam().name)));
}

TEST_P(ValueGetter, MissingEntry_Returns6) {
    Row row(ALL_TYPES);
    row.Drop(static_cast<std::size_t>(GetParam().column));
    const LogCapture log;
    EXPECT_EQ(Read(*row, GetParam().column), 6);
    EXPECT_THAT(log.Lines(), ElementsAre(NoColumn(GetParam().name)));
}

TEST_P(ValueGetter, OtherTypes_ReturnMinus22WithoutAMessage) {
    Row row(ALL_TYPES);
    const LogCapture log;
    for (int column = 0; column < 5; ++column) {
        EXPECT_EQ(Read(*row, column), column == GetParam().column ? 0 : -22) << "column " << column;
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_P(ValueGetter, OtherTypeWithoutAValue_IsAnsweredByTheType) {
    Row row(ALL_TYPES);
    const std::size_t other = GetParam().column == 0 ? 1 : 0;
    row.Empty(other);
    const LogCapture log;
    EXPECT_EQ(Read(*row, static_cast<int>(other)), -22);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_P(ValueGetter, NoValue_ReturnsMinus14) {
    Row row(ALL_TYPES);
    row.Empty(static_cast<std::size_t>(GetParam().column));
    const LogCapture log;
    EXPECT_EQ(Read(*row, GetParam().column), -14);
    const std::string text = std::string(GetParam().name) == "GetBlobData"
                                 ? "Data for specified column does not exist"
                                 : "Column data is not activated";
    EXPECT_THAT(log.Lines(), ElementsAre("I " + std::string(GetParam().name) + " > " + text));
}

TEST_P(ValueGetter, StatementMovedOnOrGone_ReadsTheCachedRow) {
    Row row("SELECT 1, 1.5, 'text', x'00ff' UNION ALL SELECT 2, 2.5, 'more', x'01'");
    ASSERT_EQ(sqlite3_step(row->m_pStmt), 100);
    const support::SqliteFaults faults;
    EXPECT_EQ(Read(*row, GetParam().column), 0);
    row->FinalizeSQLStatement();
    EXPECT_EQ(Read(*row, GetParam().column), 0);
    EXPECT_EQ(faults.Calls("sqlite3_column_type"), 0);
}

// ---- GetIntegerData, GetInteger64Data ---------------------------------------------------------------------

struct IntegerCase {
    const char* name;
    const char* sql;
    long long whole;
    int low;
};

class IntegerValue : public testing::TestWithParam<IntegerCase> {};

INSTANTIATE_TEST_SUITE_P(
    Limits, IntegerValue,
    testing::Values(IntegerCase{"Zero", "0", 0, 0}, IntegerCase{"MinusOne", "-1", -1, -1},
                    IntegerCase{"GreatestInt", "2147483647", 2147483647LL, 2147483647},
                    IntegerCase{"OneAboveGreatestInt", "2147483648", 2147483648LL, INT_MIN},
                    IntegerCase{"LeastInt", "-2147483648", -2147483648LL, INT_MIN},
                    IntegerCase{"OneBelowLeastInt", "-2147483649", -2147483649LL, 2147483647},
                    IntegerCase{"GreatestUnsigned", "4294967295", 4294967295LL, -1},
                    IntegerCase{"OneAboveGreatestUnsigned", "4294967296", 4294967296LL, 0},
                    IntegerCase{"TwoAboveGreatestUnsigned", "4294967297", 4294967297LL, 1},
                    IntegerCase{"Greatest", "9223372036854775807", LLONG_MAX, -1},
                    IntegerCase{"Least", "-9223372036854775807 - 1", LLONG_MIN, 0}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST_P(IntegerValue, IsReadWholeAndByItsLow32Bits) {
    Row row(std::string("SELECT ") + GetParam().sql);
    const LogCapture log;
    long long whole = -777;
    int low = -777;
    EXPECT_EQ(row->GetInteger64Data(0, whole), 0);
    EXPECT_EQ(whole, GetParam().whole);
    EXPECT_EQ(row->GetIntegerData(0, low), 0);
    EXPECT_EQ(low, GetParam().low);
    EXPECT_EQ(row->GetColumnSize(0), 8);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(GetIntegerData, Column4294967297_Yields1) {
    Row row("SELECT 4294967297");
    int value = 0;
    EXPECT_EQ(row->GetIntegerData(0, value), 0);
    EXPECT_EQ(value, 1);
}

TEST(GetIntegerData, TypeCodesBelowTheIntegers_AreAccepted) {
    for (const int type : {0, -1, INT_MIN}) {
        auto column = MakeInteger(4294967299LL);
        column->type = type;
        Made made(std::move(column));
        const LogCapture log;
        int low = 0;
        long long whole = 0;
        EXPECT_EQ(made->GetIntegerData(0, low), 0);
        EXPECT_EQ(low, 3);
        EXPECT_EQ(made->GetInteger64Data(0, whole), 0);
        EXPECT_EQ(whole, 4294967299LL);
        double number = 1;
        EXPECT_EQ(made->GetDoubleData(0, number), -22);
        std::string text;
        EXPECT_EQ(made->GetStringData(0, text), -22);
        char byte = 0;
        EXPECT_EQ(made->GetBlobData(0, &byte, 1), -22);
        EXPECT_THAT(log.Lines(), IsEmpty());
    }
}

TEST(GetIntegerData, UnknownTypeCode_ReturnsMinus22) {
    auto column = MakeInteger(3);
    column->type = 6;
    Made made(std::move(column));
    int value = 9;
    EXPECT_EQ(made->GetIntegerData(0, value), -22);
    EXPECT_EQ(value, 9);
}

// ---- GetDoubleData ----------------------------------------------------------------------------------------

TEST(GetDoubleData, Limits_AreReadExactly) {
    const std::vector<double> expected = {DBL_MAX,
                                          -DBL_MAX,
                                          DBL_MIN,
                                          std::numeric_limits<double>::infinity(),
                                          -std::numeric_limits<double>::infinity(),
                                          0.1};
    Result result("SELECT ?, ?, ?, ?, ?, ?");
    // Bound, not written: SQLite reads decimals to the last bit only where long double is wider than double.
    for (std::size_t column = 0; column < expected.size(); ++column) {
        sqlite3_bind_double(result->m_pStmt, static_cast<int>(column) + 1, expected[column]);
    }
    ASSERT_EQ(result->MoveNextStep(), 0);
    for (std::size_t column = 0; column < expected.size(); ++column) {
        double value = -777;
        EXPECT_EQ(result->GetDoubleData(static_cast<int>(column), value), 0) << column;
        EXPECT_EQ(value, expected[column]) << column;
    }
}

TEST(GetDoubleData, BoundSmallestNumber_IsReadExactly) {
    Result result("SELECT ?");
    sqlite3_bind_double(result->m_pStmt, 1, std::numeric_limits<double>::denorm_min());
    ASSERT_EQ(result->MoveNextStep(), 0);
    double value = -777;
    EXPECT_EQ(result->GetDoubleData(0, value), 0);
    EXPECT_EQ(value, 4.9406564584124654e-324);
}

TEST(GetDoubleData, BoundNotANumber_IsNull) {
    Result result("SELECT ?");
    sqlite3_bind_double(result->m_pStmt, 1, std::nan(""));
    ASSERT_EQ(result->MoveNextStep(), 0);
    double value = -777;
    EXPECT_EQ(result->GetDoubleData(0, value), -22);
    EXPECT_EQ(value, -777);
    EXPECT_EQ(result->GetColumnType(0), 5);
}

TEST(GetDoubleData, IntegerColumn_ReturnsMinus22AndLeavesTheArgument) {
    Row row("SELECT 12");
    const LogCapture log;
    double value = 3.25;
    EXPECT_EQ(row->GetDoubleData(0, value), -22);
    EXPECT_EQ(value, 3.25);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// ---- GetStringData ----------------------------------------------------------------------------------------

TEST(GetStringData, Texts_AreReadAsTheyAre) {
    Row row("SELECT 'caf\xC3\xA9', '', 'two\nlines', '%s%n'");
    const std::vector<std::string> expected = {"caf\xC3\xA9", "", "two\nlines", "%s%n"};
    for (std::size_t column = 0; column < expected.size(); ++column) {
        std::string value = "untouched";
        EXPECT_EQ(row->GetStringData(static_cast<int>(column), value), 0);
        EXPECT_EQ(value, expected[column]);
        EXPECT_EQ(row->GetColumnSize(static_cast<int>(column)), static_cast<int>(expected[column].size()));
        EXPECT_EQ(row->GetColumnType(static_cast<int>(column)), 3);
    }
}

TEST(GetStringData, TextWithAZeroByte_IsReadUpToIt) {
    Row row("SELECT CAST(x'61006263' AS TEXT), CAST(x'0061' AS TEXT)");
    std::string value = "untouched";
    EXPECT_EQ(row->GetStringData(0, value), 0);
    EXPECT_EQ(value, "a");
    EXPECT_EQ(row->GetColumnSize(0), 4);
    EXPECT_EQ(row->GetStringData(1, value), 0);
    EXPECT_EQ(value, "");
    EXPECT_EQ(row->GetColumnSize(1), 2);
}

TEST(GetStringData, NullColumn_ReturnsMinus22) {
    Row row("SELECT NULL");
    const LogCapture log;
    std::string value = "untouched";
    EXPECT_EQ(row->GetStringData(0, value), -22);
    EXPECT_EQ(value, "untouched");
    EXPECT_EQ(row->GetColumnType(0), 5);
    EXPECT_EQ(row->GetColumnSize(0), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(GetStringData, Utf16Database_ReadsUtf8) {
    for (const char* encoding : {"UTF-16le", "UTF-16be"}) {
        Row row("SELECT v, length(v) FROM t",
                std::string("PRAGMA encoding = '") + encoding +
                    "'; CREATE TABLE t(v); INSERT INTO t VALUES('\xE2\x82\xAC uro \xF0\x9F\x93\xBA')");
        std::string value;
        EXPECT_EQ(row->GetStringData(0, value), 0);
        EXPECT_EQ(value, "\xE2\x82\xAC uro \xF0\x9F\x93\xBA");
        EXPECT_EQ(row->GetColumnSize(0), 12);
        EXPECT_EQ(row->GetColumnName(0), "v");
        EXPECT_EQ(cursors::Integer(*row, 1), 7);
    }
}

// ---- GetBlobData ------------------------------------------------------------------------------------------

TEST(GetBlobData, ExactBuffer_GetsEveryByteAndNoTerminator) {
    Row row("SELECT x'00ff10'");
    const LogCapture log;
    std::string buffer(5, '#');
    EXPECT_EQ(row->GetBlobData(0, buffer.data(), 3), 0);
    EXPECT_EQ(buffer, std::string("\x00\xff\x10##", 5));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(GetBlobData, LargerBuffer_KeepsItsRest) {
    Row row("SELECT x'00ff10'");
    std::string buffer(5, '#');
    EXPECT_EQ(row->GetBlobData(0, buffer.data(), 5), 0);
    EXPECT_EQ(buffer, std::string("\x00\xff\x10##", 5));
}

TEST(GetBlobData, BufferOneByteTooSmall_ReturnsMinus105AndCopiesNothing) {
    Row row("SELECT x'00ff10'");
    const LogCapture log;
    std::string buffer(3, '#');
    EXPECT_EQ(row->GetBlobData(0, buffer.data(), 2), -105);
    EXPECT_EQ(buffer, "###");
    EXPECT_THAT(log.Lines(), ElementsAre("I GetBlobData > Buffer overflow is occurred"));
}

TEST(GetBlobData, EmptyBlob_CopiesNothing) {
    Row row("SELECT x''");
    const LogCapture log;
    std::string buffer(3, '#');
    EXPECT_EQ(row->GetColumnType(0), 4);
    EXPECT_EQ(row->GetColumnSize(0), 0);
    EXPECT_EQ(row->GetBlobData(0, buffer.data(), 3), 0);
    EXPECT_EQ(buffer, "###");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(GetBlobData, SizeBelow1_ReturnsMinus22) {
    Row row("SELECT x'00ff10'");
    for (const int size : {0, -1, INT_MIN}) {
        const LogCapture log;
        char byte = '#';
        EXPECT_EQ(row->GetBlobData(0, &byte, size), -22);
        EXPECT_EQ(byte, '#');
        EXPECT_THAT(log.Lines(), ElementsAre("I GetBlobData > Buffer overflow is occurred"));
    }
}

TEST(GetBlobData, NullBuffer_ReturnsMinus22) {
    Row row("SELECT x'00ff10'");
    const LogCapture log;
    EXPECT_EQ(row->GetBlobData(0, nullptr, 3), -22);
    EXPECT_THAT(log.Lines(), ElementsAre("I GetBlobData > Null pointer was passed"));
}

TEST(GetBlobData, SizeIsCheckedBeforeTheBuffer) {
    Row row("SELECT x'00ff10'");
    const LogCapture log;
    EXPECT_EQ(row->GetBlobData(0, nullptr, 0), -22);
    EXPECT_THAT(log.Lines(), ElementsAre("I GetBlobData > Buffer overflow is occurred"));
}

TEST(GetBlobData, ColumnIsCheckedBeforeSizeAndBuffer) {
    Row row("SELECT x'00ff10'");
    const LogCapture log;
    EXPECT_EQ(row->GetBlobData(1, nullptr, 0), -22);
    EXPECT_THAT(log.Lines(), ElementsAre(OutOfRange("GetBlobData")));
}

TEST(GetBlobData, SizeAndBufferAreCheckedBeforeTheEntry) {
    Row row("SELECT x'00ff10'");
    row.Drop(0);
    const LogCapture log;
    char byte = 0;
    EXPECT_EQ(row->GetBlobData(0, &byte, 0), -22);
    EXPECT_EQ(row->GetBlobData(0, nullptr, 1), -22);
    EXPECT_EQ(row->GetBlobData(0, &byte, 1), 6);
    EXPECT_THAT(log.Lines(), ElementsAre("I GetBlobData > Buffer overflow is occurred",
                                         "I GetBlobData > Null pointer was passed", NoColumn("GetBlobData")));
}

TEST(GetBlobData, TypeIsCheckedBeforeTheSize) {
    Row row("SELECT 'long text'");
    const LogCapture log;
    char byte = '#';
    EXPECT_EQ(row->GetBlobData(0, &byte, 1), -22);
    EXPECT_EQ(byte, '#');
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(GetBlobData, SizeIsCheckedBeforeTheValue) {
    Row row("SELECT x'00ff10'");
    row.Empty(0);
    const LogCapture log;
    std::string buffer(3, '#');
    EXPECT_EQ(row->GetBlobData(0, buffer.data(), 2), -105);
    EXPECT_EQ(row->GetBlobData(0, buffer.data(), 3), -14);
    EXPECT_EQ(buffer, "###");
    EXPECT_THAT(log.Lines(), ElementsAre("I GetBlobData > Buffer overflow is occurred",
                                         "I GetBlobData > Data for specified column does not exist"));
}

// ---- GetColumnType, ConvertColumnTypeToString -------------------------------------------------------------

TEST(GetColumnType, EveryStoredType_HasItsValueAndName) {
    struct Case {
        int stored;
        int answered;
        const char* name;
    };
    for (const Case& one :
         {Case{1, 0, "4-bit integer"}, Case{2, 2, "double"}, Case{3, 3, "text"}, Case{4, 4, "blob"},
          Case{5, 5, "NULL"}, Case{0, 6, "undefined"}, Case{6, 6, "undefined"}, Case{-1, 6, "undefined"},
          Case{INT_MAX, 6, "undefined"}}) {
        Made made(MakeColumn(one.stored, "12345678"));
        const LogCapture log;
        EXPECT_EQ(made->GetColumnType(0), one.answered) << one.stored;
        EXPECT_EQ(CSQLiteCursor::ConvertColumnTypeToString(made->GetColumnType(0)), one.name);
        EXPECT_THAT(log.Lines(), IsEmpty());
    }
}

TEST(GetColumnType, ValuesOutOfSqlite_HaveTheirTypes) {
    Row row(ALL_TYPES);
    EXPECT_EQ(row->GetColumnType(0), 0);
    EXPECT_EQ(row->GetColumnType(1), 2);
    EXPECT_EQ(row->GetColumnType(2), 3);
    EXPECT_EQ(row->GetColumnType(3), 4);
    EXPECT_EQ(row->GetColumnType(4), 5);
}

TEST(GetColumnType, BeforeTheFirstMove_Returns6) {
    Result result(ALL_TYPES);
    const LogCapture log;
    EXPECT_EQ(result->GetColumnType(0), 6);
    EXPECT_THAT(log.Lines(), ElementsAre(NotActivated("GetColumnType")));
}

TEST(GetColumnType, NoCurrentRow_Returns6) {
    Row row(ALL_TYPES);
    row->ResetStep();
    const LogCapture log;
    EXPECT_EQ(row->GetColumnType(0), 6);
    EXPECT_EQ(row->GetColumnType(-1), 6);
    EXPECT_THAT(log.Lines(), ElementsAre(NoRow("GetColumnType"), NoRow("GetColumnType")));
}

TEST(GetColumnType, ColumnOutsideTheRow_Returns6) {
    Row row(ALL_TYPES);
    row->m_columnCount = 100;
    for (const int column : {-1, 5, INT_MAX, INT_MIN}) {
        const LogCapture log;
        EXPECT_EQ(row->GetColumnType(column), 6);
        EXPECT_THAT(log.Lines(), ElementsAre(OutOfRange("GetColumnType")));
    }
}

TEST(GetColumnType, MissingEntry_Returns6) {
    Row row(ALL_TYPES);
    row.Drop(2);
    const LogCapture log;
    EXPECT_EQ(row->GetColumnType(2), 6);
    EXPECT_THAT(log.Lines(), ElementsAre(NoColumn("GetColumnType")));
}

TEST(GetColumnType, EvictedRow_Returns6) {
    Result result(Letters(4, MEBIBYTE));
    ASSERT_EQ(result->MoveNextStep(), 0);
    ASSERT_EQ(result->CreateCacheTillEnd(), 0);
    ASSERT_EQ(result->MoveFirstStep(), 100);
    const LogCapture log;
    EXPECT_EQ(result->GetColumnType(0), 6);
    EXPECT_THAT(log.Lines(), ElementsAre(OutOfRange("GetColumnType")));
}

TEST(ConvertColumnTypeToString, NamesEveryValue) {
    EXPECT_EQ(CSQLiteCursor::ConvertColumnTypeToString(0), "4-bit integer");
    EXPECT_EQ(CSQLiteCursor::ConvertColumnTypeToString(1), "8-bit integer");
    EXPECT_EQ(CSQLiteCursor::ConvertColumnTypeToString(2), "double");
    EXPECT_EQ(CSQLiteCursor::ConvertColumnTypeToString(3), "text");
    EXPECT_EQ(CSQLiteCursor::ConvertColumnTypeToString(4), "blob");
    EXPECT_EQ(CSQLiteCursor::ConvertColumnTypeToString(5), "NULL");
    for (const int other : {6, 7, -1, INT_MAX, INT_MIN}) {
        EXPECT_EQ(CSQLiteCursor::ConvertColumnTypeToString(other), "undefined");
    }
}

// ---- GetColumnSize ----------------------------------------------------------------------------------------

TEST(GetColumnSize, EveryType_HasItsSize) {
    Row row(ALL_TYPES);
    const LogCapture log;
    EXPECT_EQ(row->GetColumnSize(0), 8);
    EXPECT_EQ(row->GetColumnSize(1), 8);
    EXPECT_EQ(row->GetColumnSize(2), 4);
    EXPECT_EQ(row->GetColumnSize(3), 2);
    EXPECT_EQ(row->GetColumnSize(4), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(GetColumnSize, BeforeTheFirstMove_Returns0) {
    Result result(ALL_TYPES);
    const LogCapture log;
    EXPECT_EQ(result->GetColumnSize(0), 0);
    EXPECT_THAT(log.Lines(), ElementsAre(NotActivated("GetColumnSize")));
}

TEST(GetColumnSize, RangeIsTheResultsColumnCount) {
    Row row(ALL_TYPES);
    row->m_columnCount = 2;
    for (const int column : {-1, 2, 4, INT_MAX, INT_MIN}) {
        const LogCapture log;
        EXPECT_EQ(row->GetColumnSize(column), 0);
        EXPECT_THAT(log.Lines(), ElementsAre(OutOfRange("GetColumnSize")));
    }
    EXPECT_EQ(row->GetColumnSize(1), 8);
}

TEST(GetColumnSize, RangeIsCheckedBeforeTheRow) {
    Row row(ALL_TYPES);
    row->ResetStep();
    const LogCapture log;
    EXPECT_EQ(row->GetColumnSize(5), 0);
    EXPECT_EQ(row->GetColumnSize(4), 0);
    EXPECT_THAT(log.Lines(), ElementsAre(OutOfRange("GetColumnSize"), NoRow("GetColumnSize")));
}

TEST(GetColumnSize, MissingEntry_Returns0) {
    Row row(ALL_TYPES);
    row.Drop(0);
    const LogCapture log;
    EXPECT_EQ(row->GetColumnSize(0), 0);
    EXPECT_THAT(log.Lines(), ElementsAre(NoColumn("GetColumnSize")));
}

// The range is the result's, so an evicted row's missing entries are within it.
TEST(GetColumnSize, EvictedRow_Returns0) {
    Result result(Letters(4, MEBIBYTE));
    ASSERT_EQ(result->MoveNextStep(), 0);
    ASSERT_EQ(result->CreateCacheTillEnd(), 0);
    ASSERT_EQ(result->MoveFirstStep(), 100);
    const LogCapture log;
    EXPECT_EQ(result->GetColumnSize(0), 0);
    EXPECT_THAT(log.Lines(), ElementsAre(NoColumn("GetColumnSize")));
}

// ---- GetColumnName, GetColumnIndex, GetColumnCount, GetCurrentRowIndex ------------------------------------

TEST(GetColumnName, EveryPosition_HasItsName) {
    Row row("SELECT 1 AS id, 2 AS \"two words\", 3 AS \"\", 4 AS \"\xC3\xA9\", 5 + 1");
    const LogCapture log;
    EXPECT_EQ(row->GetColumnName(0), "id");
    EXPECT_EQ(row->GetColumnName(1), "two words");
    EXPECT_EQ(row->GetColumnName(2), "");
    EXPECT_EQ(row->GetColumnName(3), "\xC3\xA9");
    EXPECT_EQ(row->GetColumnName(4), "5 + 1");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(GetColumnName, GivesACopy) {
    Row row("SELECT 1 AS id");
    row->GetColumnName(0) += "changed";
    EXPECT_EQ(row->GetColumnName(0), "id");
}

TEST(GetColumnName, BeforeTheFirstMove_IsEmpty) {
    Result result(ALL_TYPES);
    const LogCapture log;
    EXPECT_EQ(result->GetColumnName(0), "");
    EXPECT_THAT(log.Lines(), ElementsAre(NotActivated("GetColumnName")));
}

TEST(GetColumnName, ResultWithoutRows_HasNoNames) {
    Result result("SELECT 1 AS id WHERE 0");
    ASSERT_EQ(result->MoveNextStep(), -34);
    const LogCapture log;
    EXPECT_EQ(result->GetColumnName(0), "");
    EXPECT_EQ(result->GetColumnName(-1), "");
    EXPECT_THAT(log.Lines(), ElementsAre("I GetColumnName > Column name list is empty",
                                         "I GetColumnName > Column name list is empty"));
}

TEST(GetColumnName, PositionOutsideTheNames_IsEmpty) {
    Row row(ALL_TYPES);
    for (const int column : {-1, 5, INT_MAX, INT_MIN}) {
        const LogCapture log;
        EXPECT_EQ(row->GetColumnName(column), "");
        EXPECT_THAT(log.Lines(), ElementsAre(OutOfRange("GetColumnName")));
    }
}

TEST(GetColumnName, WithoutACurrentRow_HasItsName) {
    Row row("SELECT 1 AS id");
    row->ResetStep();
    EXPECT_EQ(row->GetColumnName(0), "id");
}

TEST(GetColumnIndex, FindsTheFirstEqualName) {
    Row row("SELECT 1 AS id, 2 AS name, 3 AS id, 4 AS \"\"");
    const LogCapture log;
    EXPECT_EQ(row->GetColumnIndex("id"), 0);
    EXPECT_EQ(row->GetColumnIndex("name"), 1);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(GetColumnIndex, OtherCase_GivesTheColumnCount) {
    Row row("SELECT 1 AS x, 2 AS id");
    const LogCapture log;
    EXPECT_EQ(row->GetColumnIndex("ID"), 2);
    EXPECT_EQ(row->GetColumnIndex("ID"), row->GetColumnCount());
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(GetColumnIndex, UnknownName_GivesTheNumberOfNames) {
    Row row("SELECT 1 AS x, 2 AS id");
    const LogCapture log;
    for (const std::string& name :
         {std::string("i"), std::string("id "), std::string("id\0x", 4), std::string(1, '\0')}) {
        EXPECT_EQ(row->GetColumnIndex(name), 2) << name;
    }
    row->m_columnCount = 9;
    EXPECT_EQ(row->GetColumnIndex("unknown"), 2);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(GetColumnIndex, BeforeTheFirstMove_ReturnsMinus1) {
    Result result(ALL_TYPES);
    const LogCapture log;
    EXPECT_EQ(result->GetColumnIndex("i"), -1);
    EXPECT_EQ(result->GetColumnIndex(""), -1);
    EXPECT_THAT(log.Lines(), ElementsAre(NotActivated("GetColumnIndex"), NotActivated("GetColumnIndex")));
}

TEST(GetColumnIndex, NoNames_ReturnsMinus1) {
    Result result("SELECT 1 AS id WHERE 0");
    ASSERT_EQ(result->MoveNextStep(), -34);
    const LogCapture log;
    EXPECT_EQ(result->GetColumnIndex("id"), -1);
    EXPECT_EQ(result->GetColumnIndex(""), -1);
    EXPECT_THAT(log.Lines(), ElementsAre("I GetColumnIndex > Column name list is empty",
                                         "I GetColumnIndex > Column name list is empty"));
}

TEST(GetColumnIndex, EmptyName_ReturnsMinus1) {
    Row row("SELECT 1 AS id, 2 AS \"\"");
    const LogCapture log;
    EXPECT_EQ(row->GetColumnIndex(""), -1);
    EXPECT_THAT(log.Lines(), ElementsAre("I GetColumnIndex > Given column name is NULL string"));
}

TEST(GetColumnCount, GivesTheFieldWithoutChecks) {
    const LogCapture log;
    OpenCursor cursor;
    EXPECT_EQ(cursor.GetColumnCount(), 0);
    cursor.m_columnCount = 12;
    EXPECT_EQ(cursor.GetColumnCount(), 12);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(GetColumnCount, ResultWithoutRows_HasItsColumns) {
    Result result("SELECT 1, 2, 3 WHERE 0");
    EXPECT_EQ(result->GetColumnCount(), 0);
    ASSERT_EQ(result->MoveNextStep(), -34);
    EXPECT_EQ(result->GetColumnCount(), 3);
}

TEST(GetCurrentRowIndex, GivesTheFieldWithoutChecks) {
    const LogCapture log;
    OpenCursor cursor;
    EXPECT_EQ(cursor.GetCurrentRowIndex(), -1);
    cursor.m_currentRowIndex = 12;
    EXPECT_EQ(cursor.GetCurrentRowIndex(), 12);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(ColumnAccess, CursorWithoutStatement_AnswersOnceItHasRows) {
    OpenCursor cursor;
    AppendRow(cursor, MakeColumn(3, "kept"));
    cursor.m_pCache->columnNames.emplace_back("v");
    ASSERT_EQ(cursor.MoveNextStep(), 0);
    EXPECT_EQ(cursors::Text(cursor), "kept");
    EXPECT_EQ(cursor.GetColumnType(0), 3);
    EXPECT_EQ(cursor.GetColumnSize(0), 4);
    EXPECT_EQ(cursor.GetColumnName(0), "v");
    EXPECT_EQ(cursor.GetColumnIndex("v"), 0);
}

}  // namespace

#include <bundle.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <type_traits>
#include <utility>

#include "DecimalComma.h"
#include "ExtrasFixture.h"

namespace {

using support::FailingNew;
using support::Shortage;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(!std::is_copy_constructible<CBundle>::value, "a bundle has one owner");
static_assert(!std::is_copy_assignable<CBundle>::value, "a bundle has one owner");
static_assert(std::is_nothrow_move_constructible<CBundle>::value, "a bundle may be given away");
static_assert(std::is_nothrow_move_assignable<CBundle>::value, "a bundle may be given away");

// What a value is put as is never a matter of a conversion: a pointer is no bool, a character no number.
template <typename T>
constexpr bool CAN_BE_PUT = std::is_constructible<vantry::extras::CValueText, T>::value;
static_assert(CAN_BE_PUT<const char*> && CAN_BE_PUT<std::string> && CAN_BE_PUT<bool> && CAN_BE_PUT<float>);
static_assert(!CAN_BE_PUT<char> && !CAN_BE_PUT<wchar_t> && !CAN_BE_PUT<char16_t>);
static_assert(!CAN_BE_PUT<int*> && !CAN_BE_PUT<const void*> && !CAN_BE_PUT<const unsigned char*>);
static_assert(!CAN_BE_PUT<long double>);

// The entries of a bundle, in its order, as "key=text".
Texts Entries(const CBundle& row) {
    Texts entries;
    bundle_foreach(
        row.Get(),
        [](const char* key, const int type, const keyval_t* value, void* data) {
            void* text = nullptr;
            std::size_t size = 0;
            bundle_keyval_get_basic_val(const_cast<keyval_t*>(value), &text, &size);
            EXPECT_EQ(type, BUNDLE_TYPE_STR);
            EXPECT_EQ(size, std::strlen(static_cast<const char*>(text)) + 1);
            static_cast<Texts*>(data)->push_back(key + std::string("=") + static_cast<const char*>(text));
        },
        &entries);
    return entries;
}

// The text that a value is put as.
template <typename T>
std::string TextOf(const T& value) {
    CBundle row;
    EXPECT_EQ(row.Put("v", value), 0);
    const Texts entries = Entries(row);
    return entries.size() == 1 ? entries[0].substr(2) : "(none)";
}

class Bundle : public ExtrasFixture {
protected:
    // Puts a value, inserts it, and shows what stands in a column: its type and its text.
    template <typename T>
    std::string Stored(const char* column, const T& value) {
        m_raw.Exec("DELETE FROM films");
        CBundle row;
        EXPECT_EQ(row.Put(column, value), 0);
        EXPECT_EQ(m_connection.InsertRequest("films", row.Get()), 0);
        const std::string name = column;
        const Texts rows = Query("SELECT typeof(" + name + "), " + name + " FROM films");
        return rows.size() == 1 ? rows[0] : "(none)";
    }

    double StoredDouble(double value) {
        m_raw.Exec("DELETE FROM films");
        CBundle row;
        EXPECT_EQ(row.Put("rating", value), 0);
        EXPECT_EQ(m_connection.InsertRequest("films", row.Get()), 0);
        const auto cursor = m_connection.SelectRequest("films", {"rating"}, "", "");
        double stored = 0;
        EXPECT_EQ(cursor->MoveNextStep(), 0);
        EXPECT_EQ(cursor->GetDoubleData(0, stored), 0);
        return stored;
    }
};

// ---- Texts --------------------------------------------------------------------------------------------

TEST_F(Bundle, Texts_BindBackUnchanged) {
    for (const std::string text :
         {"", "plain", "it's", "'", "''", "'''", "'quoted'", "'it''s'", "'a' and 'b'", "'open", "close'",
          "\"double\"", "Häxan", " 'x' ", "NULL", "?", "x'00'"}) {
        EXPECT_EQ(Stored("title", text), "text|" + text);
        EXPECT_EQ(Stored("title", text.c_str()), "text|" + text);
        EXPECT_EQ(Stored("note", text), "text|" + text);
    }
}

TEST_F(Bundle, TextBetweenQuotes_IsPutInQuotesAndNoOtherIs) {
    EXPECT_EQ(TextOf("'a'"), "''a''");
    EXPECT_EQ(TextOf("'"), "'''");
    EXPECT_EQ(TextOf("''"), "''''");
    EXPECT_EQ(TextOf("a'"), "a'");
    EXPECT_EQ(TextOf("'a"), "'a");
    EXPECT_EQ(TextOf(""), "");
}

TEST_F(Bundle, TextThatLooksLikeANumber_IsWhatTheColumnMakesOfIt) {
    EXPECT_EQ(Stored("title", "1926"), "text|1926");
    EXPECT_EQ(Stored("year", "1926"), "integer|1926");
    EXPECT_EQ(Stored("year", "007"), "integer|7");
    EXPECT_EQ(Stored("year", "1e3"), "integer|1000");
    EXPECT_EQ(Stored("rating", "7"), "real|7.0");
    EXPECT_EQ(Stored("note", "1926"), "text|1926");
    EXPECT_EQ(Stored("year", "'1926'"), "text|'1926'");
}

TEST_F(Bundle, TextWithAZeroByte_IsRefused) {
    CBundle row;
    EXPECT_EQ(row.Put("title", std::string("a\0b", 3)), -22);
    EXPECT_EQ(row.Put("title", std::string(1, '\0')), -22);
}

TEST_F(Bundle, NullText_IsRefused) {
    CBundle row;
    EXPECT_EQ(row.Put("title", static_cast<const char*>(nullptr)), -22);
    EXPECT_EQ(row.Put("title", nullptr), -22);
}

// ---- Integers -----------------------------------------------------------------------------------------

TEST_F(Bundle, Integers_AreDecimalDigits) {
    EXPECT_EQ(TextOf(0), "0");
    EXPECT_EQ(TextOf(-1), "-1");
    EXPECT_EQ(TextOf(INT_MAX), "2147483647");
    EXPECT_EQ(TextOf(INT_MIN), "-2147483648");
    EXPECT_EQ(TextOf(UINT_MAX), "4294967295");
    EXPECT_EQ(TextOf(LLONG_MAX), "9223372036854775807");
    EXPECT_EQ(TextOf(LLONG_MIN), "-9223372036854775808");
    EXPECT_EQ(TextOf(static_cast<unsigned long long>(LLONG_MAX)), "9223372036854775807");
    EXPECT_EQ(TextOf(-12L), "-12");
    EXPECT_EQ(TextOf(12UL), "12");
    EXPECT_EQ(TextOf(static_cast<short>(-300)), "-300");
    EXPECT_EQ(TextOf(static_cast<unsigned short>(65535)), "65535");
    EXPECT_EQ(TextOf(static_cast<std::uint8_t>(200)), "200");
    EXPECT_EQ(TextOf(static_cast<std::int8_t>(-100)), "-100");
    EXPECT_EQ(TextOf(std::int64_t{1234567890123456789}), "1234567890123456789");
}

TEST_F(Bundle, Integers_BindBackAsIntegers) {
    for (const long long number : {0LL, 1LL, -1LL, 1LL << 53, (1LL << 53) + 1, LLONG_MAX, LLONG_MIN}) {
        EXPECT_EQ(Stored("year", number), "integer|" + std::to_string(number));
    }
}

TEST_F(Bundle, UnsignedAboveTheGreatestInteger_IsRefused) {
    CBundle row;
    EXPECT_EQ(row.Put("year", static_cast<unsigned long long>(LLONG_MAX) + 1), -22);
    EXPECT_EQ(row.Put("year", ULLONG_MAX), -22);
}

TEST_F(Bundle, Booleans_AreOneAndZero) {
    EXPECT_EQ(Stored("year", true), "integer|1");
    EXPECT_EQ(Stored("year", false), "integer|0");
    EXPECT_EQ(TextOf(true), "1");
}

// ---- Floating-point numbers ---------------------------------------------------------------------------

TEST_F(Bundle, Doubles_HaveSeventeenDigitsAndAPoint) {
    EXPECT_EQ(TextOf(0.1), "0.10000000000000001");
    EXPECT_EQ(TextOf(0.5), "0.5");
    EXPECT_EQ(TextOf(7.0), "7.0");
    EXPECT_EQ(TextOf(-7.0), "-7.0");
    EXPECT_EQ(TextOf(0.0), "0.0");
    EXPECT_EQ(TextOf(1e300), "1.0000000000000001e+300");
    EXPECT_EQ(TextOf(0.1 + 0.2), "0.30000000000000004");
    EXPECT_EQ(TextOf(1.0 / 3), "0.33333333333333331");
    EXPECT_EQ(TextOf(123456789012345680.0), "1.2345678901234568e+17");
    EXPECT_EQ(TextOf(0.5F), "0.5");
}

TEST_F(Bundle, Doubles_BindBack) {
    using Limits = std::numeric_limits<double>;
    for (const double number : {0.0, 0.1, -0.1, 0.1 + 0.2, 1.0 / 3, 2.0 / 3, 1e22, 1e-7, 3.5, 7.0, 100.0,
                                9007199254740993.0, Limits::infinity(), -Limits::infinity()}) {
        EXPECT_EQ(StoredDouble(number), number);
    }
}

// SQLite reads a text of many digits in the widest type that the processor has. Where that is no more than a double, the
// last digit may be another one.
TEST_F(Bundle, ManyDoubles_BindBack) {
    std::mt19937_64 numbers(322);
    for (int i = 0; i < 300; ++i) {
        const double number =
            std::ldexp(static_cast<double>(numbers() >> 11U), static_cast<int>(numbers() % 80) - 90);
        const double stored = StoredDouble(number);
        const double allowed = std::numeric_limits<long double>::digits > 53
                                   ? 0
                                   : 1.5 * number * std::numeric_limits<double>::epsilon();
        EXPECT_LE(std::fabs(stored - number), allowed) << number;
    }
}

TEST_F(Bundle, DoubleInAnIntegerColumn_IsWhatTheColumnMakesOfIt) {
    EXPECT_EQ(Stored("year", 1926.0), "integer|1926");
    EXPECT_EQ(Stored("year", 1926.5), "real|1926.5");
    EXPECT_EQ(Stored("note", 7.0), "text|7.0");
}

TEST_F(Bundle, NotANumber_IsRefused) {
    CBundle row;
    EXPECT_EQ(row.Put("rating", std::numeric_limits<double>::quiet_NaN()), -22);
}

TEST_F(Bundle, Infinities_AreNumbersThatAreTooGreat) {
    EXPECT_EQ(TextOf(std::numeric_limits<double>::infinity()), "9e999");
    EXPECT_EQ(TextOf(-std::numeric_limits<double>::infinity()), "-9e999");
}

TEST_F(Bundle, LocaleWithADecimalComma_IsNotFollowed) {
    const DecimalComma locale;
    if (!locale.IsMade()) {
        GTEST_SKIP() << "no locale with a decimal comma can be made here";
    }
    char written[16];
    std::snprintf(written, sizeof written, "%g", 0.5);
    ASSERT_STREQ(written, "0,5");
    EXPECT_EQ(TextOf(0.5), "0.5");
    EXPECT_EQ(TextOf(1234567.25), "1234567.25");
    EXPECT_EQ(TextOf(1e300), "1.0000000000000001e+300");
    EXPECT_EQ(TextOf(1.5e-9), "1.5e-09");
    EXPECT_EQ(TextOf(0.1 + 0.2), "0.30000000000000004");
    EXPECT_EQ(TextOf(1234567), "1234567");
    EXPECT_EQ(StoredDouble(1234567.25), 1234567.25);
}

// ---- Keys ---------------------------------------------------------------------------------------------

TEST_F(Bundle, Keys_StandInTheirOrder) {
    CBundle row;
    row.Put("b", 1);
    row.Put(std::string("a"), "x");
    row.Put("c", true);
    EXPECT_THAT(Entries(row), ElementsAre("b=1", "a=x", "c=1"));
    EXPECT_EQ(row.Result(), 0);
}

TEST_F(Bundle, RepeatedKey_ReplacesTheValueInItsPlace) {
    CBundle row;
    row.Put("a", 1);
    row.Put("b", 2);
    row.Put("c", 3);
    EXPECT_EQ(row.Put("b", "'two'"), 0);
    EXPECT_THAT(Entries(row), ElementsAre("a=1", "b=''two''", "c=3"));
    EXPECT_EQ(row.Put(std::string("a"), ""), 0);
    EXPECT_THAT(Entries(row), ElementsAre("a=", "b=''two''", "c=3"));
}

TEST_F(Bundle, KeyThatIsNone_IsRefused) {
    for (const char* key : {static_cast<const char*>(nullptr), ""}) {
        CBundle row;
        EXPECT_EQ(row.Put(key, 1), -22);
        EXPECT_EQ(row.Result(), -22);
    }
    CBundle row;
    EXPECT_EQ(row.Put(std::string("a\0b", 3), 1), -22);
    EXPECT_EQ(row.Put(std::string(), 1), -22);
}

// ---- The bundle ---------------------------------------------------------------------------------------

TEST_F(Bundle, EmptyBundle_IsNull) {
    const CBundle row;
    EXPECT_EQ(row.Get(), nullptr);
    EXPECT_EQ(row.Result(), 0);
    EXPECT_EQ(m_connection.InsertRequest("films", row.Get()), -22);
}

TEST_F(Bundle, FailedPut_IsRememberedAndNoRowIsWritten) {
    CBundle row;
    EXPECT_EQ(row.Put("title", "one"), 0);
    EXPECT_EQ(row.Put("rating", std::nan("")), -22);
    EXPECT_EQ(row.Put("year", 1926), 0);
    EXPECT_EQ(row.Result(), -22);
    EXPECT_EQ(row.Get(), nullptr);
    EXPECT_EQ(m_connection.InsertRequest("films", row.Get()), -22);
    EXPECT_THAT(Titles(), IsEmpty());
}

TEST_F(Bundle, Cleared_BeginsAnew) {
    CBundle row;
    row.Put("title", nullptr);
    row.Clear();
    EXPECT_EQ(row.Result(), 0);
    EXPECT_EQ(row.Get(), nullptr);
    EXPECT_EQ(row.Put("year", 1), 0);
    EXPECT_THAT(Entries(row), ElementsAre("year=1"));
}

TEST_F(Bundle, Moved_TakesColumnsAndResult) {
    CBundle first;
    first.Put("a", 1);
    bundle* const before = first.Get();
    CBundle second(std::move(first));
    EXPECT_EQ(second.Get(), before);
    EXPECT_EQ(first.Get(), nullptr);  // NOLINT(bugprone-use-after-move): what it is is told
    EXPECT_EQ(first.Result(), 0);
    EXPECT_EQ(first.Put("b", 2), 0);
    first.Put("c", nullptr);
    second = std::move(first);
    EXPECT_EQ(second.Result(), -22);
    EXPECT_EQ(first.Result(), 0);  // NOLINT(bugprone-use-after-move): what it is is told
    EXPECT_EQ(first.Get(), nullptr);
}

TEST_F(Bundle, MovedAfterAFailure_TakesTheFailure) {
    CBundle first;
    first.Put("a", nullptr);
    const CBundle second(std::move(first));
    EXPECT_EQ(second.Result(), -22);
    EXPECT_EQ(first.Result(), 0);  // NOLINT(bugprone-use-after-move): what it is is told
}

TEST_F(Bundle, MovedOntoItself_StaysAsItIs) {
    CBundle row;
    row.Put("a", 1);
    CBundle& same = row;
    row = std::move(same);
    EXPECT_THAT(Entries(row), ElementsAre("a=1"));
}

TEST_F(Bundle, UpdateWithArguments_TakesIt) {
    m_raw.Exec("INSERT INTO films (title) VALUES ('''one''')");
    CBundle row;
    row.Put("title", "'two'");
    EXPECT_EQ(m_connection.UpdateRequest("films", row.Get(), "", {}), 0);
    EXPECT_THAT(Titles(), ElementsAre("'two'"));
}

TEST_F(Bundle, NoMemory_Minus12AndNoBundle) {
    const std::string text = "'a text that is longer than what a string keeps in itself'";
    int failures = 0;
    for (int number = 1; number < 40; ++number) {
        CBundle row;
        row.Put("a", 1);
        FailingNew shortage(Shortage::OneOfNew, number);
        const int replaced = row.Put("a", text);
        const int added = row.Put("b", text);
        shortage.Stop();
        if (shortage.Failed() == 0) {
            EXPECT_EQ(row.Result(), 0);
            EXPECT_EQ(failures, number - 1);
            return;
        }
        ++failures;
        EXPECT_EQ(row.Result(), -12) << number;
        EXPECT_TRUE(replaced == -12 || added == -12) << number;
        EXPECT_EQ(row.Get(), nullptr);
    }
    FAIL() << "it never ran through";
}

}  // namespace

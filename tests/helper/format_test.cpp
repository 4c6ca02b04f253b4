#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <locale>
#include <string>
#include <type_traits>

#include "ContentHelper.h"
#include "FailingNew.h"
#include "LogCapture.h"
#include "TilesModel.h"

namespace {

using support::FailingNew;
using support::LogCapture;
using support::Shortage;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// ---- SQLReplace ---------------------------------------------------------------------------------------

struct Replacement {
    const char* source;
    const char* from;
    const char* to;
    const char* result;
};

class SQLReplace : public testing::TestWithParam<Replacement> {};

TEST_P(SQLReplace, ReplacesEveryOccurrenceOnce) {
    const LogCapture log;
    const Replacement& each = GetParam();
    EXPECT_EQ(CContentHelper::SQLReplace(each.source, each.from, each.to), each.result);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Texts, SQLReplace,
    testing::Values(Replacement{"aaa", "a", "aa", "aaaaaa"}, Replacement{"", "a", "b", ""},
                    Replacement{"abc", "x", "y", "abc"}, Replacement{"abc", "abc", "", ""},
                    Replacement{"abab", "ab", "b", "bb"}, Replacement{"aaaa", "aa", "a", "aa"},
                    Replacement{"aaa", "aa", "b", "ba"}, Replacement{"xax", "a", "xax", "xxaxx"},
                    Replacement{"aabb", "ab", "", "ab"}, Replacement{"a", "aa", "b", "a"},
                    Replacement{"start and end start", "start", "s", "s and end s"}));

TEST(SQLReplace, EmptyFrom_ReplacesNothing) {
    EXPECT_EQ(CContentHelper::SQLReplace("abc", "", "x"), "abc");
    EXPECT_EQ(CContentHelper::SQLReplace("", "", ""), "");
}

TEST(SQLReplaceTexts, ZeroBytes_AreOrdinary) {
    using namespace std::string_literals;
    EXPECT_EQ(CContentHelper::SQLReplace("a\0b\0c"s, "\0"s, "--"s), "a--b--c");
    EXPECT_EQ(CContentHelper::SQLReplace("a-b"s, "-"s, "\0\0"s), "a\0\0b"s);
}

TEST(SQLReplaceTexts, TheSource_IsLeftAlone) {
    const std::string source = "it's";
    EXPECT_EQ(CContentHelper::SQLReplace(source, "'", "''"), "it''s");
    EXPECT_EQ(source, "it's");
}

// ---- ToSQLFormat --------------------------------------------------------------------------------------

TEST(ToSQLFormat, Text_DoublesSingleQuotes_AndAddsNone) {
    const std::pair<const char*, const char*> cases[] = {{"O'Brien", "O''Brien"},
                                                         {"''", "''''"},
                                                         {"'", "''"},
                                                         {"", ""},
                                                         {"plain", "plain"},
                                                         {"'quoted'", "''quoted''"},
                                                         {"\"double\" `tick` \\", "\"double\" `tick` \\"},
                                                         {"NULL", "NULL"},
                                                         {"100% %s", "100% %s"},
                                                         {"\u00fc'\u30bf", "\u00fc''\u30bf"}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.first);
        EXPECT_EQ(CContentHelper::ToSQLFormat(std::string(each.first)), each.second);
        EXPECT_EQ(CContentHelper::ToSQLFormat(each.first), each.second);
    }
}

TEST(ToSQLFormat, TextWithZeroByte_IsKeptWhole_AndAPointerEndsThere) {
    using namespace std::string_literals;
    const std::string text = "a\0'b"s;
    EXPECT_EQ(CContentHelper::ToSQLFormat(text), "a\0''b"s);
    EXPECT_EQ(CContentHelper::ToSQLFormat(text.c_str()), "a");
}

TEST(ToSQLFormat, NullPointer_GivesTheEmptyText) {
    const LogCapture log;
    EXPECT_EQ(CContentHelper::ToSQLFormat(static_cast<const char*>(nullptr)), "");
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(ToSQLFormat, Bool_IsOneOrZero) {
    EXPECT_EQ(CContentHelper::ToSQLFormat(true), "1");
    EXPECT_EQ(CContentHelper::ToSQLFormat(false), "0");
}

TEST(ToSQLFormat, Character_IsATextOfOne) {
    EXPECT_EQ(CContentHelper::ToSQLFormat('\''), "''");
    EXPECT_EQ(CContentHelper::ToSQLFormat('a'), "a");
    EXPECT_EQ(CContentHelper::ToSQLFormat('7'), "7");
    EXPECT_EQ(CContentHelper::ToSQLFormat('"'), "\"");
    EXPECT_EQ(CContentHelper::ToSQLFormat('\0'), std::string(1, '\0'));
    EXPECT_EQ(CContentHelper::ToSQLFormat('\xff'), "\xff");
}

TEST(ToSQLFormat, Int_IsDecimal) {
    const std::pair<int, const char*> cases[] = {{-5, "-5"},
                                                 {0, "0"},
                                                 {7, "7"},
                                                 {1234567, "1234567"},
                                                 {INT_MAX, "2147483647"},
                                                 {INT_MIN, "-2147483648"}};
    for (const auto& each : cases) {
        EXPECT_EQ(CContentHelper::ToSQLFormat(each.first), each.second);
    }
}

TEST(ToSQLFormat, Long_IsDecimal) {
    const std::pair<long, const char*> cases[] = {{-5L, "-5"},
                                                  {0L, "0"},
                                                  {1234567L, "1234567"},
                                                  {2147483647L, "2147483647"},
                                                  {-2147483647L - 1, "-2147483648"}};
    for (const auto& each : cases) {
        EXPECT_EQ(CContentHelper::ToSQLFormat(each.first), each.second);
    }
}

TEST(ToSQLFormat, LongLong_WritesAll64Bits) {
    const std::pair<long long, const char*> cases[] = {{-5LL, "-5"},
                                                       {0LL, "0"},
                                                       {4294967296LL, "4294967296"},
                                                       {LLONG_MAX, "9223372036854775807"},
                                                       {LLONG_MIN, "-9223372036854775808"}};
    for (const auto& each : cases) {
        EXPECT_EQ(CContentHelper::ToSQLFormat(each.first), each.second);
    }
    EXPECT_EQ(CContentHelper::ToSQLFormat(LLONG_MIN).size(), 20U);
}

TEST(ToSQLFormat, Double_HasSixSignificantDigits) {
    const std::pair<double, const char*> cases[] = {{3.0, "3"},
                                                    {0.1, "0.1"},
                                                    {1234567.0, "1.23457e+06"},
                                                    {1e-7, "1e-07"},
                                                    {0.0, "0"},
                                                    {-2.5, "-2.5"},
                                                    {123456.0, "123456"},
                                                    {999999.5, "1e+06"},
                                                    {1000000.0, "1e+06"},
                                                    {100000.0, "100000"},
                                                    {0.0001, "0.0001"},
                                                    {0.00001, "1e-05"},
                                                    {1.0 / 3, "0.333333"},
                                                    {1e100, "1e+100"},
                                                    {-1e-300, "-1e-300"},
                                                    {3.14159265, "3.14159"}};
    for (const auto& each : cases) {
        EXPECT_EQ(CContentHelper::ToSQLFormat(each.first), each.second);
    }
    EXPECT_EQ(CContentHelper::ToSQLFormat(std::numeric_limits<double>::infinity()), "inf");
    EXPECT_EQ(CContentHelper::ToSQLFormat(std::nan("")), "nan");
}

TEST(ToSQLFormat, AnyForm_LogsNothing) {
    const LogCapture log;
    CContentHelper::ToSQLFormat("it's");
    CContentHelper::ToSQLFormat(std::string("it's"));
    CContentHelper::ToSQLFormat('\'');
    CContentHelper::ToSQLFormat(true);
    CContentHelper::ToSQLFormat(1);
    CContentHelper::ToSQLFormat(1L);
    CContentHelper::ToSQLFormat(1LL);
    CContentHelper::ToSQLFormat(1.5);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

// Groups digits by three and writes a comma for the point, as many a country does.
class CommaNumbers : public std::numpunct<char> {
protected:
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(ToSQLFormat, Numbers_DoNotDependOnTheGlobalLocale) {
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new CommaNumbers));
    const std::string texts[] = {CContentHelper::ToSQLFormat(-1234567), CContentHelper::ToSQLFormat(1234567L),
                                 CContentHelper::ToSQLFormat(LLONG_MIN), CContentHelper::ToSQLFormat(1234.5)};
    std::locale::global(before);
    EXPECT_THAT(texts, ElementsAre("-1234567", "1234567", "-9223372036854775808", "1234.5"));
}

// ---- GetTableNameFromUri ------------------------------------------------------------------------------

struct UriAndTable {
    std::string uri;
    std::string table;
};

TEST(GetTableNameFromUri, GivesWhatFollowsTheLastSlash) {
    const UriAndTable cases[] = {{"a/b/c", "c"},
                                 {"", ""},
                                 {"/", ""},
                                 {"//", ""},
                                 {"tiles", "tiles"},
                                 {"/tiles", "tiles"},
                                 {"tiles/", ""},
                                 {"a//b", "b"},
                                 {"content://com.brenwick.tiles/tiles", "tiles"},
                                 {"content://com.brenwick.tiles/accelerators", "accelerators"},
                                 {"content://com.brenwick.tiles/tiles/", ""},
                                 {"content://com.brenwick.tiles", "com.brenwick.tiles"},
                                 {"a/with blank", "with blank"},
                                 {"a/it's", "it's"},
                                 {"a/100%s", "100%s"},
                                 {"a/\u30bf\u30a4\u30eb", "\u30bf\u30a4\u30eb"},
                                 {std::string("a\0/b\0c", 6), std::string("b\0c", 3)}};
    const LogCapture log;
    for (const UriAndTable& each : cases) {
        SCOPED_TRACE(each.uri);
        EXPECT_EQ(CContentHelper::GetTableNameFromUri(each.uri), each.table);
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(GetTableNameFromUri, OfTheTilesContent_GivesItsTables) {
    EXPECT_EQ(CContentHelper::GetTableNameFromUri(TilesModel::Tiles::CONTENT_URI), "tiles");
    EXPECT_EQ(CContentHelper::GetTableNameFromUri(TilesModel::Tiles::CONTENT_BY_PARENT_URI),
              "tiles_by_parent");
    EXPECT_EQ(CContentHelper::GetTableNameFromUri(TilesModel::Tiles::CONTENT_BY_SECTION_URI),
              "tiles_by_module");
    EXPECT_EQ(CContentHelper::GetTableNameFromUri(TilesModel::Accelerators::CONTENT_URI), "accelerators");
    EXPECT_EQ(CContentHelper::GetTableNameFromUri(TilesModel::Sections::CONTENT_URI), "sections");
}

// The guard against these characters looks at the result, which is still empty: none is refused.
class GetTableNameFromUriGuard : public testing::TestWithParam<char> {};

TEST_P(GetTableNameFromUriGuard, Character_IsYieldedUnchanged) {
    const std::string character(1, GetParam());
    EXPECT_EQ(CContentHelper::GetTableNameFromUri("a/b" + character + "c"), "b" + character + "c");
    EXPECT_EQ(CContentHelper::GetTableNameFromUri("a/" + character), character);
    EXPECT_EQ(CContentHelper::GetTableNameFromUri(character), character);
    EXPECT_EQ(CContentHelper::GetTableNameFromUri(character + "/c"), "c");
}

INSTANTIATE_TEST_SUITE_P(Characters, GetTableNameFromUriGuard,
                         testing::Values('?', '*', '#', '-', '+', '(', ')', '[', ']', '.', '&', '^', '$', '@',
                                         '!', '_', '~', '=', '\\', '|'));

// ---- All of them --------------------------------------------------------------------------------------

TEST(TextForSQL, NeedsNoHelperObject) {
    static_assert(
        std::is_same<decltype(&CContentHelper::SQLReplace),
                     std::string (*)(const std::string&, const std::string&, const std::string&)>::value,
        "a static member");
    static_assert(std::is_same<decltype(&CContentHelper::GetTableNameFromUri),
                               std::string (*)(const std::string&)>::value,
                  "a static member");
    std::string (*const ofDouble)(double) = &CContentHelper::ToSQLFormat;
    EXPECT_EQ(ofDouble(0.5), "0.5");
}

TEST(TextForSQL, MemoryShortage_GivesTheEmptyTextAndALine) {
    const std::string text(100, '\'');
    const std::string uri = "a/" + std::string(100, 'b');
    const std::string quote = "'";
    const std::string quotes = "''";
    const LogCapture log;
    const auto starved = [&](auto call) {
        const FailingNew shortage(Shortage::AllOfNew, 1);
        return call().empty();
    };
    EXPECT_TRUE(starved([&] { return CContentHelper::SQLReplace(text, quote, quotes); }));
    EXPECT_TRUE(starved([&] { return CContentHelper::ToSQLFormat(text); }));
    EXPECT_TRUE(starved([&] { return CContentHelper::ToSQLFormat(text.c_str()); }));
    EXPECT_TRUE(starved([&] { return CContentHelper::GetTableNameFromUri(uri); }));
    EXPECT_THAT(log.Lines(), ElementsAre("I SQLReplace > The memory is insufficient",
                                         "I SQLReplace > The memory is insufficient",
                                         "I ToSQLFormat > The memory is insufficient",
                                         "I GetTableNameFromUri > The memory is insufficient"));
}

TEST(TextForSQL, MemoryShortageAtAnyAllocation_GivesTheWholeTextOrNone) {
    const std::string quoted(100, '\'');
    const auto formats = {
        std::function<std::string()>([] { return CContentHelper::ToSQLFormat(LLONG_MIN); }),
        std::function<std::string()>([&] { return CContentHelper::ToSQLFormat(quoted); }),
        std::function<std::string()>([&] { return CContentHelper::ToSQLFormat(quoted.c_str()); })};
    for (const auto& format : formats) {
        const std::string whole = format();
        for (int number = 1;; ++number) {
            const LogCapture log;
            FailingNew failing(Shortage::OneOfNew, number);
            const std::string text = format();
            failing.Stop();
            if (failing.Failed() == 0) {
                EXPECT_GT(number, 1);
                break;
            }
            EXPECT_THAT(text, AnyOf("", whole));
            EXPECT_THAT(log.Lines(), SizeIs(text.empty() ? 1 : 0));
        }
    }
}

}  // namespace

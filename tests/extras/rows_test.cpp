#include <climits>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <utility>

#include "ExtrasFixture.h"
#include "SharedQueryObject.h"
#include "SharedResults.h"

namespace {

using support::FailingNew;
using support::LogCapture;
using support::Shortage;
using support::Sleeps;
using support::SqliteFaults;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(!std::is_copy_constructible<CRows>::value, "two would take each other's rows");

// ---- Maybe --------------------------------------------------------------------------------------------

TEST(Maybe, Value_IsThere) {
    const CMaybe<int> seven(7);
    EXPECT_TRUE(seven.HasValue());
    EXPECT_TRUE(static_cast<bool>(seven));
    EXPECT_EQ(seven.Value(), 7);
    EXPECT_EQ(seven.ValueOr(8), 7);
    EXPECT_EQ(seven.Result(), 0);
}

TEST(Maybe, None_IsNot) {
    const CMaybe<std::string> none;
    EXPECT_FALSE(none.HasValue());
    EXPECT_FALSE(static_cast<bool>(none));
    EXPECT_EQ(none.Value(), "");
    EXPECT_EQ(none.ValueOr("other"), "other");
    EXPECT_EQ(none.Result(), -22);
    EXPECT_EQ(CMaybe<int>::None(-14).Result(), -14);
    EXPECT_FALSE(CMaybe<int>::None(0).HasValue());
}

TEST(Maybe, FalseIsAValue) { EXPECT_TRUE(CMaybe<bool>(false).HasValue()); }

TEST(Maybe, Temporary_GivesItsValueAway) {
    const std::string text(100, 'x');
    EXPECT_EQ(CMaybe<std::string>(text).Value(), text);
    EXPECT_EQ(CMaybe<std::string>(text).ValueOr(""), text);
    static_assert(!std::is_reference<decltype(CMaybe<std::string>().Value())>::value, "it would dangle");
}

// ---- Row ----------------------------------------------------------------------------------------------

class Row : public ExtrasFixture {
protected:
    // The cursor on the one row of a select.
    std::shared_ptr<ISQLiteCursor> On(const std::string& columns) {
        auto cursor = m_connection.SelectRequest("(SELECT " + columns + ")", {}, "", "");
        EXPECT_EQ(cursor->MoveNextStep(), 0);
        m_log.Clear();
        return cursor;
    }
};

TEST_F(Row, Values_ByPositionAndByName) {
    const auto cursor = On("7 AS n, 'seven' AS t, 7.5 AS d, x'0700ff' AS b");
    const CRow row(*cursor);
    EXPECT_EQ(row.Get<int>(0).Value(), 7);
    EXPECT_EQ(row.Get<long long>("n").Value(), 7);
    EXPECT_EQ(row.Get<std::string>(1).Value(), "seven");
    EXPECT_EQ(row.Get<std::string>(std::string("t")).Value(), "seven");
    EXPECT_EQ(row.Get<double>("d").Value(), 7.5);
    EXPECT_THAT(row.Get<std::vector<unsigned char>>("b").Value(), ElementsAre(7, 0, 255));
    EXPECT_EQ(&row.Cursor(), cursor.get());
    EXPECT_THAT(m_log.Lines(), IsEmpty());
}

TEST_F(Row, Null_IsNoValueOfAnyType) {
    const auto cursor = On("NULL AS v");
    const CRow row(*cursor);
    EXPECT_FALSE(row.Get<int>("v"));
    EXPECT_EQ(row.Get<long long>(0).Result(), -22);
    EXPECT_EQ(row.Get<bool>(0).Result(), -22);
    EXPECT_EQ(row.Get<double>(0).Result(), -22);
    EXPECT_EQ(row.Get<std::string>(0).Result(), -22);
    EXPECT_EQ(row.Get<std::vector<unsigned char>>(0).Result(), -22);
    EXPECT_EQ(row.Get<std::string>(0).ValueOr("none"), "none");
    EXPECT_TRUE(row.IsNull(0));
    EXPECT_TRUE(row.IsNull("v"));
    EXPECT_TRUE(row.IsNull(std::string("v")));
}

TEST_F(Row, WrongType_IsNoValue) {
    const auto cursor = On("7 AS n, '7' AS t, 7.0 AS d, x'37' AS b");
    const CRow row(*cursor);
    EXPECT_EQ(row.Get<double>("n").Result(), -22);
    EXPECT_EQ(row.Get<std::string>("n").Result(), -22);
    EXPECT_EQ(row.Get<int>("t").Result(), -22);
    EXPECT_EQ(row.Get<bool>("t").Result(), -22);
    EXPECT_EQ(row.Get<std::vector<unsigned char>>("t").Result(), -22);
    EXPECT_EQ(row.Get<long long>("d").Result(), -22);
    EXPECT_EQ(row.Get<std::string>("b").Result(), -22);
    EXPECT_FALSE(row.IsNull("n"));
}

TEST_F(Row, IntegerThatDoesNotFit_IsNoValue) {
    const auto cursor = On("2147483648 AS big, -1 AS negative, 256 AS byte, -9223372036854775808 AS least");
    const CRow row(*cursor);
    EXPECT_EQ(row.Get<int>("big").Result(), -22);
    EXPECT_EQ(row.Get<unsigned>("big").Value(), 2147483648U);
    EXPECT_EQ(row.Get<long long>("big").Value(), 2147483648LL);
    EXPECT_EQ(row.Get<int>("negative").Value(), -1);
    EXPECT_EQ(row.Get<unsigned>("negative").Result(), -22);
    EXPECT_EQ(row.Get<unsigned long long>("negative").Result(), -22);
    EXPECT_EQ(row.Get<std::uint8_t>("negative").Result(), -22);
    EXPECT_EQ(row.Get<std::uint8_t>("byte").Result(), -22);
    EXPECT_EQ(row.Get<std::int8_t>("negative").Value(), -1);
    EXPECT_EQ(row.Get<short>("byte").Value(), 256);
    EXPECT_EQ(row.Get<long long>("least").Value(), LLONG_MIN);
    EXPECT_EQ(row.Get<short>("least").Result(), -22);
}

TEST_F(Row, Booleans_AreIntegersThatAreNotZero) {
    const auto cursor = On("0 AS no, 1 AS yes, -4 AS other, 4294967296 AS wide");
    const CRow row(*cursor);
    EXPECT_TRUE(row.Get<bool>("no").HasValue());
    EXPECT_FALSE(row.Get<bool>("no").Value());
    EXPECT_TRUE(row.Get<bool>("yes").Value());
    EXPECT_TRUE(row.Get<bool>("other").Value());
    EXPECT_TRUE(row.Get<bool>("wide").Value());
}

TEST_F(Row, EmptyTextAndBlob_AreValues) {
    const auto cursor = On("'' AS t, x'' AS b");
    const CRow row(*cursor);
    EXPECT_TRUE(row.Get<std::string>("t").HasValue());
    EXPECT_TRUE(row.Get<std::vector<unsigned char>>("b").HasValue());
    EXPECT_THAT(row.Get<std::vector<unsigned char>>("b").Value(), IsEmpty());
    EXPECT_FALSE(row.IsNull("b"));
}

TEST_F(Row, ColumnThatDoesNotExist_IsNoValueAndTheLogTells) {
    const auto cursor = On("7 AS n");
    const CRow row(*cursor);
    for (const int result :
         {row.Get<int>("m").Result(), row.Get<int>(1).Result(), row.Get<int>(-1).Result(),
          row.Get<int>("").Result(), row.Get<int>(static_cast<const char*>(nullptr)).Result(),
          row.Get<std::vector<unsigned char>>(1).Result()}) {
        EXPECT_EQ(result, -22);
    }
    EXPECT_EQ(m_log.Count("I GetInteger64Data > Given column index is out of range"), 5);
    EXPECT_FALSE(row.IsNull("m"));
}

TEST_F(Row, NoMemory_Minus12) {
    const auto cursor =
        On("'a text that is longer than what a string keeps in itself' AS t, zeroblob(100) AS b");
    const CRow row(*cursor);
    {
        FailingNew shortage(Shortage::AllOfNew, 1);
        const int text = row.Get<std::string>(0).Result();
        const int blob = row.Get<std::vector<unsigned char>>(1).Result();
        // The name needs memory of its own.
        const int named =
            row.Get<std::string>("a name that is longer than what a string keeps in itself").Result();
        shortage.Stop();
        EXPECT_EQ(text, -12);
        EXPECT_EQ(blob, -12);
        EXPECT_EQ(named, -22);
    }
    EXPECT_EQ(row.Get<std::vector<unsigned char>>(1).Value().size(), 100U);
}

// ---- Rows ---------------------------------------------------------------------------------------------

class Rows : public ExtrasFixture {
protected:
    Rows() { m_raw.Exec("INSERT INTO films (title, year) VALUES ('one', 1), ('two', NULL), ('three', 3)"); }

    std::shared_ptr<ISQLiteCursor> Live(const std::string& where = "") {
        return m_connection.SelectRequest("films", {"title", "year"}, where, "_id", false);
    }
    std::shared_ptr<ISQLiteCursor> Preloaded(const std::string& where = "") {
        return m_connection.SelectRequest("films", {"title", "year"}, where, "_id");
    }
    // More than a cursor's cache holds: 30 rows of 100 kB.
    void AddLargeRows() {
        m_raw.Exec(
            "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c LIMIT 30) "
            "INSERT INTO films (title, note) SELECT i, zeroblob(100000) FROM c");
    }
    static Texts TitlesOf(CRows& rows) {
        Texts titles;
        for (auto row : rows) {
            titles.push_back(row.Get<std::string>("title").ValueOr("(none)"));
        }
        return titles;
    }
};

TEST_F(Rows, LiveCursor_AllRowsAndThenMinus34) {
    CRows rows(Live());
    EXPECT_EQ(rows.Result(), 0);
    EXPECT_FALSE(rows.IsAtEnd());
    EXPECT_THAT(TitlesOf(rows), ElementsAre("one", "two", "three"));
    EXPECT_EQ(rows.Result(), -34);
    EXPECT_TRUE(rows.IsAtEnd());
}

TEST_F(Rows, PreloadedCursor_AllRowsAndThenMinus22) {
    CRows rows(Preloaded());
    EXPECT_THAT(TitlesOf(rows), ElementsAre("one", "two", "three"));
    EXPECT_EQ(rows.Result(), -22);
    EXPECT_TRUE(rows.IsAtEnd());
}

TEST_F(Rows, FetchedCursor_AllRowsAndThenMinus22) {
    std::string name;
    int size = 0;
    ASSERT_EQ(ISharedQueryObject::StoreCursor(Preloaded(), support::SharedKey(), name, size), 0);
    CRows rows(ISharedQueryObject::GetCursor(name, size));
    EXPECT_THAT(TitlesOf(rows), ElementsAre("one", "two", "three"));
    EXPECT_EQ(rows.Result(), -22);
    EXPECT_TRUE(rows.IsAtEnd());
}

TEST_F(Rows, NoRows_EndAtOnce) {
    CRows live(Live("year = 7"));
    EXPECT_THAT(TitlesOf(live), IsEmpty());
    EXPECT_EQ(live.Result(), -34);
    CRows preloaded(Preloaded("year = 7"));
    EXPECT_THAT(TitlesOf(preloaded), IsEmpty());
    EXPECT_EQ(preloaded.Result(), -22);
    EXPECT_TRUE(preloaded.IsAtEnd());
    std::string name;
    int size = 0;
    ASSERT_EQ(ISharedQueryObject::StoreCursor(Preloaded("year = 7"), support::SharedKey(), name, size), 0);
    CRows fetched(ISharedQueryObject::GetCursor(name, size));
    EXPECT_THAT(TitlesOf(fetched), IsEmpty());
    EXPECT_EQ(fetched.Result(), -22);
    EXPECT_TRUE(fetched.IsAtEnd());
}

TEST_F(Rows, EmptyPointer_NoRowsAndMinus14) {
    CRows rows(m_connection.SelectRequest("no_such_table", {}, "", ""));
    EXPECT_THAT(TitlesOf(rows), IsEmpty());
    EXPECT_EQ(rows.Result(), -14);
    EXPECT_FALSE(rows.IsAtEnd());
}

TEST_F(Rows, Temporary_LivesAsLongAsTheLoop) {
    int seen = 0;
    for (auto row : CRows(Live())) {
        seen += row.Get<std::string>(0).HasValue() ? 1 : 0;
    }
    EXPECT_EQ(seen, 3);
    EXPECT_EQ(Outstanding(), 0);
}

TEST_F(Rows, SecondLoopAfterTheEnd_DoesNotStartOver) {
    for (const auto& cursor : {Live(), Preloaded()}) {
        CRows rows(cursor);
        TitlesOf(rows);
        const int ended = rows.Result();
        EXPECT_THAT(TitlesOf(rows), IsEmpty());
        EXPECT_EQ(rows.Result(), ended);
        EXPECT_EQ(cursor->GetNumbersOfRows(), 3);
    }
}

TEST_F(Rows, LoopThatWasLeft_GoesOnWithTheNextRow) {
    CRows rows(Live());
    for (auto row : rows) {
        EXPECT_EQ(row.Get<std::string>(0).Value(), "one");
        break;
    }
    EXPECT_EQ(rows.Result(), 0);
    EXPECT_FALSE(rows.IsAtEnd());
    EXPECT_THAT(TitlesOf(rows), ElementsAre("two", "three"));
}

TEST_F(Rows, CursorThatWasMoved_GoesOnFromThere) {
    const auto cursor = Preloaded();
    cursor->MoveNextStep();
    CRows rows(cursor);
    EXPECT_THAT(TitlesOf(rows), ElementsAre("two", "three"));
}

TEST_F(Rows, NullsAmongValues) {
    std::vector<long long> years;
    for (auto row : CRows(Preloaded())) {
        years.push_back(row.Get<long long>("year").ValueOr(-1));
    }
    EXPECT_THAT(years, ElementsAre(1, -1, 3));
}

TEST_F(Rows, FailureOfAStep_EndsTheRowsAndIsTold) {
    SqliteFaults faults;
    faults.Answer("sqlite3_step", SQLITE_IOERR, 1, 2);
    CRows rows(Live());
    EXPECT_THAT(TitlesOf(rows), ElementsAre("one", "two"));
    EXPECT_EQ(rows.Result(), SQLITE_IOERR);
    EXPECT_FALSE(rows.IsAtEnd());
    EXPECT_THAT(TitlesOf(rows), IsEmpty());
    EXPECT_EQ(faults.Calls("sqlite3_step"), 3);
}

TEST_F(Rows, LockInTheMiddle_IsWaitedForAndThenTold) {
    SqliteFaults faults;
    faults.Answer("sqlite3_step", SQLITE_BUSY, 31, 1);
    const Sleeps sleeps;
    CRows rows(Live());
    EXPECT_THAT(TitlesOf(rows), ElementsAre("one"));
    EXPECT_EQ(rows.Result(), SQLITE_BUSY);
    EXPECT_FALSE(rows.IsAtEnd());
    EXPECT_EQ(sleeps.Count(), 30);
}

TEST_F(Rows, NoMemoryForARow_EndsTheRowsWithMinus12) {
    CRows rows(Live());
    Texts titles;
    int result = 0;
    {
        FailingNew shortage(Shortage::AllOfNew, 1);
        for (auto row : rows) {
            shortage.Stop();
            titles.push_back(row.Get<std::string>(0).ValueOr(""));
        }
        shortage.Stop();
        result = rows.Result();
    }
    EXPECT_THAT(titles, IsEmpty());
    EXPECT_EQ(result, -12);
    EXPECT_FALSE(rows.IsAtEnd());
}

// A preload that met an error looks like a shorter result; this is all that a cursor can tell.
TEST_F(Rows, IncompletePreload_IsAtItsEnd) {
    std::shared_ptr<ISQLiteCursor> cursor;
    {
        SqliteFaults faults;
        faults.Answer("sqlite3_step", SQLITE_IOERR, 1, 2);
        cursor = Preloaded();
    }
    CRows rows(cursor);
    EXPECT_THAT(TitlesOf(rows), ElementsAre("one", "two"));
    EXPECT_EQ(rows.Result(), -22);
}

TEST_F(Rows, LargeLiveResult_IsWalkedToItsEnd) {
    AddLargeRows();
    CRows rows(m_connection.SelectRequest("films", {"_id", "note"}, "note IS NOT NULL", "_id", false));
    int seen = 0;
    for (auto row : rows) {
        seen += row.Get<std::vector<unsigned char>>("note").Value().size() == 100000 ? 1 : 0;
    }
    EXPECT_EQ(seen, 30);
    EXPECT_EQ(rows.Result(), -34);
}

TEST_F(Rows, LargePreloadedResult_FailsAtItsFirstMove) {
    AddLargeRows();
    CRows rows(m_connection.SelectRequest("films", {"_id", "note"}, "note IS NOT NULL", "_id"));
    int seen = 0;
    for (auto row : rows) {
        seen += row.IsNull(0) ? 0 : 1;
    }
    EXPECT_EQ(seen, 0);
    EXPECT_EQ(rows.Result(), -14);
    EXPECT_FALSE(rows.IsAtEnd());
}

TEST_F(Rows, Iterator_CountsAsAnInputIterator) {
    CRows rows(Live());
    EXPECT_EQ(std::distance(rows.begin(), rows.end()), 3);
    CRows others(Live());
    auto place = others.begin();
    place++;
    EXPECT_EQ((*place).Get<std::string>(0).Value(), "two");
    EXPECT_TRUE(place == place);
    EXPECT_TRUE(place != others.end());
}

}  // namespace

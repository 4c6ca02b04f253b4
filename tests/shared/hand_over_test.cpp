#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <deque>
#include <mutex>
#include <set>
#include <thread>

#include "Allocations.h"
#include "LogCapture.h"
#include "OtherProcess.h"
#include "SharedResults.h"
#include "ShmFaults.h"

namespace {

using support::Allocations;
using support::CachedNames;
using support::CachedRows;
using support::Cell;
using support::FieldOf;
using support::Int;
using support::Integer;
using support::LogCapture;
using support::Long;
using support::MakeCursor;
using support::MakeObject;
using support::Name;
using support::ObjectBytes;
using support::ObjectExists;
using support::OpenCursor;
using support::OtherProcess;
using support::Report;
using support::RequestIdsFrom;
using support::SharedKey;
using support::SharedName;
using support::SharedNumbers;
using support::SharedObjects;
using support::ShmFaults;
using support::Text;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class StoreCursor : public support::SharedTest {};
class GetCursor : public support::SharedTest {};
class HandOver : public support::SharedTest {};

const std::string ZERO(1, '\0');
constexpr int GREATEST_BLOCK = 2098171;

// A result of 51 bytes as a block: 7, "ab".
const std::string EXAMPLE_BLOCK =
    Int(2) + Int(1) + Name("id") + Name("name") + Cell(1, Long(7)) + Cell(3, "ab" + ZERO);

std::shared_ptr<ISQLiteCursor> Example() {
    return MakeCursor(2, 1, {"id", "name"}, {{Integer(7), Text("ab")}});
}

bool IsExample(const std::shared_ptr<ISQLiteCursor>& cursor) {
    return cursor && CachedRows(*cursor) == std::vector<std::string>{"1:8:0700000000000000 3:2:6162"};
}

// A result whose block has that many bytes.
std::shared_ptr<ISQLiteCursor> ResultOf(int blockSize) {
    const auto rest =
        static_cast<std::size_t>(blockSize) - (Int(1) + Int(1) + Name("v") + Cell(3, ZERO)).size();
    return MakeCursor(1, 1, {"v"}, {{Text(std::string(rest, 'x'))}});
}

// A result that tells a number, and tells it again and again in its second row.
std::shared_ptr<ISQLiteCursor> Numbered(int number) {
    std::string text;
    for (int i = 0; i < 300; ++i) {
        text += std::to_string(number) + ";";
    }
    return MakeCursor(2, 2, {"n", "t"}, {{Integer(number), Text("")}, {Integer(-number), Text(text)}});
}

bool IsNumbered(const std::shared_ptr<ISQLiteCursor>& cursor, int number) {
    return cursor && CachedRows(*cursor) == CachedRows(*Numbered(number)) &&
           CachedNames(*cursor) == std::vector<std::string>{"n", "t"};
}

struct Stored {
    std::string name;
    int size = 0;
};

Stored Store(const std::shared_ptr<ISQLiteCursor>& cursor) {
    Stored stored;
    EXPECT_EQ(0, CSharedQueryObject::StoreCursor(cursor, SharedKey(), stored.name, stored.size));
    return stored;
}

std::string Shown(int result, const Stored& stored) {
    return std::to_string(result) + " [" + stored.name + "] " + std::to_string(stored.size) + "\n";
}

std::string Joined(const std::vector<std::string>& lines) {
    std::string joined;
    for (const auto& line : lines) {
        joined += line + "\n";
    }
    return joined;
}

// ---- Storing ------------------------------------------------------------------------------------------

TEST_F(StoreCursor, NullCursor_Minus22AndTheOutputsAreUntouched) {
    Stored stored{"before", 42};
    const int id = CSharedQueryObject::GetRequestID();
    const LogCapture log;
    const ShmFaults faults;
    EXPECT_EQ(-22, CSharedQueryObject::StoreCursor(nullptr, SharedKey(), stored.name, stored.size));
    EXPECT_THAT(log.Lines(), ElementsAre("I StoreCursor > pCursor is NULL"));
    EXPECT_EQ("before", stored.name);
    EXPECT_EQ(42, stored.size);
    EXPECT_EQ(id, CSharedQueryObject::GetRequestID());
    EXPECT_THAT(faults.Order(), IsEmpty());
}

TEST_F(StoreCursor, FirstTwoOfAProcess_EndInTheKeyAnd1And2) {
    const RequestIdsFrom fresh(0);
    const Stored first = Store(Example());
    const Stored second = Store(Example());
    EXPECT_EQ("/.vantry_" + SharedKey() + "1", first.name);
    EXPECT_EQ("/.vantry_" + SharedKey() + "2", second.name);
    EXPECT_EQ(2, ISharedQueryObject::GetRequestID());
    EXPECT_THAT(SharedObjects(), ElementsAre(first.name, second.name));
    EXPECT_TRUE(IsExample(CSharedQueryObject::GetCursor(second.name, second.size)));
    EXPECT_TRUE(IsExample(CSharedQueryObject::GetCursor(first.name, first.size)));
}

TEST_F(StoreCursor, Object_IsTheLengthAndTheBlock) {
    const Stored stored = Store(Example());
    EXPECT_EQ(55, stored.size);
    EXPECT_EQ(Int(51) + EXAMPLE_BLOCK, ObjectBytes(stored.name));
    shm_unlink(stored.name.c_str());
}

TEST_F(StoreCursor, ResultWithoutRows_IsStoredToo) {
    const Stored stored = Store(support::Stepped("SELECT 1 AS a, 2 AS b WHERE 0"));
    EXPECT_EQ(12, stored.size);
    EXPECT_EQ(Int(8) + Int(2) + Int(0), ObjectBytes(stored.name));
    const auto cursor = CSharedQueryObject::GetCursor(stored.name, stored.size);
    ASSERT_NE(nullptr, cursor);
    EXPECT_TRUE(cursor->IsEmpty());
    EXPECT_EQ(2, cursor->GetColumnCount());
}

TEST_F(StoreCursor, Success_OneDebugLineAndTheCallsInOrder) {
    Stored stored;
    const LogCapture log;
    const ShmFaults faults;
    ASSERT_EQ(0, CSharedQueryObject::StoreCursor(Example(), SharedKey(), stored.name, stored.size));
    EXPECT_THAT(log.Lines(),
                ElementsAre("D StoreCursor > The cursor(" + stored.name + ") was stored successfully"));
    EXPECT_THAT(faults.Order(), ElementsAre("shm_open(" + stored.name + ", 0x442, 0666)", "ftruncate(fd, 55)",
                                            "posix_fallocate(fd, 0, 55)", "mmap(55, 0x3, 0x2001, fd, 0)",
                                            "close(fd)", "munmap(data, 55)"));
    shm_unlink(stored.name.c_str());
}

TEST_F(StoreCursor, GreatestBlock_IsStoredAndFetched) {
    const Stored stored = Store(ResultOf(GREATEST_BLOCK));
    EXPECT_EQ(2098175, stored.size);
    const auto cursor = CSharedQueryObject::GetCursor(stored.name, stored.size);
    ASSERT_NE(nullptr, cursor);
    ASSERT_EQ(0, cursor->MoveNextStep());
    EXPECT_EQ(GREATEST_BLOCK - 23, cursor->GetColumnSize(0));
}

TEST_F(StoreCursor, BlockOneByteTooLong_Minus14WithEmptyOutputs) {
    const RequestIdsFrom fresh(0);
    const auto cursor = ResultOf(GREATEST_BLOCK + 1);
    Stored stored{"before", 42};
    const LogCapture log;
    EXPECT_EQ(-14, CSharedQueryObject::StoreCursor(cursor, SharedKey(), stored.name, stored.size));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("I ShmCreateObject > Parameter is not proper value - shmSize : 2098176, path is NULL : " +
                        SharedName("1"),
                    "I StoreCursor > Shared memory create has failed",
                    "I StoreCursor > Get Shared memory has failed"));
    EXPECT_EQ("", stored.name);
    EXPECT_EQ(0, stored.size);
    EXPECT_THAT(SharedObjects(), IsEmpty());
}

TEST_F(StoreCursor, SystemRefuses_Minus14WithItsLinesAndNothingIsLeft) {
    const struct {
        const char* call;
        int error;
        std::vector<std::string> lines;
    } rows[] = {
        {"shm_open",
         EACCES,
         {"I ShmCreateObject > Shared memory get fail",
          "I ShmCreateObject > EACCES : Require ROOT permission."}},
        {"shm_open",
         EMFILE,
         {"I ShmCreateObject > Shared memory get fail", "I ShmCreateObject > other cause : -1"}},
        {"ftruncate", ENOSPC, {"I ShmCreateObject > fturncate error ."}},
        {"posix_fallocate", ENOSPC, {"I ShmCreateObject > fturncate error ."}},
        {"mmap", EAGAIN, {"I ShmCreateObject > Get ptr fail\n"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call);
        const auto cursor = Example();
        Stored stored{"before", 42};
        const int descriptors = support::OpenDescriptors();
        const LogCapture log;
        ShmFaults faults;
        faults.Fail(row.call, row.error);
        EXPECT_EQ(-14, CSharedQueryObject::StoreCursor(cursor, SharedKey(), stored.name, stored.size));
        auto lines = row.lines;
        lines.emplace_back("I StoreCursor > Shared memory create has failed");
        lines.emplace_back("I StoreCursor > Get Shared memory has failed");
        EXPECT_EQ(lines, log.Lines());
        EXPECT_EQ("", stored.name);
        EXPECT_EQ(0, stored.size);
        EXPECT_THAT(SharedObjects(), IsEmpty());
        EXPECT_EQ(descriptors, support::OpenDescriptors());
        EXPECT_EQ(1, cursor.use_count());
    }
}

TEST_F(StoreCursor, KeysThatMakeNoName_Minus14WithTheSystemsAnswer) {
    const struct {
        std::string key;
        const char* line;
    } rows[] = {
        {SharedKey() + "a/b",
         "I ShmCreateObject > EINVAL : The shm_open() operation is not supported for the given name."},
        {SharedKey() + std::string(1000, 'x'), "I ShmCreateObject > other cause : -1"},
    };
    for (const auto& row : rows) {
        Stored stored{"before", 42};
        const LogCapture log;
        EXPECT_EQ(-14, CSharedQueryObject::StoreCursor(Example(), row.key, stored.name, stored.size));
        const auto lines = log.Lines();
        ASSERT_EQ(4U, lines.size());
        EXPECT_EQ("I ShmCreateObject > Shared memory get fail", lines[0]);
        if (row.key.size() < 1000) {
            EXPECT_EQ(row.line, lines[1]);
        } else {
            EXPECT_THAT(lines[1], testing::AnyOf(row.line, StartsWith("I ShmCreateObject > EINVAL")));
        }
        EXPECT_EQ("I StoreCursor > Shared memory create has failed", lines[2]);
        EXPECT_EQ("I StoreCursor > Get Shared memory has failed", lines[3]);
        EXPECT_EQ("", stored.name);
        EXPECT_EQ(0, stored.size);
    }
}

TEST_F(StoreCursor, CursorThatCannotBeSerialised_Minus14WithEmptyOutputsAndNoCall) {
    Stored stored{"before", 42};
    const LogCapture log;
    const ShmFaults faults;
    EXPECT_EQ(-14, CSharedQueryObject::StoreCursor(std::make_shared<CSQLiteCursor>(), SharedKey(),
                                                   stored.name, stored.size));
    EXPECT_EQ("", stored.name);
    EXPECT_EQ(0, stored.size);
    EXPECT_THAT(log.Lines(), testing::Not(IsEmpty()));
    EXPECT_THAT(log.Lines('D'), IsEmpty());
    EXPECT_THAT(faults.Order(), IsEmpty());
}

// A cursor of somebody else's making.
class ForeignCursor : public ISQLiteCursor {
public:
    int MoveNextStep() override { return 0; }
    int MovePreviousStep() override { return 0; }
    int MoveFirstStep() override { return 0; }
    int MoveLastStep() override { return 0; }
    int GetIntegerData(int, int&) override { return 0; }
    int GetInteger64Data(int, long long&) override { return 0; }
    int GetDoubleData(int, double&) override { return 0; }
    int GetStringData(int, std::string&) override { return 0; }
    int GetBlobData(int, void*, int) override { return 0; }
    int GetColumnCount() override { return 3; }
    int GetColumnType(int) override { return 0; }
    std::string GetColumnName(int) override { return "v"; }
    int GetColumnIndex(std::string) override { return 0; }
    int GetColumnSize(int) override { return 8; }
    int GetCurrentRowIndex() override { return 0; }
    int GetNumbersOfRows() override { return 5; }
    bool IsEmpty() override { return false; }
};

TEST_F(StoreCursor, CursorOfAnotherClass_ACodeAndALineAndNoCrash) {
    Stored stored{"before", 42};
    const LogCapture log;
    EXPECT_EQ(-14, CSharedQueryObject::StoreCursor(std::make_shared<ForeignCursor>(), SharedKey(),
                                                   stored.name, stored.size));
    EXPECT_THAT(log.Lines('I'), testing::Not(IsEmpty()));
    EXPECT_EQ("", stored.name);
    EXPECT_EQ(0, stored.size);
}

TEST_F(StoreCursor, UnmappingFails_StillReturns0) {
    Stored stored;
    const LogCapture log;
    {
        ShmFaults faults;
        faults.Fail("munmap", EINVAL);
        EXPECT_EQ(0, CSharedQueryObject::StoreCursor(Example(), SharedKey(), stored.name, stored.size));
    }
    EXPECT_THAT(log.Lines(),
                ElementsAre("D StoreCursor > The cursor(" + stored.name + ") was stored successfully",
                            "I DetachData > Unmap fail\n"));
    EXPECT_TRUE(IsExample(CSharedQueryObject::GetCursor(stored.name, stored.size)));
}

TEST_F(StoreCursor, ObjectOfThatNameExists_HoldsOnlyTheNewResult) {
    const RequestIdsFrom fresh(0);
    MakeObject(SharedName("1"), std::string(10000, 'x'));
    const Stored stored = Store(Example());
    EXPECT_EQ(SharedName("1"), stored.name);
    EXPECT_EQ(Int(51) + EXAMPLE_BLOCK, ObjectBytes(stored.name));
    EXPECT_TRUE(IsExample(CSharedQueryObject::GetCursor(stored.name, stored.size)));
}

TEST_F(StoreCursor, KeyAndOutputNameAreOneString_TheNameIsWhole) {
    const RequestIdsFrom fresh(0);
    std::string both = SharedKey();
    int size = 0;
    EXPECT_EQ(0, CSharedQueryObject::StoreCursor(Example(), both, both, size));
    EXPECT_EQ(SharedName("1"), both);
    EXPECT_TRUE(IsExample(CSharedQueryObject::GetCursor(both, size)));
}

TEST_F(StoreCursor, FailedStore_UsesAnIdUp) {
    const RequestIdsFrom fresh(0);
    Stored stored;
    {
        ShmFaults faults;
        faults.Fail("mmap", EAGAIN);
        ASSERT_EQ(-14, CSharedQueryObject::StoreCursor(Example(), SharedKey(), stored.name, stored.size));
    }
    stored = Store(Example());
    EXPECT_EQ(SharedName("2"), stored.name);
    shm_unlink(stored.name.c_str());
}

TEST_F(StoreCursor, Cursor_StaysUsableAndIsReleased) {
    const auto cursor = support::Stepped("SELECT 7 AS v UNION ALL SELECT 8");
    const Stored stored = Store(cursor);
    EXPECT_EQ(1, cursor.use_count());
    EXPECT_EQ(1, cursor->GetCurrentRowIndex());
    const Stored again = Store(cursor);
    EXPECT_EQ(ObjectBytes(stored.name), ObjectBytes(again.name));
    shm_unlink(stored.name.c_str());
    shm_unlink(again.name.c_str());
}

TEST_F(StoreCursor, CursorStandsOnAnEvictedResult_ArrivesWhole) {
    const auto source = support::Stepped(
        "SELECT replace(hex(zeroblob(524288)), '0', 'a') AS v UNION ALL "
        "SELECT replace(hex(zeroblob(524288)), '0', 'b')");
    ASSERT_FALSE(source->GetCusorCache()->rows.front()->isCached);
    const Stored stored = Store(source);
    EXPECT_EQ(4 + 8 + 6 + 2 * (8 + 1048577), stored.size);
    const auto cursor = CSharedQueryObject::GetCursor(stored.name, stored.size);
    ASSERT_NE(nullptr, cursor);
    for (const char letter : {'a', 'b'}) {
        std::string text;
        ASSERT_EQ(0, cursor->MoveNextStep());
        ASSERT_EQ(0, cursor->GetStringData(0, text));
        EXPECT_TRUE(text == std::string(1048576, letter));
    }
}

// The cache counts a row's bytes when it caches the row; whoever changes it later does not tell the cache.
void ChangeByHand(CSQLiteCursor& cursor, const std::string& text) {
    CDbColumn& cell = *cursor.GetCusorCache()->rows.front()->columns.front();
    delete[] cell.value;
    cell.value = new char[text.size() + 1];
    std::memcpy(cell.value, text.c_str(), text.size() + 1);
    cell.size = static_cast<int>(text.size());
}

std::string TwoRowsOf(const std::string& first, const std::string& second) {
    return "SELECT '" + first + "' AS v UNION ALL SELECT '" + second + "'";
}

TEST_F(StoreCursor, CachedRow_IsCountedWhenItIsCached) {
    const auto cursor =
        support::Stepped("SELECT 7, 1.5, 'ab', x'00', NULL, '' UNION ALL SELECT 1, 2, 3, 4, 5, 6");
    EXPECT_EQ(2U, cursor->GetCusorCache()->countedRows);
    EXPECT_EQ(16U + 16 + 11 + 10 + 8 + 9 + 6 * 16, cursor->GetCusorCache()->countedBytes);
}

TEST_F(StoreCursor, RowChangedByHandSinceItWasCached_IsStoredAsItIs) {
    for (const std::string& now :
         {std::string("longer than it was"), std::string(100, 'l'), std::string("s"), std::string()}) {
        const auto cursor = support::Stepped(TwoRowsOf("first", "second"));
        ChangeByHand(*cursor, now);
        const LogCapture log;
        const Stored stored = Store(cursor);
        EXPECT_THAT(log.Lines(), ElementsAre(testing::HasSubstr("was stored successfully")));
        const Stored same = Store(support::Stepped(TwoRowsOf(now, "second")));
        EXPECT_EQ(same.size, stored.size);
        EXPECT_EQ(ObjectBytes(same.name), ObjectBytes(stored.name));
        shm_unlink(same.name.c_str());
        shm_unlink(stored.name.c_str());
        EXPECT_THAT(SharedObjects(), IsEmpty());
    }
}

TEST_F(StoreCursor, RowTakenOutByHandSinceItWasCached_IsNotCounted) {
    const auto cursor = support::Stepped(TwoRowsOf("first", "second"));
    auto& rows = cursor->GetCusorCache()->rows;
    delete rows.front();
    rows.pop_front();
    const ShmFaults faults;
    const Stored stored = Store(cursor);
    EXPECT_EQ(4 + 8 + 6 + 8 + 7, stored.size);
    EXPECT_EQ(1, faults.Calls("shm_open"));
    shm_unlink(stored.name.c_str());
}

TEST_F(StoreCursor, RowMadeTooLargeByHandSinceItWasCached_IsNotWrittenPastTheObject) {
    const auto cursor = support::Stepped(TwoRowsOf("first", "second"));
    ChangeByHand(*cursor, std::string(8388608, 'l'));
    Stored stored;
    EXPECT_EQ(-14, CSharedQueryObject::StoreCursor(cursor, SharedKey(), stored.name, stored.size));
    EXPECT_THAT(SharedObjects(), IsEmpty());
}

TEST_F(StoreCursor, LengthBelow0ByHandSinceItWasCached_IsANull) {
    for (const int length : {-1, -9, INT_MIN}) {
        const auto cursor = support::Stepped("SELECT 'first' AS v, x'0102' AS b");
        cursor->GetCusorCache()->rows.front()->columns.front()->size = length;
        const Stored stored = Store(cursor);
        EXPECT_EQ(Int(2) + Int(1) + Name("v") + Name("b") + Cell(5, "") + Cell(4, std::string("\1\2\0", 3)),
                  ObjectBytes(stored.name).substr(4));
        shm_unlink(stored.name.c_str());
    }
}

TEST_F(StoreCursor, CountedTooLargeAndMadeSmallerByHand_IsStored) {
    const auto cursor = support::Stepped(TwoRowsOf(std::string(1048576, 'a'), std::string(1049600, 'b')));
    CDbRow& row = *cursor->GetCusorCache()->rows.front();
    row.columns.swap(row.evictedColumns);
    ChangeByHand(*cursor, "small");
    const Stored stored = Store(cursor);
    EXPECT_EQ(4 + 8 + 6 + 8 + 6 + 8 + 1049601, stored.size);
    shm_unlink(stored.name.c_str());
}

TEST_F(StoreCursor, RowChangedByHandAndTheFirstObjectStaysMapped_FailsAndLeavesNoName) {
    const auto cursor = support::Stepped(TwoRowsOf("first", "second"));
    ChangeByHand(*cursor, "longer than it was");
    Stored stored;
    {
        ShmFaults faults;
        faults.Fail("munmap", EINVAL);
        EXPECT_EQ(-14, CSharedQueryObject::StoreCursor(cursor, SharedKey(), stored.name, stored.size));
    }
    EXPECT_EQ("", stored.name);
    EXPECT_EQ(0, stored.size);
    EXPECT_THAT(SharedObjects(), IsEmpty());
}

// ---- Fetching -----------------------------------------------------------------------------------------

TEST_F(GetCursor, Stored_TheFetchedCursorAnswersFromItsCache) {
    const Stored stored =
        Store(support::Stepped("SELECT 7 AS id, 'ab' AS name, 1.5 AS f, x'00ff' AS b, NULL AS n "
                               "UNION ALL SELECT 8, 'c', 2.5, x'01', NULL"));
    const auto cursor = CSharedQueryObject::GetCursor(stored.name, stored.size);
    ASSERT_NE(nullptr, cursor);
    EXPECT_EQ(nullptr, FieldOf(*cursor, &OpenCursor::m_pStmt));
    EXPECT_EQ(nullptr, FieldOf(*cursor, &OpenCursor::m_pDB));
    EXPECT_EQ(2, cursor->GetNumbersOfRows());
    EXPECT_EQ(5, cursor->GetColumnCount());
    EXPECT_EQ(-1, cursor->GetCurrentRowIndex());
    ASSERT_EQ(0, cursor->MoveNextStep());
    ASSERT_EQ(0, cursor->MoveNextStep());
    int number = 0;
    std::string text;
    double real = 0;
    char blob[4] = {};
    EXPECT_EQ(0, cursor->GetIntegerData(0, number));
    EXPECT_EQ(8, number);
    EXPECT_EQ(0, cursor->GetStringData(cursor->GetColumnIndex("name"), text));
    EXPECT_EQ("c", text);
    EXPECT_EQ(0, cursor->GetDoubleData(2, real));
    EXPECT_EQ(2.5, real);
    EXPECT_EQ(0, cursor->GetBlobData(3, blob, 4));
    EXPECT_EQ(1, blob[0]);
    EXPECT_EQ(5, cursor->GetColumnType(4));
    EXPECT_EQ(-22, cursor->MoveNextStep());
}

TEST_F(GetCursor, Twice_ACursorFirstAndNullThen) {
    const Stored stored = Store(Example());
    const LogCapture log;
    EXPECT_TRUE(IsExample(CSharedQueryObject::GetCursor(stored.name, stored.size)));
    EXPECT_THAT(log.Lines(), ElementsAre("D GetCursor > Getting cursor(" + stored.name + ") successfully"));
    EXPECT_FALSE(ObjectExists(stored.name));
    EXPECT_EQ(nullptr, CSharedQueryObject::GetCursor(stored.name, stored.size));
    EXPECT_THAT(log.Lines(), ElementsAre("D GetCursor > Getting cursor(" + stored.name + ") successfully",
                                         "I ShmGetObject > Error number : 2",
                                         "I GetCursor > Get Shared memory has failed"));
}

TEST_F(GetCursor, Success_MapsReadsAndRemovesUnderOneLock) {
    const Stored stored = Store(Example());
    const ShmFaults faults;
    ASSERT_TRUE(IsExample(CSharedQueryObject::GetCursor(stored.name, stored.size)));
    auto calls = faults.Order();
    calls.erase(std::remove(calls.begin(), calls.end(), "fstat(fd)"), calls.end());
    EXPECT_THAT(calls, ElementsAre("shm_open(" + stored.name + ", 0x2, 00)", "flock(fd, 0x2)",
                                   "mmap(55, 0x1, 0x1, fd, 0)", "munmap(data, 55)",
                                   "shm_unlink(" + stored.name + ")", "close(fd)"));
}

TEST_F(GetCursor, NothingToFetch_NullWithItsLinesAndNoDescriptorIsLeft) {
    const struct {
        std::string name;
        int size;
        std::string line;
    } rows[] = {
        {"", 55, "I ShmGetObject > Parameter is not proper value - shmSize : 55, path is NULL : "},
        {SharedName("none"), 55, "I ShmGetObject > Error number : 2"},
        {SharedName("a/b"), 55, "I ShmGetObject > Error number : 22"},
    };
    for (const auto& row : rows) {
        const int descriptors = support::OpenDescriptors();
        const LogCapture log;
        EXPECT_EQ(nullptr, CSharedQueryObject::GetCursor(row.name, row.size));
        EXPECT_THAT(log.Lines(), ElementsAre(row.line, "I GetCursor > Get Shared memory has failed"));
        EXPECT_EQ(descriptors, support::OpenDescriptors());
    }
}

TEST_F(GetCursor, SizeOutsideTheRange_DestroysTheResult) {
    for (const int size : {0, -1, 2098176, INT_MAX, INT_MIN}) {
        const Stored stored = Store(Example());
        const int descriptors = support::OpenDescriptors();
        const LogCapture log;
        EXPECT_EQ(nullptr, CSharedQueryObject::GetCursor(stored.name, size));
        EXPECT_THAT(log.Lines(), ElementsAre("I ShmGetObject > Out of size : " + std::to_string(size),
                                             "I GetCursor > Get Shared memory has failed"));
        EXPECT_FALSE(ObjectExists(stored.name));
        EXPECT_EQ(descriptors, support::OpenDescriptors());
        EXPECT_EQ(nullptr, CSharedQueryObject::GetCursor(stored.name, stored.size));
    }
}

TEST_F(GetCursor, SystemRefuses_NoDescriptorOutlivesTheCall) {
    const struct {
        const char* call;
        int error;
        bool fetched;
        bool left;
        std::vector<std::string> lines;
    } rows[] = {
        {"shm_open",
         EACCES,
         false,
         false,
         {"I ShmGetObject > Error number : 13", "I GetCursor > Get Shared memory has failed"}},
        {"mmap",
         EAGAIN,
         false,
         false,
         {"I ShmGetObject > mmap has failed : 11", "I GetCursor > Get Shared memory has failed"}},
        {"munmap",
         EINVAL,
         true,
         true,
         {"I ShmRemoveObject > munmap fail", "D GetCursor > Getting cursor(NAME) successfully"}},
        {"flock", ENOLCK, true, false, {"D GetCursor > Getting cursor(NAME) successfully"}},
        {"flock", EOPNOTSUPP, true, false, {"D GetCursor > Getting cursor(NAME) successfully"}},
        {"fstat", EOVERFLOW, true, false, {"D GetCursor > Getting cursor(NAME) successfully"}},
        {"shm_unlink", EACCES, true, true, {"D GetCursor > Getting cursor(NAME) successfully"}},
        {"close", EIO, true, false, {"D GetCursor > Getting cursor(NAME) successfully"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call);
        const Stored stored = Store(Example());
        const int descriptors = support::OpenDescriptors();
        const LogCapture log;
        {
            ShmFaults faults;
            faults.Fail(row.call, row.error, 10);
            EXPECT_EQ(row.fetched, IsExample(CSharedQueryObject::GetCursor(stored.name, stored.size)));
        }
        auto lines = row.lines;
        for (auto& line : lines) {
            const auto place = line.find("NAME");
            if (place != std::string::npos) {
                line.replace(place, 4, stored.name);
            }
        }
        EXPECT_EQ(lines, log.Lines());
        EXPECT_EQ(row.left, ObjectExists(stored.name));
        EXPECT_EQ(descriptors, support::OpenDescriptors());
        shm_unlink(stored.name.c_str());
    }
}

TEST_F(GetCursor, OvertakenByAnotherConsumer_NullAndNoDescriptorIsLeft) {
    const Stored stored = Store(Example());
    const int descriptors = support::OpenDescriptors();
    const LogCapture log;
    ShmFaults faults;
    faults.Before("flock", [&stored] { shm_unlink(stored.name.c_str()); });
    EXPECT_EQ(nullptr, CSharedQueryObject::GetCursor(stored.name, stored.size));
    EXPECT_THAT(log.Lines(), ElementsAre("I ShmGetObject > Error number : 2",
                                         "I GetCursor > Get Shared memory has failed"));
    EXPECT_EQ(descriptors, support::OpenDescriptors());
}

// What is read of an object whose bytes or whose given size are wrong.
struct Damage {
    const char* what;
    std::string bytes;
    int size;
    // Rows read; -1 for a null cursor.
    int rows;
    std::string line;
};

class GetCursorOfADamagedObject : public support::SharedTest, public testing::WithParamInterface<Damage> {};

TEST_P(GetCursorOfADamagedObject, ReadsWithinTheObjectAndRemovesIt) {
    const Damage& damage = GetParam();
    const auto name = SharedName("damaged");
    MakeObject(name, damage.bytes);
    const int descriptors = support::OpenDescriptors();
    const LogCapture log;
    const auto cursor = CSharedQueryObject::GetCursor(name, damage.size);
    EXPECT_EQ(damage.rows, cursor ? cursor->GetNumbersOfRows() : -1);
    std::vector<std::string> lines;
    if (!damage.line.empty()) {
        lines.push_back("I DeserializeCursorData > " + damage.line);
    }
    lines.push_back("D GetCursor > Getting cursor(" + name + ") successfully");
    EXPECT_EQ(lines, log.Lines());
    EXPECT_FALSE(ObjectExists(name));
    EXPECT_EQ(descriptors, support::OpenDescriptors());
}

const char* const WRONG = "Wrong parameters : buffer is NULL or Size is wrong";
const std::string INDEX = "Memory size check error : currentOffset + indexSize <= bufferSize : ";
const std::string DATA = "Memory size check error : currentOffset + currentDataSize <= bufferSize : ";
const std::string FAR_NAME = Int(1) + Int(1) + Int(2000000) + "name";

INSTANTIATE_TEST_SUITE_P(
    Table, GetCursorOfADamagedObject,
    testing::Values(
        Damage{"Sound", Int(51) + EXAMPLE_BLOCK, 55, 1, ""}, Damage{"Empty", "", 55, -1, WRONG},
        Damage{"EmptyAndAsked4", "", 4, -1, WRONG}, Damage{"EmptyAndAskedTheMost", "", 2098175, -1, WRONG},
        Damage{"ThreeBytes", std::string(3, '\x7f'), 2098175, -1, WRONG},
        Damage{"LengthAlone", Int(51), 4, -1, WRONG},
        Damage{"LengthAloneAndAskedMore", Int(51), 55, -1, WRONG},
        Damage{"LengthZero", Int(0) + EXAMPLE_BLOCK, 55, -1, WRONG},
        Damage{"LengthThree", Int(3) + EXAMPLE_BLOCK, 55, -1, WRONG},
        Damage{"LengthMinusOne", Int(-1) + EXAMPLE_BLOCK, 55, -1, WRONG},
        Damage{"LengthLeast", Int(INT_MIN) + EXAMPLE_BLOCK, 55, -1, WRONG},
        Damage{"LengthSeven", Int(7) + EXAMPLE_BLOCK, 55, 0, INDEX + "8 <= 7"},
        Damage{"LengthOneShort", Int(50) + EXAMPLE_BLOCK, 55, 0, DATA + "51 <= 50"},
        Damage{"LengthPastTheObject", Int(1000000) + EXAMPLE_BLOCK, 55, 1, ""},
        Damage{"LengthGreatest", Int(INT_MAX) + EXAMPLE_BLOCK, 55, 1, ""},
        Damage{"SizeOne", Int(51) + EXAMPLE_BLOCK, 1, -1, WRONG},
        Damage{"SizeThree", Int(51) + EXAMPLE_BLOCK, 3, -1, WRONG},
        Damage{"SizeEleven", Int(51) + EXAMPLE_BLOCK, 11, 0, INDEX + "8 <= 7"},
        Damage{"SizeOneShort", Int(51) + EXAMPLE_BLOCK, 54, 0, DATA + "51 <= 50"},
        Damage{"SizeTooGreat", Int(51) + EXAMPLE_BLOCK, 2098175, 1, ""},
        Damage{"ObjectOneShort", (Int(51) + EXAMPLE_BLOCK).substr(0, 54), 55, 0, DATA + "51 <= 50"},
        Damage{"NameFarBehindTheObject", Int(2098171) + FAR_NAME, 2098175, 0, DATA + "2000012 <= 16"},
        Damage{"RowsFarBehindTheObject", Int(INT_MAX) + Int(1) + Int(INT_MAX) + Name("v") + Cell(1, Long(7)),
               2098175, 1, INDEX + "34 <= 30"},
        Damage{"NotAResult", std::string(4096, '\x41'), 2098175, 0, DATA + "1094795597 <= 4092"}),
    [](const testing::TestParamInfo<Damage>& param) { return std::string(param.param.what); });

TEST_F(GetCursor, ObjectMadeShorterAfterTheStore_KeepsTheWholeRows) {
    const Stored stored = Store(Numbered(5));
    ASSERT_EQ(0, truncate(("/dev/shm" + stored.name).c_str(), 60));
    const auto cursor = CSharedQueryObject::GetCursor(stored.name, stored.size);
    ASSERT_NE(nullptr, cursor);
    EXPECT_EQ(1, cursor->GetNumbersOfRows());
}

// ---- Through the interface ----------------------------------------------------------------------------

TEST_F(HandOver, Interface_ForwardsToTheSameOperations) {
    Stored stored{"before", 42};
    {
        const LogCapture log;
        EXPECT_EQ(-22, ISharedQueryObject::StoreCursor(nullptr, SharedKey(), stored.name, stored.size));
        EXPECT_THAT(log.Lines(), ElementsAre("I StoreCursor > pCursor is NULL"));
    }
    const LogCapture log;
    EXPECT_EQ(0, ISharedQueryObject::StoreCursor(Example(), SharedKey(), stored.name, stored.size));
    EXPECT_EQ(SharedName(std::to_string(ISharedQueryObject::GetRequestID())), stored.name);
    EXPECT_EQ(CSharedQueryObject::GetRequestID(), ISharedQueryObject::GetRequestID());
    EXPECT_TRUE(IsExample(ISharedQueryObject::GetCursor(stored.name, stored.size)));
    EXPECT_EQ(nullptr, ISharedQueryObject::GetCursor(stored.name, stored.size));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre("D StoreCursor > The cursor(" + stored.name + ") was stored successfully",
                    "D GetCursor > Getting cursor(" + stored.name + ") successfully",
                    "I ShmGetObject > Error number : 2", "I GetCursor > Get Shared memory has failed"));
}

TEST_F(HandOver, MemoryRunsOutAnywhere_NoExceptionAndNothingIsLeft) {
    const auto source = Numbered(7);
    const std::string key = SharedKey() + "a-key-that-no-short-string-holds-";
    int failing = 0;
    for (bool failed = true; failed;) {
        SCOPED_TRACE(++failing);
        Stored stored{"before", 42};
        int result = 0;
        {
            const Allocations allocations(failing);
            EXPECT_NO_THROW(result = CSharedQueryObject::StoreCursor(source, key, stored.name, stored.size));
            failed = allocations.Failed();
        }
        if (result == 0) {
            EXPECT_TRUE(IsNumbered(CSharedQueryObject::GetCursor(stored.name, stored.size), 7));
        } else {
            EXPECT_TRUE(failed);
            EXPECT_EQ(-14, result);
            EXPECT_EQ("", stored.name);
            EXPECT_EQ(0, stored.size);
        }
        EXPECT_THAT(SharedObjects(), IsEmpty());
    }
    EXPECT_GT(failing, 1);
    failing = 0;
    for (bool failed = true; failed;) {
        SCOPED_TRACE(++failing);
        Stored stored;
        ASSERT_EQ(0, CSharedQueryObject::StoreCursor(source, key, stored.name, stored.size));
        const int descriptors = support::OpenDescriptors();
        std::shared_ptr<ISQLiteCursor> cursor;
        {
            const Allocations allocations(failing);
            EXPECT_NO_THROW(cursor = CSharedQueryObject::GetCursor(stored.name, stored.size));
            failed = allocations.Failed();
        }
        EXPECT_EQ(failed, cursor == nullptr);
        EXPECT_EQ(descriptors, support::OpenDescriptors());
        shm_unlink(stored.name.c_str());
    }
    EXPECT_GT(failing, 10);
}

// ---- Between processes --------------------------------------------------------------------------------

TEST_F(HandOver, ProviderProcessIsGone_TheResultIsStillThere) {
    OtherProcess provider([](int report) {
        const Stored stored = Store(Numbered(5));
        Report(report, stored.name + "\n" + std::to_string(stored.size) + "\n");
        return 0;
    });
    const std::string name = provider.ReadLine();
    const int size = std::atoi(provider.ReadLine().c_str());
    ASSERT_EQ("exit 0", provider.Wait());
    EXPECT_TRUE(IsNumbered(CSharedQueryObject::GetCursor(name, size), 5));
}

TEST_F(HandOver, ConsumerInAnotherProcess_ReceivesItAndTheObjectIsGone) {
    const Stored stored = Store(Numbered(5));
    OtherProcess consumer([&stored](int) {
        return IsNumbered(CSharedQueryObject::GetCursor(stored.name, stored.size), 5) ? 0 : 1;
    });
    EXPECT_EQ("exit 0", consumer.Wait());
    EXPECT_EQ(nullptr, CSharedQueryObject::GetCursor(stored.name, stored.size));
}

// 32 processes ask for the same object, again and again. `allOpenFirst` lets them all open it before one may lock it.
void Race(bool allOpenFirst) {
    constexpr int CONSUMERS = 32;
    constexpr int ROUNDS = 100;
    enum { GO, SIZE, OPENED, DONE, WHOLE, DAMAGED, COUNT };
    const RequestIdsFrom fresh(0);
    SharedNumbers numbers(COUNT);
    const auto consume = [&numbers, allOpenFirst](int) {
        const int descriptors = support::OpenDescriptors();
        for (int round = 1; round <= ROUNDS; ++round) {
            ShmFaults faults;
            if (allOpenFirst) {
                faults.Before("flock", [&numbers, round] {
                    ++numbers[OPENED];
                    numbers.Await(OPENED, round * CONSUMERS);
                });
            }
            if (!numbers.Await(GO, round)) {
                return 2;
            }
            const auto cursor =
                CSharedQueryObject::GetCursor(SharedName(std::to_string(round)), numbers[SIZE]);
            if (cursor) {
                ++numbers[IsNumbered(cursor, round) ? WHOLE : DAMAGED];
            }
            ++numbers[DONE];
        }
        return descriptors == support::OpenDescriptors() ? 0 : 1;
    };
    std::deque<OtherProcess> consumers;
    for (int i = 0; i < CONSUMERS; ++i) {
        consumers.emplace_back(consume);
    }
    for (int round = 1; round <= ROUNDS; ++round) {
        SCOPED_TRACE(round);
        const Stored stored = Store(Numbered(round));
        ASSERT_EQ(SharedName(std::to_string(round)), stored.name);
        numbers[SIZE] = stored.size;
        numbers[GO] = round;
        ASSERT_TRUE(numbers.Await(DONE, round * CONSUMERS));
        ASSERT_EQ(round, numbers[WHOLE]);
        ASSERT_EQ(0, numbers[DAMAGED]);
        ASSERT_FALSE(ObjectExists(stored.name));
    }
    for (auto& consumer : consumers) {
        EXPECT_EQ("exit 0", consumer.Wait());
    }
}

TEST_F(HandOver, Race_32ConsumersAskAtOnce_ExactlyOneReceivesIt) { Race(false); }

TEST_F(HandOver, Race_32ConsumersHaveItOpen_ExactlyOneReceivesIt) { Race(true); }

TEST_F(HandOver, Race_8ProviderThreadsStore10000Results_AllNamesDifferAndAllArriveWhole) {
    constexpr int THREADS = 8;
    constexpr int EACH = 1250;
    struct Entry {
        Stored stored;
        int number;
    };
    std::mutex mutex;
    std::deque<Entry> waiting;
    std::set<std::string> names;
    int whole = 0;
    const auto provide = [&](int thread) {
        for (int i = 0; i < EACH; ++i) {
            Entry entry{{}, thread * EACH + i};
            const auto cursor = Numbered(entry.number);
            const int result =
                CSharedQueryObject::StoreCursor(cursor, SharedKey(), entry.stored.name, entry.stored.size);
            {
                const std::lock_guard<std::mutex> guard(mutex);
                if (result == 0) {
                    names.insert(entry.stored.name);
                    waiting.push_back(entry);
                }
                if (waiting.empty()) {
                    continue;
                }
                entry = waiting.front();
                waiting.pop_front();
            }
            const bool good =
                IsNumbered(CSharedQueryObject::GetCursor(entry.stored.name, entry.stored.size), entry.number);
            const std::lock_guard<std::mutex> guard(mutex);
            whole += good ? 1 : 0;
        }
    };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < THREADS; ++thread) {
        threads.emplace_back(provide, thread);
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(10000U, names.size());
    EXPECT_EQ(10000, whole);
    EXPECT_THAT(SharedObjects(), IsEmpty());
}

// ---- Consumers that die -------------------------------------------------------------------------------

struct Death {
    const char* call;
    int skip;
    bool left;
};

class ConsumerKilled : public support::SharedTest, public testing::WithParamInterface<Death> {};

TEST_P(ConsumerKilled, NextFetch_ReceivesTheResultUnlessItWasRemoved) {
    const Death& death = GetParam();
    const Stored stored = Store(Numbered(5));
    OtherProcess consumer([&](int) {
        int calls = 0;
        ShmFaults faults;
        faults.Before(death.call, [&] {
            if (calls++ == death.skip) {
                raise(SIGKILL);
            }
        });
        CSharedQueryObject::GetCursor(stored.name, stored.size);
        return 0;
    });
    ASSERT_EQ("signal 9", consumer.Wait());
    EXPECT_EQ(death.left, ObjectExists(stored.name));
    EXPECT_EQ(death.left, IsNumbered(CSharedQueryObject::GetCursor(stored.name, stored.size), 5));
    EXPECT_EQ(nullptr, CSharedQueryObject::GetCursor(stored.name, stored.size));
}

INSTANTIATE_TEST_SUITE_P(Before, ConsumerKilled,
                         testing::Values(Death{"flock", 0, true}, Death{"fstat", 0, true},
                                         Death{"mmap", 0, true}, Death{"fstat", 1, true},
                                         Death{"munmap", 0, true}, Death{"shm_unlink", 0, true},
                                         Death{"close", 0, false}),
                         [](const testing::TestParamInfo<Death>& param) {
                             return std::string(param.param.call) + std::to_string(param.param.skip);
                         });

// One consumer holds the object between mapping and removing, another waits for it.
class ConsumerThatWaits : public support::SharedTest {
protected:
    ConsumerThatWaits() : m_numbers(1) {}

    void Begin(std::shared_ptr<ISQLiteCursor> cursor) {
        m_stored = Store(cursor);
        m_holder = std::make_unique<OtherProcess>([this](int report) {
            ShmFaults faults;
            faults.Before("munmap", [&] {
                Report(report, "holding\n");
                m_numbers.Await(0, 1);
            });
            Report(report, Fetch());
            return 0;
        });
        ASSERT_EQ("holding", m_holder->ReadLine());
        m_waiter = std::make_unique<OtherProcess>([this](int report) {
            ShmFaults faults;
            faults.Before("flock", [&] { Report(report, "waiting\n"); });
            Report(report, Fetch());
            return 0;
        });
        ASSERT_EQ("waiting", m_waiter->ReadLine());
        ASSERT_TRUE(ObjectExists(m_stored.name));
    }

    Stored m_stored;
    SharedNumbers m_numbers;
    std::unique_ptr<OtherProcess> m_holder;
    std::unique_ptr<OtherProcess> m_waiter;

private:
    std::string Fetch() const {
        const auto cursor = CSharedQueryObject::GetCursor(m_stored.name, m_stored.size);
        return !cursor ? "nothing\n" : IsNumbered(cursor, 5) ? "whole\n" : "damaged\n";
    }

    void TearDown() override {
        m_holder.reset();
        m_waiter.reset();
        SharedTest::TearDown();
    }
};

TEST_F(ConsumerThatWaits, HolderEnds_NothingIsLeftForIt) {
    Begin(Numbered(5));
    m_numbers[0] = 1;
    EXPECT_EQ("whole", m_holder->ReadLine());
    EXPECT_EQ("nothing", m_waiter->ReadLine());
    EXPECT_EQ("exit 0", m_holder->Wait());
    EXPECT_EQ("exit 0", m_waiter->Wait());
}

TEST_F(ConsumerThatWaits, HolderIsKilled_ReceivesTheResult) {
    Begin(Numbered(5));
    m_holder->Kill();
    EXPECT_EQ("whole", m_waiter->ReadLine());
    EXPECT_EQ("signal 9", m_holder->Wait());
    EXPECT_EQ("exit 0", m_waiter->Wait());
    EXPECT_FALSE(ObjectExists(m_stored.name));
}

// ---- A system that is short of something --------------------------------------------------------------

// Gives this process a /dev/shm of its own, of 1 MiB. Returns what is not allowed, or null.
const char* EnterSmallSharedMemory() {
    if (!support::EnterOwnMounts()) {
        return "mounts of its own";
    }
    if (mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=1m") != 0) {
        return "mounting a tmpfs";
    }
    return nullptr;
}

const char* const NOT_ALLOWED = "not allowed here: ";

TEST_F(HandOver, SharedMemoryIsFull_Minus14AndTheProcessLives) {
    OtherProcess provider([](int report) {
        const char* const refused = EnterSmallSharedMemory();
        if (refused != nullptr) {
            Report(report, NOT_ALLOWED + std::string(refused));
            return 0;
        }
        const RequestIdsFrom fresh(0);
        const Stored small = Store(ResultOf(600000));
        const LogCapture log;
        for (const int size : {1500000, 600000}) {
            Stored stored{"before", 42};
            const int result =
                CSharedQueryObject::StoreCursor(ResultOf(size), SharedKey(), stored.name, stored.size);
            Report(report, Shown(result, stored) + Joined(log.Lines()) + Joined(SharedObjects()));
        }
        const auto cursor = CSharedQueryObject::GetCursor(small.name, small.size);
        Report(report, cursor && cursor->GetNumbersOfRows() == 1 ? "fetched\n" : "lost\n");
        const Stored again = Store(ResultOf(600000));
        Report(report, CSharedQueryObject::GetCursor(again.name, again.size) ? "fetched\n" : "lost\n");
        Report(report, Joined(SharedObjects()));
        return 0;
    });
    const std::string said = provider.ReadAll();
    EXPECT_EQ("exit 0", provider.Wait());
    if (said.rfind(NOT_ALLOWED, 0) == 0) {
        GTEST_SKIP() << said;
    }
    const std::string lines =
        "I ShmCreateObject > fturncate error .\n"
        "I StoreCursor > Shared memory create has failed\n"
        "I StoreCursor > Get Shared memory has failed\n";
    EXPECT_EQ("-14 [] 0\n" + lines + SharedName("1") + "\n" +  //
                  "-14 [] 0\n" + lines + lines + SharedName("1") + "\n" + "fetched\nfetched\n",
              said);
}

// Makes this process an ordinary user's, where it is not one already.
bool BecomeOrdinaryUser() {
    constexpr uid_t NOBODY = 65534;
    return geteuid() != 0 || (setgroups(0, nullptr) == 0 && setgid(NOBODY) == 0 && setuid(NOBODY) == 0);
}

TEST_F(HandOver, LockedMemoryIsLimited_Minus14AndTheProcessLives) {
    OtherProcess provider([](int report) {
        const rlimit limit{65536, 65536};
        if (setrlimit(RLIMIT_MEMLOCK, &limit) != 0 || !BecomeOrdinaryUser()) {
            Report(report, NOT_ALLOWED + std::string("another user or limit"));
            return 0;
        }
        const RequestIdsFrom fresh(0);
        const LogCapture log;
        Stored stored{"before", 42};
        const int result =
            CSharedQueryObject::StoreCursor(ResultOf(200000), SharedKey(), stored.name, stored.size);
        Report(report, Shown(result, stored) + Joined(log.Lines()) + Joined(SharedObjects()));
        const Stored small = Store(Numbered(5));
        Report(report, small.name + "\n");
        Report(report,
               IsNumbered(CSharedQueryObject::GetCursor(small.name, small.size), 5) ? "fetched\n" : "lost\n");
        Report(report, Joined(SharedObjects()));
        return 0;
    });
    const std::string said = provider.ReadAll();
    EXPECT_EQ("exit 0", provider.Wait());
    if (said.rfind(NOT_ALLOWED, 0) == 0) {
        GTEST_SKIP() << said;
    }
    EXPECT_EQ(
        "-14 [] 0\nI ShmCreateObject > Get ptr fail\n\n"
        "I StoreCursor > Shared memory create has failed\n"
        "I StoreCursor > Get Shared memory has failed\n" +
            SharedName("2") + "\nfetched\n",
        said);
}

TEST_F(HandOver, ConsumerOfAnotherUser_IsRefusedAndTheResultStays) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs the rights to become another user";
    }
    const mode_t mask = umask(022);
    const Stored stored = Store(Numbered(5));
    umask(mask);
    OtherProcess consumer([&stored](int report) {
        if (!BecomeOrdinaryUser()) {
            return 1;
        }
        const LogCapture log;
        const auto cursor = CSharedQueryObject::GetCursor(stored.name, stored.size);
        Report(report, (cursor ? "fetched\n" : "nothing\n") + Joined(log.Lines()));
        return 0;
    });
    EXPECT_EQ("nothing\nI ShmGetObject > Error number : 13\nI GetCursor > Get Shared memory has failed\n",
              consumer.ReadAll());
    EXPECT_EQ("exit 0", consumer.Wait());
    EXPECT_TRUE(IsNumbered(CSharedQueryObject::GetCursor(stored.name, stored.size), 5));
}

}  // namespace

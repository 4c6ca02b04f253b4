#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "SharedQueryObject.h"
#include "SharedResults.h"
#include "Shortages.h"

// Shared results without memory.

namespace {

using namespace shortage;
using support::ObjectExists;
using support::OpenSharedObject;
using support::SharedKey;
using support::SharedName;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::vector<std::string> kCells = {"1|a text that is longer than a short one",
                                         "2|a second text of that length",
                                         "3|and the third and last of them"};

// A preloaded cursor, as a provider stores it.
std::shared_ptr<ISQLiteCursor> Source() {
    return support::Stepped(
        "VALUES ('1', 'a text that is longer than a short one'), ('2', 'a second text of that length'), "
        "('3', 'and the third and last of them')");
}

class SharedShortage : public support::SharedTest {
protected:
    std::string key = SharedKey() + "with-an-end-that-no-short-text-holds-";
};

const std::vector<std::string> kStoring = {"StoreCursor", "SerializeCursorData", "ShmCreateObject",
                                           "ProviderNewRequestID"};
const std::vector<std::string> kFetching = {"GetCursor", "ShmGetObject", "DeserializeCursorData"};

TEST_F(SharedShortage, ObjectAndItsEnd_NeedNoMemory) {
    ExpectNone([](Attempt& attempt) {
        alignas(OpenSharedObject) unsigned char place[sizeof(OpenSharedObject)];
        attempt.Run([&] {
            auto* const object = new (place) OpenSharedObject;
            object->~OpenSharedObject();
        });
        EXPECT_THAT(attempt.Lines(), IsEmpty());
    });
}

TEST_F(SharedShortage, RequestIds_NeedNoMemory) {
    ExpectNone([](Attempt& attempt) {
        const support::RequestIdsFrom ids(41);
        std::string id;
        int last = 0;
        attempt.Run([&] {
            id = CSharedQueryObject::ProviderNewRequestID();
            last = CSharedQueryObject::GetRequestID() + ISharedQueryObject::GetRequestID();
        });
        EXPECT_EQ(id, "42");
        EXPECT_EQ(last, 84);
    });
}

using Store = int (*)(std::shared_ptr<ISQLiteCursor>, const std::string&, std::string&, int&);

TEST_F(SharedShortage, StoreCursor_LeavesNothingOrAWholeResult) {
    const auto source = Source();
    for (const Store store : {&ISharedQueryObject::StoreCursor, &CSharedQueryObject::StoreCursor}) {
        int refused = 0;
        Sweep(kStoring, [&](Attempt& attempt) {
            std::string name = "before";
            int size = 42;
            int code = 1;
            auto given = source;
            attempt.Run([&] { code = store(std::move(given), key, name, size); });
            if (code != 0) {
                ++refused;
                EXPECT_EQ(code, -14);
                EXPECT_EQ(name, "");
                EXPECT_EQ(size, 0);
                EXPECT_THAT(support::SharedObjects(), IsEmpty());
                ASSERT_EQ(store(source, key, name, size), 0);
            }
            EXPECT_THAT(support::SharedObjects(), ElementsAre(name));
            const auto fetched = ISharedQueryObject::GetCursor(name, size);
            ASSERT_NE(fetched, nullptr);
            EXPECT_EQ(Walk(*fetched), kCells);
        });
        EXPECT_GE(refused, 2);
    }
}

using Fetch = std::shared_ptr<ISQLiteCursor> (*)(const std::string&, const int&);

TEST_F(SharedShortage, GetCursor_GivesAWholeResultOrNone) {
    const auto source = Source();
    for (const Fetch fetch : {&ISharedQueryObject::GetCursor, &CSharedQueryObject::GetCursor}) {
        int none = 0;
        Sweep(kFetching, [&](Attempt& attempt) {
            std::string name;
            int size = 0;
            ASSERT_EQ(ISharedQueryObject::StoreCursor(source, key, name, size), 0);
            std::shared_ptr<ISQLiteCursor> cursor;
            attempt.Run([&] { cursor = fetch(name, size); });
            EXPECT_EQ(cursor == nullptr, attempt.Failed() > 0);
            if (cursor == nullptr) {
                ++none;
                // What is left of an object can be stored and fetched anew.
                shm_unlink(name.c_str());
                ASSERT_EQ(ISharedQueryObject::StoreCursor(source, key, name, size), 0);
                cursor = fetch(name, size);
                ASSERT_NE(cursor, nullptr);
            }
            EXPECT_EQ(Walk(*cursor), kCells);
            EXPECT_FALSE(ObjectExists(name));
        });
        EXPECT_GE(none, 10);
    }
}

TEST_F(SharedShortage, SerializeCursorData_IsWholeOrRefused) {
    const auto source = Source();
    const int count = Sweep({"SerializeCursorData"}, [&](Attempt& attempt) {
        OpenSharedObject object;
        int code = 1;
        auto given = source;
        attempt.Run([&] { code = object.SerializeCursorData(std::move(given)); });
        EXPECT_EQ(code, attempt.Failed() > 0 ? -12 : 0);
        if (code != 0) {
            EXPECT_EQ(object.SerializeCursorData(source), 0);
        }
        const auto cursor =
            CSharedQueryObject::DeserializeCursorData(object.m_buffer.data(), object.m_dataSize);
        ASSERT_NE(cursor, nullptr);
        EXPECT_EQ(Walk(*cursor), kCells);
    });
    EXPECT_GE(count, 1);
}

TEST_F(SharedShortage, DeserializeCursorData_GivesAWholeResultOrNone) {
    OpenSharedObject object;
    ASSERT_EQ(object.SerializeCursorData(Source()), 0);
    const int count = Sweep({"DeserializeCursorData"}, [&](Attempt& attempt) {
        std::shared_ptr<ISQLiteCursor> cursor;
        attempt.Run([&] {
            cursor = CSharedQueryObject::DeserializeCursorData(object.m_buffer.data(), object.m_dataSize);
        });
        EXPECT_EQ(cursor == nullptr, attempt.Failed() > 0);
        if (cursor == nullptr) {
            cursor = CSharedQueryObject::DeserializeCursorData(object.m_buffer.data(), object.m_dataSize);
            ASSERT_NE(cursor, nullptr);
        }
        EXPECT_EQ(Walk(*cursor), kCells);
    });
    EXPECT_GE(count, 10);
}

// The system's part of the work: names are copied nowhere, and bytes are mapped.
TEST_F(SharedShortage, Segments_NeedNoMemory) {
    const std::string name = SharedName("segment-with-a-long-name");
    ExpectNone([&](Attempt& attempt) {
        OpenSharedObject provider;
        OpenSharedObject consumer;
        provider.m_name = name;
        consumer.m_name = name;
        int created = 1;
        int detached = 1;
        const char* mapped = nullptr;
        int removed = 1;
        attempt.Run([&] {
            created = provider.ShmCreateObject(100);
            provider.m_size = 100;
            detached = provider.DetachData();
            mapped = consumer.ShmGetObject(100);
            removed = consumer.ShmRemoveObject(100);
        });
        EXPECT_EQ(created, 0);
        EXPECT_EQ(detached, 0);
        EXPECT_NE(mapped, nullptr);
        EXPECT_EQ(removed, 0);
        EXPECT_FALSE(ObjectExists(name));
    });
}

// Read by scripts/soak.
class Figures : public ::testing::Environment {
public:
    void TearDown() override {
        std::printf("memory: %d calls of operations, %d of them with an allocation that failed\n",
                    Attempt::Calls(), Attempt::CallsWithAFailure());
    }
};
const auto* const g_figures = ::testing::AddGlobalTestEnvironment(new Figures);

}  // namespace

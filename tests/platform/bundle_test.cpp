#include <bundle.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Free {
    void operator()(bundle* b) const { bundle_free(b); }
};
using BundleHandle = std::unique_ptr<bundle, Free>;

BundleHandle Make() { return BundleHandle(bundle_create()); }

struct Entry {
    const char* key;
    int type;
    const bundle_keyval_t* value;
};

std::vector<Entry> Entries(bundle* b) {
    std::vector<Entry> entries;
    bundle_foreach(
        b,
        [](const char* key, const int type, const bundle_keyval_t* value, void* data) {
            static_cast<std::vector<Entry>*>(data)->push_back({key, type, value});
        },
        &entries);
    return entries;
}

std::vector<std::string> Keys(bundle* b) {
    std::vector<std::string> keys;
    for (const Entry& entry : Entries(b)) {
        keys.emplace_back(entry.key);
    }
    return keys;
}

// The value of the entry at a position with `behind` bytes more than its size, or what went wrong.
std::string Bytes(bundle* b, std::size_t position, std::size_t behind = 0) {
    void* data = nullptr;
    std::size_t size = 0;
    auto* value = const_cast<bundle_keyval_t*>(Entries(b).at(position).value);
    const int result = bundle_keyval_get_basic_val(value, &data, &size);
    return result == 0 ? std::string(static_cast<const char*>(data), size + behind)
                       : "failed with " + std::to_string(result);
}

// Three entries, one of each type.
BundleHandle MakeMixed() {
    BundleHandle b = Make();
    const char* texts[] = {"a", "bc"};
    EXPECT_EQ(bundle_add_str(b.get(), "text", "value"), 0);
    EXPECT_EQ(bundle_add_byte(b.get(), "bytes", "1\0002", 3), 0);
    EXPECT_EQ(bundle_add_str_array(b.get(), "array", texts, 2), 0);
    return b;
}

using Add = std::function<int(bundle*, const char*)>;

struct Adder {
    const char* name;
    Add add;
};
void PrintTo(const Adder& adder, std::ostream* out) { *out << adder.name; }

class EveryAdder : public ::testing::TestWithParam<Adder> {};

const char* const kTexts[] = {"x"};

INSTANTIATE_TEST_SUITE_P(
    Bundle, EveryAdder,
    ::testing::Values(Adder{"Text", [](bundle* b, const char* key) { return bundle_add_str(b, key, "x"); }},
                      Adder{"Bytes",
                            [](bundle* b, const char* key) { return bundle_add_byte(b, key, "x", 1); }},
                      Adder{"Array",
                            [](bundle* b, const char* key) {
                                return bundle_add_str_array(b, key, const_cast<const char**>(kTexts), 1);
                            }}),
    [](const ::testing::TestParamInfo<Adder>& adder) { return adder.param.name; });

TEST_P(EveryAdder, NullBundle_IsRefused) { EXPECT_EQ(GetParam().add(nullptr, "key"), -22); }

TEST_P(EveryAdder, NullKey_IsRefused) {
    const BundleHandle b = MakeMixed();
    EXPECT_EQ(GetParam().add(b.get(), nullptr), -22);
    EXPECT_THAT(Keys(b.get()), ElementsAre("text", "bytes", "array"));
}

TEST_P(EveryAdder, EmptyKey_IsRefused) {
    const BundleHandle b = MakeMixed();
    EXPECT_EQ(GetParam().add(b.get(), ""), -22);
    EXPECT_THAT(Keys(b.get()), ElementsAre("text", "bytes", "array"));
}

TEST_P(EveryAdder, KeyOfAnyType_ExistsOnlyOnce) {
    const BundleHandle b = MakeMixed();
    EXPECT_EQ(GetParam().add(b.get(), "text"), -17);
    EXPECT_EQ(GetParam().add(b.get(), "bytes"), -17);
    EXPECT_EQ(GetParam().add(b.get(), "array"), -17);
    EXPECT_EQ(bundle_get_count(b.get()), 3);
    EXPECT_THAT(Keys(b.get()), ElementsAre("text", "bytes", "array"));
    EXPECT_EQ(Bytes(b.get(), 0), std::string("value\0", 6));
}

TEST_P(EveryAdder, KeysThatOnlyResemble_AreDifferent) {
    const BundleHandle b = MakeMixed();
    EXPECT_EQ(GetParam().add(b.get(), "Text"), 0);
    EXPECT_EQ(GetParam().add(b.get(), "tex"), 0);
    EXPECT_EQ(GetParam().add(b.get(), "text "), 0);
    EXPECT_THAT(Keys(b.get()), ElementsAre("text", "bytes", "array", "Text", "tex", "text "));
}

TEST_P(EveryAdder, Key_IsCopied) {
    const BundleHandle b = Make();
    char key[] = "key";
    EXPECT_EQ(GetParam().add(b.get(), key), 0);
    key[0] = '-';
    EXPECT_THAT(Keys(b.get()), ElementsAre("key"));
}

TEST(BundleCreate, NewBundle_IsEmpty) {
    const BundleHandle b = Make();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(bundle_get_count(b.get()), 0);
    EXPECT_THAT(Keys(b.get()), IsEmpty());
}

TEST(BundleFree, Bundle_IsReleased) {
    EXPECT_EQ(bundle_free(bundle_create()), 0);
    EXPECT_EQ(bundle_free(MakeMixed().release()), 0);
}

TEST(BundleFree, Null_IsAnsweredWithInvalid) { EXPECT_EQ(bundle_free(nullptr), -22); }

TEST(BundleAddStr, Value_IsATextWithItsTerminator) {
    const BundleHandle b = Make();
    EXPECT_EQ(bundle_add_str(b.get(), "key", "value"), 0);
    ASSERT_EQ(bundle_get_count(b.get()), 1);
    EXPECT_EQ(Entries(b.get())[0].type, 1025);
    EXPECT_EQ(Bytes(b.get(), 0), std::string("value\0", 6));
}

TEST(BundleAddStr, EmptyText_IsATextOfOneByte) {
    const BundleHandle b = Make();
    EXPECT_EQ(bundle_add_str(b.get(), "key", ""), 0);
    EXPECT_EQ(Bytes(b.get(), 0), std::string("\0", 1));
}

TEST(BundleAddStr, NullText_IsRefused) {
    const BundleHandle b = Make();
    EXPECT_EQ(bundle_add_str(b.get(), "key", nullptr), -22);
    EXPECT_EQ(bundle_get_count(b.get()), 0);
}

TEST(BundleAddStr, Value_IsCopied) {
    const BundleHandle b = Make();
    char text[] = "value";
    bundle_add_str(b.get(), "key", text);
    text[0] = '-';
    EXPECT_EQ(Bytes(b.get(), 0), std::string("value\0", 6));
}

TEST(BundleAddByte, Value_KeepsItsZerosAndItsSize) {
    const BundleHandle b = Make();
    EXPECT_EQ(bundle_add_byte(b.get(), "key", "\0a\0b", 4), 0);
    ASSERT_EQ(bundle_get_count(b.get()), 1);
    EXPECT_EQ(Entries(b.get())[0].type, 2);
    EXPECT_EQ(Bytes(b.get(), 0), std::string("\0a\0b", 4));
}

TEST(BundleAddByte, Value_IsFollowedByAZeroByte) {
    const BundleHandle b = Make();
    std::vector<std::string> values;
    for (const std::size_t size : {0U, 1U, 7U, 8U, 15U, 16U, 31U, 32U, 1000U, 65536U}) {
        values.emplace_back(size, '\xff');
        bundle_add_byte(b.get(), std::to_string(size).c_str(), values.back().data(), size);
    }
    for (std::size_t i = 0; i < values.size(); ++i) {
        EXPECT_EQ(Bytes(b.get(), i, 1), values[i] + '\0') << "of " << values[i].size() << " bytes";
    }
}

TEST(BundleAddByte, NullBytes_AreRefused) {
    const BundleHandle b = Make();
    EXPECT_EQ(bundle_add_byte(b.get(), "key", nullptr, 1), -22);
    EXPECT_EQ(bundle_add_byte(b.get(), "key", nullptr, 0), -22);
    EXPECT_EQ(bundle_get_count(b.get()), 0);
}

TEST(BundleAddByte, SizeBeyondMemory_LeavesTheBundleAsItWas) {
    const BundleHandle b = MakeMixed();
    EXPECT_EQ(bundle_add_byte(b.get(), "huge", "x", SIZE_MAX), -12);
    EXPECT_EQ(bundle_get_count(b.get()), 3);
    EXPECT_THAT(Keys(b.get()), ElementsAre("text", "bytes", "array"));
    EXPECT_EQ(bundle_add_byte(b.get(), "huge", "x", 1), 0);
    EXPECT_THAT(Keys(b.get()), ElementsAre("text", "bytes", "array", "huge"));
}

TEST(BundleAddByte, Value_IsCopied) {
    const BundleHandle b = Make();
    char bytes[] = {1, 2, 3};
    bundle_add_byte(b.get(), "key", bytes, sizeof bytes);
    bytes[0] = 9;
    EXPECT_EQ(Bytes(b.get(), 0), "\1\2\3");
}

struct Array {
    int result = 0;
    std::vector<std::string> texts;
    std::vector<std::size_t> sizes;
};

Array ArrayAt(bundle* b, std::size_t position) {
    void** texts = nullptr;
    unsigned int length = 0;
    std::size_t* sizes = nullptr;
    Array array;
    array.result = bundle_keyval_get_array_val(const_cast<bundle_keyval_t*>(Entries(b).at(position).value),
                                               &texts, &length, &sizes);
    for (unsigned int i = 0; i < length; ++i) {
        array.texts.emplace_back(static_cast<const char*>(texts[i]));
        array.sizes.push_back(sizes[i]);
    }
    return array;
}

TEST(BundleAddStrArray, Texts_AreCopiedWithTheirSizes) {
    const BundleHandle b = Make();
    char first[] = "first";
    const char* texts[] = {first, "", "a text that is longer than a short one"};
    EXPECT_EQ(bundle_add_str_array(b.get(), "key", texts, 3), 0);
    first[0] = '-';
    texts[1] = nullptr;
    EXPECT_EQ(Entries(b.get())[0].type, 1281);
    const Array array = ArrayAt(b.get(), 0);
    EXPECT_EQ(array.result, 0);
    EXPECT_THAT(array.texts, ElementsAre("first", "", "a text that is longer than a short one"));
    EXPECT_THAT(array.sizes, ElementsAre(6, 1, 39));
}

TEST(BundleAddStrArray, NullText_IsStoredAsAnEmptyOne) {
    const BundleHandle b = Make();
    const char* texts[] = {"a", nullptr, "b"};
    EXPECT_EQ(bundle_add_str_array(b.get(), "key", texts, 3), 0);
    EXPECT_THAT(ArrayAt(b.get(), 0).texts, ElementsAre("a", "", "b"));
    EXPECT_THAT(ArrayAt(b.get(), 0).sizes, ElementsAre(2, 1, 2));
}

TEST(BundleAddStrArray, NoTexts_AreAnArrayAllTheSame) {
    const BundleHandle b = Make();
    const char* texts[] = {"a"};
    EXPECT_EQ(bundle_add_str_array(b.get(), "key", texts, 0), 0);
    EXPECT_EQ(Entries(b.get())[0].type, 1281);
    EXPECT_EQ(ArrayAt(b.get(), 0).result, 0);
    EXPECT_THAT(ArrayAt(b.get(), 0).texts, IsEmpty());
}

TEST(BundleAddStrArray, NullTextsOrNegativeLength_AreRefused) {
    const BundleHandle b = Make();
    const char* texts[] = {"a"};
    EXPECT_EQ(bundle_add_str_array(b.get(), "key", nullptr, 1), -22);
    EXPECT_EQ(bundle_add_str_array(b.get(), "key", nullptr, 0), -22);
    EXPECT_EQ(bundle_add_str_array(b.get(), "key", texts, -1), -22);
    EXPECT_EQ(bundle_get_count(b.get()), 0);
}

TEST(BundleGetCount, EveryType_Counts) { EXPECT_EQ(bundle_get_count(MakeMixed().get()), 3); }

TEST(BundleGetCount, Null_HasNoEntries) { EXPECT_EQ(bundle_get_count(nullptr), 0); }

TEST(BundleForeach, Entries_ComeInTheOrderOfAdding) {
    const BundleHandle b = Make();
    const std::vector<std::string> keys = {"zebra", "apple", "Mango", "10", "9", "apple2", "_id"};
    for (const auto& key : keys) {
        bundle_add_str(b.get(), key.c_str(), key.c_str());
    }
    EXPECT_EQ(Keys(b.get()), keys);
    for (std::size_t i = 0; i < keys.size(); ++i) {
        EXPECT_EQ(Bytes(b.get(), i), keys[i] + '\0');
    }
}

TEST(BundleForeach, Types_AreTold) {
    const BundleHandle b = MakeMixed();
    std::vector<int> types;
    for (const Entry& entry : Entries(b.get())) {
        types.push_back(entry.type);
    }
    EXPECT_THAT(types, ElementsAre(1025, 2, 1281));
}

TEST(BundleForeach, AddressesOfHundredsOfKeys_RiseInTheOrderOfAdding) {
    const BundleHandle b = Make();
    std::vector<std::string> keys;
    for (int i = 0; i < 700; ++i) {
        // Falling numbers and lengths from 3 to 60 and back: neither the text nor the size orders them.
        const auto padding = static_cast<std::size_t>(i % 116 < 58 ? i % 116 : 115 - i % 116);
        keys.push_back(std::to_string(999 - i) + std::string(padding, 'k'));
        const char* key = keys.back().c_str();
        const int added = i % 3 == 0 ? bundle_add_str(b.get(), key, key)
                          : i % 3 == 1
                              ? bundle_add_byte(b.get(), key, key, keys.back().size())
                              : bundle_add_str_array(b.get(), key, const_cast<const char**>(kTexts), 1);
        ASSERT_EQ(added, 0);
        // Failures in between take no place.
        ASSERT_EQ(bundle_add_str(b.get(), keys[keys.size() / 2].c_str(), ""), -17);
    }
    ASSERT_EQ(bundle_get_count(b.get()), 700);
    EXPECT_EQ(Keys(b.get()), keys);
    const std::vector<Entry> entries = Entries(b.get());
    for (std::size_t i = 1; i < entries.size(); ++i) {
        ASSERT_TRUE(std::less<>()(entries[i - 1].key, entries[i].key)) << "key " << i;
    }
}

TEST(BundleForeach, KeysAndValues_StayWhereTheyAreBetweenVisits) {
    const BundleHandle b = MakeMixed();
    const std::vector<Entry> first = Entries(b.get());
    const std::vector<Entry> second = Entries(b.get());
    for (std::size_t i = 0; i < first.size(); ++i) {
        EXPECT_EQ(first[i].key, second[i].key);
        EXPECT_EQ(first[i].value, second[i].value);
    }
}

TEST(BundleForeach, NullArguments_CallNothing) {
    int calls = 0;
    bundle_foreach(
        nullptr,
        [](const char*, const int, const bundle_keyval_t*, void* data) { ++*static_cast<int*>(data); },
        &calls);
    EXPECT_EQ(calls, 0);
    bundle_foreach(MakeMixed().get(), nullptr, &calls);
    bundle_foreach(nullptr, nullptr, nullptr);
    EXPECT_EQ(calls, 0);
}

TEST(BundleForeach, NullUserData_IsHandedOn) {
    static void* seen = &seen;
    bundle_foreach(
        MakeMixed().get(), [](const char*, const int, const bundle_keyval_t*, void* data) { seen = data; },
        nullptr);
    EXPECT_EQ(seen, nullptr);
}

TEST(BundleKeyvalGetBasicVal, Array_IsRefused) {
    const BundleHandle b = MakeMixed();
    EXPECT_EQ(Bytes(b.get(), 0), std::string("value\0", 6));
    EXPECT_EQ(Bytes(b.get(), 1), std::string("1\0002", 3));
    EXPECT_EQ(Bytes(b.get(), 2), "failed with -22");
}

TEST(BundleKeyvalGetBasicVal, NullArguments_AreRefused) {
    const BundleHandle b = MakeMixed();
    auto* value = const_cast<bundle_keyval_t*>(Entries(b.get())[0].value);
    void* data = nullptr;
    std::size_t size = 0;
    EXPECT_EQ(bundle_keyval_get_basic_val(nullptr, &data, &size), -22);
    EXPECT_EQ(bundle_keyval_get_basic_val(value, nullptr, &size), -22);
    EXPECT_EQ(bundle_keyval_get_basic_val(value, &data, nullptr), -22);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(size, 0U);
}

TEST(BundleKeyvalGetArrayVal, TextAndBytes_AreRefused) {
    const BundleHandle b = MakeMixed();
    EXPECT_EQ(ArrayAt(b.get(), 0).result, -22);
    EXPECT_EQ(ArrayAt(b.get(), 1).result, -22);
    EXPECT_EQ(ArrayAt(b.get(), 2).result, 0);
}

TEST(BundleKeyvalGetArrayVal, NullArguments_AreRefused) {
    const BundleHandle b = MakeMixed();
    auto* value = const_cast<bundle_keyval_t*>(Entries(b.get())[2].value);
    void** texts = nullptr;
    unsigned int length = 0;
    std::size_t* sizes = nullptr;
    EXPECT_EQ(bundle_keyval_get_array_val(nullptr, &texts, &length, &sizes), -22);
    EXPECT_EQ(bundle_keyval_get_array_val(value, nullptr, &length, &sizes), -22);
    EXPECT_EQ(bundle_keyval_get_array_val(value, &texts, nullptr, &sizes), -22);
    EXPECT_EQ(bundle_keyval_get_array_val(value, &texts, &length, nullptr), -22);
    EXPECT_EQ(length, 0U);
}

}  // namespace

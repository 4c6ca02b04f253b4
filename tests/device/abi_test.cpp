// What the device's processor and C library fix. On a development machine the same tests run with its own values.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "ContentHelper.h"
#include "Fixtures.h"
#include "SQLiteCursor.h"
#include "SharedQueryObject.h"
#include "TilesDAO.h"
#include "VantryConnection.h"

namespace {

using support::OpenConnection;
using support::OpenCursor;
using support::Prepare;
using support::RawDb;
using testing::ElementsAre;

constexpr bool DEVICE = sizeof(void*) == 4;

using Offsets = std::vector<std::ptrdiff_t>;

Offsets OnDeviceOrHost(const Offsets& device, const Offsets& host) { return DEVICE ? device : host; }

// Where the fields lie in an object.
template <typename Object, typename... Field>
Offsets OffsetsIn(const Object& object, const Field&... field) {
    const auto* const start = reinterpret_cast<const char*>(&object);
    return {(reinterpret_cast<const char*>(&field) - start)...};
}

class OpenLock : public CDBLock {
public:
    using CDBLock::m_mutex;
    using CDBLock::m_name;
};

class OpenScopedLock : public CDBLocalScopedLock {
public:
    using CDBLocalScopedLock::CDBLocalScopedLock;
    using CDBLocalScopedLock::m_pLock;
};

class OpenSharedObject : public CSharedQueryObject {
public:
    using CSharedQueryObject::m_buffer;
    using CSharedQueryObject::m_dataSize;
    using CSharedQueryObject::m_fd;
    using CSharedQueryObject::m_name;
    using CSharedQueryObject::m_pData;
    using CSharedQueryObject::m_size;
};

class OpenHelper : public CContentHelper {
public:
    using CContentHelper::m_database;
    using CContentHelper::m_dbName;
    using CContentHelper::m_dbPath;
    using CContentHelper::m_dbVersion;
    using CContentHelper::m_pLock;

    void OnConfigure(CVantryConnection*) override {}
    void OnCreate(CVantryConnection*) override {}
    void OnUpgrade(CVantryConnection*, int, int) override {}
};

std::shared_ptr<OpenCursor> Stepped(RawDb& db, const std::string& select) {
    auto cursor = std::make_shared<OpenCursor>(db.Handle(), Prepare(db.Handle(), select));
    while (cursor->MoveNextStep() == 0) {
    }
    cursor->FinalizeSQLStatement();
    return cursor;
}

std::string Hexadecimal(const std::vector<char>& bytes) {
    const char* const digits = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        text += digits[value / 16];
        text += digits[value % 16];
    }
    return text;
}

std::string SerializedHexadecimal(const std::shared_ptr<ISQLiteCursor>& cursor) {
    OpenSharedObject object;
    EXPECT_EQ(0, object.SerializeCursorData(cursor));
    return Hexadecimal(object.m_buffer);
}

// ---- Types ----------------------------------------------------------------------------------------------

TEST(Processor, Sizes_AreTheDevices) {
    EXPECT_EQ(DEVICE ? 4U : 8U, sizeof(long));
    EXPECT_EQ(DEVICE ? 4U : 8U, sizeof(std::size_t));
    EXPECT_EQ(4U, sizeof(int));
    EXPECT_EQ(8U, sizeof(long long));
    EXPECT_EQ(8U, sizeof(double));
    EXPECT_EQ(8U, alignof(long long));
}

// 32 bits are the C library's default on the device; the library is built with it.
TEST(Processor, FileOffsetsAndTimes_KeepTheDefaultWidth) {
    EXPECT_EQ(DEVICE ? 4U : 8U, sizeof(off_t));
    EXPECT_EQ(DEVICE ? 4U : 8U, sizeof(std::time_t));
}

TEST(Processor, ByteOrder_IsLittleEndian) {
    const std::uint32_t number = 0x04030201;
    char bytes[4];
    std::memcpy(bytes, &number, sizeof bytes);
    EXPECT_THAT(bytes, ElementsAre(1, 2, 3, 4));
}

TEST(Processor, DeviceBuild_IsArmWithHardFloat) {
#if defined(__arm__) && defined(__ARM_EABI__) && defined(__ARM_PCS_VFP)
    constexpr bool arm = true;
#else
    constexpr bool arm = false;
#endif
    EXPECT_EQ(DEVICE, arm);
}

#if defined(__arm__)
TEST(Processor, Char_HasNoSign) { EXPECT_FALSE(std::is_signed<char>::value); }
#endif

// ---- Flags ----------------------------------------------------------------------------------------------

TEST(Flags, SharedMemory_HaveTheDevicesValues) {
    EXPECT_EQ(0x442, O_RDWR | O_CREAT | O_APPEND);
    EXPECT_EQ(0x2001, MAP_SHARED | MAP_LOCKED);
    EXPECT_EQ(0x3, PROT_READ | PROT_WRITE);
}

// ---- Order of fields ------------------------------------------------------------------------------------

TEST(Fields, OfALock) {
    const OpenLock lock;
    EXPECT_EQ(OnDeviceOrHost({4, 28}, {8, 40}), OffsetsIn(lock, lock.m_name, lock.m_mutex));
    const OpenScopedLock guard(&lock);
    EXPECT_EQ(OnDeviceOrHost({4}, {8}), OffsetsIn(guard, guard.m_pLock));
}

TEST(Fields, OfAConnection) {
    const OpenConnection db("/nowhere/", "none.db", 1);
    EXPECT_EQ(OnDeviceOrHost({4, 8, 32, 56, 60, 64}, {8, 16, 48, 80, 84, 88}),
              OffsetsIn(db, db.m_pLock, db.m_dbPath, db.m_dbName, db.m_openMode, db.m_foreignKeysEnabled,
                        db.m_pDB));
}

TEST(Fields, OfACursor) {
    const OpenCursor cursor;
    EXPECT_EQ(OnDeviceOrHost({4, 8, 12, 16, 20, 24, 28}, {8, 12, 16, 24, 32, 40, 48}),
              OffsetsIn(cursor, cursor.m_columnCount, cursor.m_rowCount, cursor.m_pCache,
                        cursor.m_bStatementOwned, cursor.m_pStmt, cursor.m_pDB, cursor.m_currentRowIndex));
}

TEST(Fields, OfACachedValueRowAndCache) {
    const CDbColumn column;
    EXPECT_EQ(OnDeviceOrHost({0, 4, 8}, {0, 4, 8}),
              OffsetsIn(column, column.type, column.size, column.value));
    const CDbRow row;
    EXPECT_EQ(OnDeviceOrHost({0, 12, 16}, {0, 24, 28}), OffsetsIn(row, row.columns, row.isCached, row.size));
    const CSQLiteCursorCache cache;
    EXPECT_EQ(OnDeviceOrHost({0, 4, 8, 20}, {0, 8, 16, 40}),
              OffsetsIn(cache, cache.cacheSize, cache.currentRow, cache.columnNames, cache.rows));
}

TEST(Fields, OfASharedObject) {
    const OpenSharedObject object;
    EXPECT_EQ(OnDeviceOrHost({4, 28, 32, 36, 40, 44}, {8, 40, 44, 48, 56, 64}),
              OffsetsIn(object, object.m_name, object.m_size, object.m_dataSize, object.m_pData, object.m_fd,
                        object.m_buffer));
}

TEST(Fields, OfAHelper) {
    const OpenHelper helper;
    EXPECT_EQ(OnDeviceOrHost({4, 8, 32, 56, 60}, {8, 16, 48, 80, 88}),
              OffsetsIn(helper, helper.m_pLock, helper.m_dbName, helper.m_dbPath, helper.m_dbVersion,
                        helper.m_database));
}

TEST(Fields, OfATilesQueryAndItsAnswer) {
    const PT_CONSUMER_SELECT_IN_PARAM in;
    EXPECT_EQ(
        OnDeviceOrHost({0, 24, 48, 60, 84, 96}, {0, 32, 64, 88, 120, 144}),
        OffsetsIn(in, in.uri, in.selection, in.selectionArgs, in.sortOrder, in.projection, in.extraClause));
    const PT_CONSUMER_SELECT_OUT_PARAM out;
    EXPECT_EQ(OnDeviceOrHost({0, 4}, {0, 8}), OffsetsIn(out, out.result, out.cursor));
}

// ---- Numbers --------------------------------------------------------------------------------------------

TEST(ToSQLFormat, Long_WritesItsWholeRange) {
    EXPECT_EQ(DEVICE ? "2147483647" : "9223372036854775807",
              CContentHelper::ToSQLFormat(std::numeric_limits<long>::max()));
    EXPECT_EQ(DEVICE ? "-2147483648" : "-9223372036854775808",
              CContentHelper::ToSQLFormat(std::numeric_limits<long>::min()));
    EXPECT_EQ("-42", CContentHelper::ToSQLFormat(-42L));
}

TEST(ToSQLFormat, LongLong_Has64BitsEverywhere) {
    EXPECT_EQ("9223372036854775807", CContentHelper::ToSQLFormat(std::numeric_limits<long long>::max()));
    EXPECT_EQ("-9223372036854775808", CContentHelper::ToSQLFormat(std::numeric_limits<long long>::min()));
}

TEST(ToSQLFormat, CharAboveAscii_KeepsItsByte) { EXPECT_EQ("\xc3", CContentHelper::ToSQLFormat('\xc3')); }

TEST(GetIntegerData, Above32Bits_GivesTheLowOnes) {
    RawDb db(":memory:");
    const auto cursor = Stepped(db, "SELECT 8589934597");
    ASSERT_EQ(0, cursor->MoveFirstStep());
    int low = 0;
    long long whole = 0;
    EXPECT_EQ(0, cursor->GetIntegerData(0, low));
    EXPECT_EQ(0, cursor->GetInteger64Data(0, whole));
    EXPECT_EQ(5, low);
    EXPECT_EQ(8589934597LL, whole);
}

// ---- Serialised bytes -----------------------------------------------------------------------------------

TEST(SerializeCursorData, ExampleOfTheDocument_HasTheSameBytesEverywhere) {
    RawDb db(":memory:");
    EXPECT_EQ(
        "0200000001000000"
        "03000000696400"
        "050000006e616d6500"
        "01000000080000000700000000000000"
        "0300000003000000616200",
        SerializedHexadecimal(Stepped(db, "SELECT 7 AS id, 'ab' AS name")));
}

// The numbers are exact in binary: SQLite reads other decimal texts with the processor's widest type, so their last
// bits may differ.
TEST(SerializeCursorData, EveryType_HasTheSameBytesEverywhere) {
    RawDb db(":memory:");
    EXPECT_EQ(
        "0500000002000000"
        "020000006100"
        "020000006200"
        "020000006300"
        "020000006400"
        "020000006500"
        "0100000008000000feffffffffffffff"
        "0200000008000000000000000000f8bf"
        "0300000003000000c3a400"
        "040000000400000000ff8000"
        "0500000000000000"
        "0100000008000000ffffffffffffff7f"
        "020000000800000000008054346f9d41"
        "030000000100000000"
        "040000000100000000"
        "0500000000000000",
        SerializedHexadecimal(Stepped(db,
                                      "SELECT -2 AS a, -1.5 AS b, 'ä' AS c, x'00ff80' AS d, NULL AS e "
                                      "UNION ALL SELECT 9223372036854775807, 123456789.125, '', x'', NULL")));
}

TEST(DeserializeCursorData, BytesOfAnotherMachine_GiveTheSameRow) {
    char block[] =
        "\x02\x00\x00\x00\x01\x00\x00\x00"
        "\x02\x00\x00\x00n\x00\x02\x00\x00\x00t\x00"
        "\x01\x00\x00\x00\x08\x00\x00\x00\xfe\xff\xff\xff\xff\xff\xff\xff"
        "\x03\x00\x00\x00\x03\x00\x00\x00\xc3\xa4\x00";
    const auto cursor = CSharedQueryObject::DeserializeCursorData(block, sizeof block - 1);
    ASSERT_NE(nullptr, cursor);
    ASSERT_EQ(0, cursor->MoveNextStep());
    long long number = 0;
    std::string text;
    EXPECT_EQ(0, cursor->GetInteger64Data(0, number));
    EXPECT_EQ(0, cursor->GetStringData(1, text));
    EXPECT_EQ(-2, number);
    EXPECT_EQ("ä", text);
}

// The largest length that a block can name does not wrap round when it is added to an offset of 32 bits.
TEST(DeserializeCursorData, LengthNearTheAddressSpace_IsRefused) {
    char block[] =
        "\x01\x00\x00\x00\x01\x00\x00\x00"
        "\x02\x00\x00\x00t\x00"
        "\x03\x00\x00\x00\xff\xff\xff\x7f"
        "a\x00";
    const auto cursor = CSharedQueryObject::DeserializeCursorData(block, sizeof block - 1);
    ASSERT_NE(nullptr, cursor);
    EXPECT_EQ(-22, cursor->MoveNextStep());
}

}  // namespace

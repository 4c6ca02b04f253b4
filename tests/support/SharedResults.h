#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Fixtures.h"
#include "SharedQueryObject.h"

namespace support {

class OpenSharedObject : public CSharedQueryObject {
public:
    using CSharedQueryObject::m_buffer;
    using CSharedQueryObject::m_dataSize;
    using CSharedQueryObject::m_fd;
    using CSharedQueryObject::m_name;
    using CSharedQueryObject::m_pData;
    using CSharedQueryObject::m_size;
};

// A part of the names of this test program's objects, different from that of every other process. A forked child
// has that of its parent.
const std::string& SharedKey();
// The name of an object that the library does not make by itself.
std::string SharedName(const std::string& end);
// The names of the objects that carry the key, in order.
std::vector<std::string> SharedObjects();
// Makes an object with these bytes, past the library.
void MakeObject(const std::string& name, const std::string& bytes);
// The bytes of an object; "(none)" when there is none.
std::string ObjectBytes(const std::string& name);
bool ObjectExists(const std::string& name);

bool IsOpen(int descriptor);
// The descriptors of this process.
int OpenDescriptors();

// A test that leaves no object behind, and no descriptor open.
class SharedTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

private:
    int m_descriptors = 0;
};

// Lets the ids begin anew while it lives.
class RequestIdsFrom {
public:
    explicit RequestIdsFrom(int id);
    RequestIdsFrom(const RequestIdsFrom&) = delete;
    RequestIdsFrom& operator=(const RequestIdsFrom&) = delete;
    ~RequestIdsFrom();

private:
    int m_before;
};

// A cursor over a select in a database in memory, moved to its end (or only onto its first row), its statement gone.
std::shared_ptr<CSQLiteCursor> Stepped(const std::string& select, bool toTheEnd = true);
std::shared_ptr<CSQLiteCursor> Stepped(RawDb& db, const std::string& select, bool toTheEnd = true);

// One value for a row made by hand; `bytes` is held without the closing zero byte.
struct Value {
    int type;
    std::string bytes;
};
Value Integer(std::int64_t number);
Value Float(double number);
Value Text(const std::string& text);
Value Blob(const std::string& bytes);
Value Null();
CDbRow* MakeRow(const std::vector<Value>& values);
// A cursor whose fields and cache hold just this.
std::shared_ptr<OpenCursor> MakeCursor(int columnCount, int rowCount, const std::vector<std::string>& names,
                                       const std::vector<std::vector<Value>>& rows);

// The rows in a cursor's cache, each as its columns' "type:size:bytes" in hexadecimal digits, joined with a space.
std::vector<std::string> CachedRows(ISQLiteCursor& cursor);
std::vector<std::string> CachedNames(ISQLiteCursor& cursor);
std::string Shown(const Value& value);

// A block or an object, put together field by field, in the byte order of the platform.
std::string Int(std::int32_t value);
std::string Long(std::int64_t value);
std::string Name(const std::string& name);
std::string Cell(int type, const std::string& data);

// Reads a field of a cursor that is no OpenCursor.
template <typename Field>
Field& FieldOf(ISQLiteCursor& cursor, Field CSQLiteCursor::*field) {
    return dynamic_cast<CSQLiteCursor&>(cursor).*field;
}

}  // namespace support

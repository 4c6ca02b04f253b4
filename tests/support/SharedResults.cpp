#include "SharedResults.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace support {

namespace {

void Require(bool good, const char* what) {
    if (!good) {
        std::perror(what);
        std::abort();
    }
}

std::vector<std::string> ObjectsOf(const std::string& key) {
    std::vector<std::string> names;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", none)) {
        const std::string name = entry.path().filename().string();
        if (name.find(key) != std::string::npos) {
            names.push_back("/" + name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Made before any child is forked. Ids of processes come back: a program that crashed may have left objects of this key.
std::string MakeKey() {
    std::string key = "test" + std::to_string(getpid()) + "-";
    for (const std::string& name : ObjectsOf(key)) {
        shm_unlink(name.c_str());
    }
    return key;
}

const std::string g_key = MakeKey();

std::string Raw(const void* bytes, std::size_t size) {
    return std::string(static_cast<const char*>(bytes), size);
}

}  // namespace

const std::string& SharedKey() { return g_key; }

std::string SharedName(const std::string& end) { return "/.vantry_" + SharedKey() + end; }

std::vector<std::string> SharedObjects() { return ObjectsOf(SharedKey()); }

void MakeObject(const std::string& name, const std::string& bytes) {
    const int descriptor = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
    Require(descriptor >= 0, name.c_str());
    Require(write(descriptor, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "write");
    close(descriptor);
}

std::string ObjectBytes(const std::string& name) {
    const int descriptor = shm_open(name.c_str(), O_RDONLY, 0);
    if (descriptor < 0) {
        return "(none)";
    }
    struct stat status {};
    Require(fstat(descriptor, &status) == 0, "fstat");
    std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
    Require(read(descriptor, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "read");
    close(descriptor);
    return bytes;
}

bool ObjectExists(const std::string& name) { return ObjectBytes(name) != "(none)"; }

bool IsOpen(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

int OpenDescriptors() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        ++count;
    }
    return count;
}

void SharedTest::SetUp() {
    ASSERT_THAT(SharedObjects(), testing::IsEmpty());
    m_descriptors = OpenDescriptors();
}

void SharedTest::TearDown() {
    EXPECT_EQ(m_descriptors, OpenDescriptors());
    const auto left = SharedObjects();
    EXPECT_THAT(left, testing::IsEmpty());
    for (const auto& name : left) {
        shm_unlink(name.c_str());
    }
}

RequestIdsFrom::RequestIdsFrom(int id) : m_before(CSharedQueryObject::m_requestId) {
    CSharedQueryObject::m_requestId = id;
}

RequestIdsFrom::~RequestIdsFrom() { CSharedQueryObject::m_requestId = m_before; }

std::shared_ptr<CSQLiteCursor> Stepped(RawDb& db, const std::string& select, bool toTheEnd) {
    auto cursor = std::make_shared<CSQLiteCursor>(db.Handle(), Prepare(db.Handle(), select));
    while (cursor->MoveNextStep() == 0 && toTheEnd) {
    }
    cursor->FinalizeSQLStatement();
    return cursor;
}

std::shared_ptr<CSQLiteCursor> Stepped(const std::string& select, bool toTheEnd) {
    RawDb db(":memory:");
    return Stepped(db, select, toTheEnd);
}

Value Integer(std::int64_t number) { return {SQLITE_INTEGER, Raw(&number, sizeof number)}; }
Value Float(double number) { return {SQLITE_FLOAT, Raw(&number, sizeof number)}; }
Value Text(const std::string& text) { return {SQLITE_TEXT, text}; }
Value Blob(const std::string& bytes) { return {SQLITE_BLOB, bytes}; }
Value Null() { return {SQLITE_NULL, ""}; }

CDbRow* MakeRow(const std::vector<Value>& values) {
    auto row = std::make_unique<CDbRow>();
    for (const Value& value : values) {
        auto column = std::make_unique<CDbColumn>();
        column->type = value.type;
        column->size = static_cast<int>(value.bytes.size());
        if (value.type != SQLITE_NULL) {
            column->value = new char[value.bytes.size() + 1]();
            std::copy(value.bytes.begin(), value.bytes.end(), column->value);
        }
        row->size += column->size;
        row->columns.push_back(column.release());
    }
    row->isCached = true;
    return row.release();
}

std::shared_ptr<OpenCursor> MakeCursor(int columnCount, int rowCount, const std::vector<std::string>& names,
                                       const std::vector<std::vector<Value>>& rows) {
    auto cursor = std::make_shared<OpenCursor>();
    cursor->m_pCache = new CSQLiteCursorCache;
    cursor->m_columnCount = columnCount;
    cursor->m_rowCount = rowCount;
    cursor->m_pCache->columnNames.assign(names.begin(), names.end());
    for (const auto& row : rows) {
        cursor->m_pCache->rows.push_back(MakeRow(row));
    }
    return cursor;
}

std::string Shown(const Value& value) {
    std::string shown = std::to_string(value.type) + ":" + std::to_string(value.bytes.size()) + ":";
    for (const char byte : value.bytes) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
        shown += digits;
    }
    return shown;
}

std::vector<std::string> CachedRows(ISQLiteCursor& cursor) {
    std::vector<std::string> shown;
    for (const CDbRow* row : dynamic_cast<CSQLiteCursor&>(cursor).GetCusorCache()->rows) {
        std::string line;
        for (const CDbColumn* column : row->columns) {
            line += line.empty() ? "" : " ";
            line +=
                Shown({column->type, column->size > 0
                                         ? std::string(column->value, static_cast<std::size_t>(column->size))
                                         : std::string()});
        }
        shown.push_back(line);
    }
    return shown;
}

std::vector<std::string> CachedNames(ISQLiteCursor& cursor) {
    const auto& names = dynamic_cast<CSQLiteCursor&>(cursor).GetCusorCache()->columnNames;
    return {names.begin(), names.end()};
}

std::string Int(std::int32_t value) { return Raw(&value, sizeof value); }
std::string Long(std::int64_t value) { return Raw(&value, sizeof value); }
std::string Name(const std::string& name) {
    return Int(static_cast<std::int32_t>(name.size()) + 1) + name + std::string(1, '\0');
}
std::string Cell(int type, const std::string& data) {
    return Int(type) + Int(static_cast<std::int32_t>(data.size())) + data;
}

}  // namespace support

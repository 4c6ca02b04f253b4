#include "SharedQueryObject.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "ByteIO.h"
#include "Log.h"
#include "ResultCodes.h"
#include "SlabPool.h"
#include "StoredSize.h"

using vantry::ByteReader;
using vantry::ByteWriter;
using vantry::EndsInZero;
using vantry::LogPlace;
using vantry::StoredBytes;

const std::string CSharedQueryObject::SHM_PREFIX = "/.vantry_";
int CSharedQueryObject::m_requestId = 0;

namespace {

constexpr int FIELD_BYTES = 4;
// The two counts of a block; the type and the length of a cell.
constexpr std::size_t BLOCK_HEAD_BYTES = 8;
constexpr std::size_t CELL_HEAD_BYTES = 8;
constexpr int NUMBER_BYTES = 8;
// 2 MiB, and what column names and field widths may add to a full row cache.
constexpr int MAX_SHM_SIZE = 2098175;
constexpr std::uint64_t MAX_BLOCK_BYTES = MAX_SHM_SIZE - FIELD_BYTES;
constexpr mode_t SHM_MODE = 0666;
constexpr int SHM_ERROR = -1;

bool IsValidSize(int size) { return size >= 1 && size <= MAX_SHM_SIZE; }

void LogWrongParameter(const LogPlace& place, int size, const std::string& name) {
    VANTRY_LOGF_AT(place, DLOG_INFO, "Parameter is not proper value - shmSize : %d, path is NULL : %s", size,
                   name.c_str());
}

void LogCreateError(const LogPlace& place, int error, int descriptor) {
    switch (error) {
        case EACCES:
            VANTRY_LOG_AT(place, DLOG_INFO, "EACCES : Require ROOT permission.");
            break;
        case ENOSPC:
            VANTRY_LOG_AT(place, DLOG_INFO, "ENOSPC : Resource is empty.");
            break;
        case EINVAL:
            VANTRY_LOG_AT(place, DLOG_INFO,
                          "EINVAL : The shm_open() operation is not supported for the given name.");
            break;
        case ENOENT:
            VANTRY_LOG_AT(place, DLOG_INFO,
                          "ENOENT : O_CREAT is not set and the named shared memory object does not exist.");
            break;
        default:
            // Kept: the descriptor, not the error.
            VANTRY_LOGF_AT(place, DLOG_INFO, "other cause : %d", descriptor);
            break;
    }
}

// Gives the object its size, with the pages behind it. Where there is no room, or the process may not have more
// memory, ftruncate() alone succeeds, and the first write to the mapping would kill the process.
bool Reserve(int descriptor, int size) {
    if (ftruncate(descriptor, size) != 0) {
        return false;
    }
    int error = 0;
    do {
        error = posix_fallocate(descriptor, 0, size);
    } while (error == EINTR);
    return error != ENOSPC && error != ENOMEM;
}

// Waits until no other consumer holds the object. Returns false when the one before removed it.
bool LockObject(int descriptor) {
    while (flock(descriptor, LOCK_EX) != 0) {
        if (errno != EINTR) {
            return true;
        }
    }
    struct stat status {};
    return fstat(descriptor, &status) != 0 || status.st_nlink > 0;
}

// The bytes of a result behind its length word that may be read: what the word says, as far as the mapping
// and the object reach.
int ReadableBytes(const char* mapping, int mappedSize, int descriptor) {
    int size = mappedSize;
    struct stat status {};
    if (fstat(descriptor, &status) == 0 && status.st_size < size) {
        size = static_cast<int>(status.st_size);
    }
    if (size < FIELD_BYTES) {
        return 0;
    }
    std::int32_t length = 0;
    std::memcpy(&length, mapping, sizeof length);
    return std::min(size - FIELD_BYTES, static_cast<int>(length));
}

const CDbColumn NO_VALUE;

using ColumnPool = vantry::SlabPool<sizeof(CDbColumn)>;
using RowPool = vantry::SlabPool<sizeof(CDbRow)>;

// ---- Reading ------------------------------------------------------------------------------------------

// A field read out of a block, or the end of the reading: the offsets of the line are those that the read
// would have led to.
class BlockReader {
public:
    BlockReader(const char* data, int size, const LogPlace& place)
        : m_reader(data, static_cast<std::size_t>(size)), m_size(size), m_place(place) {}

    bool TakeInt(std::int32_t& value) {
        if (!m_reader.Has(FIELD_BYTES)) {
            VANTRY_LOGF_AT(m_place, DLOG_INFO,
                           "Memory size check error : currentOffset + indexSize <= bufferSize : %d <= %d",
                           OffsetAfter(FIELD_BYTES), m_size);
            return false;
        }
        value = m_reader.TakeInt();
        return true;
    }

    // A cell's type and length.
    bool TakeHead(std::int32_t& type, std::int32_t& length) {
        if (!m_reader.Has(CELL_HEAD_BYTES)) {
            return TakeInt(type) && TakeInt(length);
        }
        type = m_reader.TakeInt();
        length = m_reader.TakeInt();
        return true;
    }

    // Bytes behind a length that the block itself gave; `plausible` is false for a length that no writer
    // makes.
    bool TakeBytes(std::int32_t length, bool plausible, const char*& bytes) {
        if (length < 0 || !plausible || !m_reader.Has(static_cast<std::size_t>(length))) {
            VANTRY_LOGF_AT(
                m_place, DLOG_INFO,
                "Memory size check error : currentOffset + currentDataSize <= bufferSize : %d <= %d",
                OffsetAfter(length), m_size);
            return false;
        }
        bytes = m_reader.Take(static_cast<std::size_t>(length));
        return true;
    }

    std::size_t Remaining() const { return m_reader.Remaining(); }

private:
    // Where a read would end; a negative length is shown as the great number that it is to a reader without
    // signs.
    int OffsetAfter(std::int32_t length) const {
        const auto end = static_cast<std::uint64_t>(m_reader.Offset()) + static_cast<std::uint32_t>(length);
        return static_cast<int>(std::min(end, static_cast<std::uint64_t>(INT_MAX)));
    }

    ByteReader m_reader;
    int m_size;
    LogPlace m_place;
};

bool ReadNames(BlockReader& reader, std::int32_t count, std::list<std::string>& names) {
    for (std::int32_t i = 0; i < count; ++i) {
        std::int32_t length = 0;
        const char* bytes = nullptr;
        if (!reader.TakeInt(length) || !reader.TakeBytes(length, true, bytes)) {
            return false;
        }
        names.emplace_back(bytes, strnlen(bytes, static_cast<std::size_t>(length)));
    }
    return true;
}

// Where the objects of a result come from.
struct Memory {
    RowPool::Batch rows;
    ColumnPool::Batch cells;

    // Throws when memory runs out.
    template <typename Object, typename Batch>
    static Object* Make(Batch& batch) {
        void* const memory = batch.Allocate();
        if (memory == nullptr) {
            throw std::bad_alloc();
        }
        // cppcheck-suppress legacyUninitvar ; the memory is placed, and the object in it has first contents
        return ::new (memory) Object;
    }
};

// A cell, or null when the block ends before it does. Throws when memory runs out.
CDbColumn* ReadCell(BlockReader& reader, Memory& memory) {
    std::int32_t type = 0;
    std::int32_t length = 0;
    if (!reader.TakeHead(type, length)) {
        return nullptr;
    }
    const bool endsInZero = EndsInZero(type);
    const bool plausible = endsInZero ? length >= 1 : type >= SQLITE_TEXT || length == NUMBER_BYTES;
    const char* bytes = nullptr;
    if (!reader.TakeBytes(length, plausible, bytes)) {
        return nullptr;
    }
    // One byte more than the value, zero: a text is terminated whatever the block says. A null value has a
    // buffer here, where the cursor that was stored had none.
    const auto size = static_cast<std::size_t>(endsInZero ? length - 1 : length);
    std::unique_ptr<char[]> value(new char[std::max<std::size_t>(size + 1, 2)]);
    vantry::CopyBytes(value.get(), bytes, size);
    value[size] = '\0';
    auto* const cell = Memory::Make<CDbColumn>(memory.cells);
    cell->type = type;
    cell->size = static_cast<int>(size);
    cell->value = value.release();
    return cell;
}

// A whole row, or null when the block ends before it does.
std::unique_ptr<CDbRow> ReadRow(BlockReader& reader, std::int32_t columnCount, Memory& memory) {
    std::unique_ptr<CDbRow> row(Memory::Make<CDbRow>(memory.rows));
    // No more cells than the block has heads for: what the count promises beyond that cannot be read.
    row->columns = std::vector<CDbColumn*>(
        std::min(static_cast<std::size_t>(columnCount), reader.Remaining() / CELL_HEAD_BYTES));
    CDbColumn** next = row->columns.data();
    int size = 0;
    for (std::int32_t i = 0; i < columnCount; ++i) {
        CDbColumn* const cell = ReadCell(reader, memory);
        if (cell == nullptr) {
            return nullptr;
        }
        *next++ = cell;
        size += cell->size;
    }
    row->size = size;
    row->isCached = true;
    return row;
}

void ReadRows(BlockReader& reader, std::int32_t columnCount, std::int32_t rowCount,
              std::list<CDbRow*>& rows) {
    Memory memory;
    for (std::int32_t i = 0; i < rowCount; ++i) {
        auto row = ReadRow(reader, columnCount, memory);
        if (!row) {
            return;
        }
        rows.push_back(row.get());
        static_cast<void>(row.release());
    }
}

}  // namespace

// ---- Writing ------------------------------------------------------------------------------------------

// What is written of a cursor.
struct CSharedQueryObject::Source {
    const CSQLiteCursorCache* cache = nullptr;
    int columnCount = 0;
    int rowCount = 0;

    // Visits every value, those that eviction put aside included. One that is missing, or that memory did not
    // suffice for, counts as null; so does one with a length that is none.
    template <typename Visitor>
    void ForEachCell(Visitor visit) const {
        const auto wanted = static_cast<std::size_t>(std::max(columnCount, 0));
        for (const CDbRow* row : cache->rows) {
            const auto& columns = row->columns.empty() ? row->evictedColumns : row->columns;
            const std::size_t present = std::min(columns.size(), wanted);
            for (std::size_t i = 0; i < present; ++i) {
                const CDbColumn* const cell = columns[i];
                const bool hasValue = cell != nullptr && cell->value != nullptr && cell->size >= 0;
                visit(hasValue ? *cell : NO_VALUE);
            }
            for (std::size_t i = present; i < wanted; ++i) {
                visit(NO_VALUE);
            }
        }
    }

    // The length of what stands before the cells, in bytes.
    std::uint64_t HeadLength() const {
        std::uint64_t length = BLOCK_HEAD_BYTES;
        for (const std::string& name : cache->columnNames) {
            length += FIELD_BYTES + name.size() + 1;
        }
        return length;
    }

    // The length of the block in bytes.
    std::uint64_t Length() const {
        std::uint64_t length = HeadLength();
        ForEachCell([&length](const CDbColumn& cell) { length += StoredBytes(cell); });
        return length;
    }

    // The same, where it can be without a look at the cells: from what the cache counted when it was given them.
    // Wrong when rows were changed by hand since then.
    std::uint64_t CountedLength() const {
        const std::uint64_t length = HeadLength() + cache->countedBytes;
        const bool counted = cache->countedRows == cache->rows.size();
        return counted && length <= MAX_BLOCK_BYTES ? length : Length();
    }

    // Writes the block. Returns false when it does not have this length; nothing is written behind it.
    bool Write(char* target, std::uint64_t length) const {
        std::uint64_t remaining = length - HeadLength();
        bool fits = true;
        ByteWriter writer(target);
        writer.PutInt(columnCount);
        writer.PutInt(rowCount);
        for (const std::string& name : cache->columnNames) {
            writer.PutInt(static_cast<std::int32_t>(name.size()) + 1);
            writer.PutBytes(name.c_str(), name.size() + 1);
        }
        ForEachCell([&](const CDbColumn& cell) {
            const std::uint64_t bytes = StoredBytes(cell);
            fits = fits && bytes <= remaining;
            if (!fits) {
                return;
            }
            remaining -= bytes;
            const bool endsInZero = EndsInZero(cell.type);
            writer.PutInts(cell.type, cell.size + (endsInZero ? 1 : 0));
            writer.PutBytes(cell.value, static_cast<std::size_t>(cell.size));
            if (endsInZero) {
                writer.PutZero();
            }
        });
        return fits && remaining == 0;
    }
};

int CSharedQueryObject::FindSource(const std::shared_ptr<ISQLiteCursor>& pCursor, const LogPlace& place,
                                   Source& source) {
    const auto* const cursor = dynamic_cast<const CSQLiteCursor*>(pCursor.get());
    if (cursor == nullptr) {
        VANTRY_LOG_AT(place, DLOG_INFO, "Cursor is NULL ");
        return vantry::RESULT_INVALID;
    }
    if (cursor->m_pCache == nullptr) {
        VANTRY_LOG_AT(place, DLOG_INFO,
                      "The method has tried to fetch the column data of a result set that is not activated");
        return vantry::RESULT_NOT_ACTIVE;
    }
    source.cache = cursor->m_pCache;
    source.columnCount = cursor->m_columnCount;
    source.rowCount = cursor->m_rowCount;
    return vantry::RESULT_OK;
}

int CSharedQueryObject::SerializeCursorData(std::shared_ptr<ISQLiteCursor> pCursor) {
    m_buffer.clear();
    Source source;
    const int found = FindSource(pCursor, VANTRY_HERE, source);
    if (found != vantry::RESULT_OK) {
        return found;
    }
    const std::uint64_t length = source.Length();
    try {
        if (length > static_cast<std::uint64_t>(INT_MAX)) {
            throw std::bad_alloc();
        }
        m_buffer.resize(static_cast<std::size_t>(length));
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return vantry::RESULT_NO_MEMORY;
    }
    source.Write(m_buffer.data(), length);
    m_dataSize = static_cast<int>(length);
    return vantry::RESULT_OK;
}

std::shared_ptr<ISQLiteCursor> CSharedQueryObject::DeserializeCursorData(char* data, int size) {
    if (data == nullptr || size < FIELD_BYTES) {
        VANTRY_LOG(DLOG_INFO, "Wrong parameters : buffer is NULL or Size is wrong");
        return {};
    }
    try {
        auto cursor = std::make_shared<CSQLiteCursor>();
        cursor->m_pCache = new CSQLiteCursorCache;
        BlockReader reader(data, size, VANTRY_HERE);
        if (!reader.TakeInt(cursor->m_columnCount) || !reader.TakeInt(cursor->m_rowCount)) {
            return cursor;
        }
        if (cursor->m_columnCount < 1) {
            VANTRY_LOG(DLOG_INFO, "No result , exit");
            return cursor;
        }
        if (ReadNames(reader, cursor->m_columnCount, cursor->m_pCache->columnNames)) {
            ReadRows(reader, cursor->m_columnCount, cursor->m_rowCount, cursor->m_pCache->rows);
        }
        return cursor;
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

// ---- Segments -----------------------------------------------------------------------------------------

CSharedQueryObject::CSharedQueryObject() = default;

CSharedQueryObject::~CSharedQueryObject() { CloseDescriptor(); }

// A number that was closed may be another file's by now: it is closed once.
void CSharedQueryObject::CloseDescriptor() {
    if (m_fdOpen) {
        close(m_fd);
        m_fdOpen = false;
    }
}

// Gives up an object that could not be made or mapped. The name goes first: while the descriptor is open, its
// lock keeps other consumers away.
void CSharedQueryObject::AbandonSegment() {
    shm_unlink(m_name.c_str());
    CloseDescriptor();
    m_name.clear();
}

int CSharedQueryObject::ShmCreateObject(int size) {
    if (m_pData != nullptr) {
        return vantry::RESULT_INVALID;
    }
    if (!IsValidSize(size) || m_name.empty()) {
        LogWrongParameter(VANTRY_HERE, size, m_name);
        return vantry::RESULT_INVALID;
    }
    CloseDescriptor();
    m_fd = shm_open(m_name.c_str(), O_RDWR | O_CREAT | O_APPEND, SHM_MODE);
    if (m_fd < 0) {
        const int error = errno;
        VANTRY_LOG(DLOG_INFO, "Shared memory get fail");
        LogCreateError(VANTRY_HERE, error, m_fd);
        m_name.clear();
        return vantry::RESULT_INVALID;
    }
    m_fdOpen = true;
    if (!Reserve(m_fd, size)) {
        VANTRY_LOG(DLOG_INFO, "fturncate error .");
        CloseDescriptor();
        AbandonSegment();
        return vantry::RESULT_INVALID;
    }
    void* const mapping = mmap(nullptr, static_cast<std::size_t>(size), PROT_READ | PROT_WRITE,
                               MAP_SHARED | MAP_LOCKED, m_fd, 0);
    if (mapping == MAP_FAILED) {
        VANTRY_LOG(DLOG_INFO, "Get ptr fail\n");
        CloseDescriptor();
        AbandonSegment();
        return vantry::RESULT_INVALID;
    }
    m_pData = static_cast<char*>(mapping);
    CloseDescriptor();
    return vantry::RESULT_OK;
}

char* CSharedQueryObject::ShmGetObject(int size) {
    if (m_name.empty()) {
        LogWrongParameter(VANTRY_HERE, size, m_name);
        return nullptr;
    }
    if (m_pData != nullptr) {
        return m_pData;
    }
    CloseDescriptor();
    m_fd = shm_open(m_name.c_str(), O_RDWR, 0);
    if (m_fd < 0) {
        VANTRY_LOGF(DLOG_INFO, "Error number : %d", errno);
        shm_unlink(m_name.c_str());
        return nullptr;
    }
    m_fdOpen = true;
    if (!LockObject(m_fd)) {
        // The name is gone, or is a newer object's: there is nothing to remove.
        VANTRY_LOGF(DLOG_INFO, "Error number : %d", ENOENT);
        CloseDescriptor();
        m_fd = SHM_ERROR;
        return nullptr;
    }
    if (!IsValidSize(size)) {
        VANTRY_LOGF(DLOG_INFO, "Out of size : %d", size);
        AbandonSegment();
        m_fd = SHM_ERROR;
        return nullptr;
    }
    void* const mapping = mmap(nullptr, static_cast<std::size_t>(size), PROT_READ, MAP_SHARED, m_fd, 0);
    if (mapping == MAP_FAILED) {
        VANTRY_LOGF(DLOG_INFO, "mmap has failed : %d", errno);
        AbandonSegment();
        m_fd = SHM_ERROR;
        return nullptr;
    }
    m_pData = static_cast<char*>(mapping);
    return m_pData;
}

int CSharedQueryObject::ShmRemoveObject(int size) {
    if (!IsValidSize(size) || m_name.empty()) {
        LogWrongParameter(VANTRY_HERE, size, m_name);
        return vantry::RESULT_INVALID;
    }
    if (m_fd < 0) {
        VANTRY_LOG(DLOG_INFO, "Shared memory get fail");
        return SHM_ERROR;
    }
    if (m_pData != nullptr && munmap(m_pData, static_cast<std::size_t>(size)) != 0) {
        VANTRY_LOG(DLOG_INFO, "munmap fail");
        return SHM_ERROR;
    }
    AbandonSegment();
    m_fd = SHM_ERROR;
    return vantry::RESULT_OK;
}

int CSharedQueryObject::DetachData() {
    if (munmap(m_pData, static_cast<std::size_t>(m_size)) != 0) {
        VANTRY_LOG(DLOG_INFO, "Unmap fail\n");
        return SHM_ERROR;
    }
    m_pData = nullptr;
    return vantry::RESULT_OK;
}

// ---- Request ids --------------------------------------------------------------------------------------

std::string CSharedQueryObject::ProviderNewRequestID() {
    const int id = __atomic_add_fetch(&m_requestId, 1, __ATOMIC_SEQ_CST);
    try {
        return std::to_string(id);
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

int CSharedQueryObject::GetRequestID() { return __atomic_load_n(&m_requestId, __ATOMIC_SEQ_CST); }

// ---- Storing and fetching -----------------------------------------------------------------------------

int CSharedQueryObject::StoreCursor(std::shared_ptr<ISQLiteCursor> pCursor, const std::string& key,
                                    std::string& name, int& size) {
    if (!pCursor) {
        VANTRY_LOG(DLOG_INFO, "pCursor is NULL");
        return vantry::RESULT_INVALID;
    }
    const auto fail = [&name, &size] {
        name.clear();
        size = 0;
        return vantry::RESULT_NOT_ACTIVE;
    };
    CSharedQueryObject object;
    try {
        const std::string id = ProviderNewRequestID();
        if (id.empty()) {
            return fail();
        }
        object.m_name.append(SHM_PREFIX).append(key).append(id);
        name = object.m_name;
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return fail();
    }
    Source source;
    if (FindSource(pCursor, VANTRY_HERE, source) != vantry::RESULT_OK) {
        return fail();
    }
    for (std::uint64_t length = source.CountedLength();; length = source.Length()) {
        object.m_size = static_cast<int>(std::min(length + FIELD_BYTES, static_cast<std::uint64_t>(INT_MAX)));
        if (object.ShmCreateObject(object.m_size) != vantry::RESULT_OK) {
            VANTRY_LOG(DLOG_INFO, "Shared memory create has failed");
        }
        if (object.m_pData == nullptr) {
            VANTRY_LOG(DLOG_INFO, "Get Shared memory has failed");
            return fail();
        }
        ByteWriter(object.m_pData).PutInt(static_cast<std::int32_t>(length));
        // Straight into the mapping; every byte of it is written.
        if (source.Write(object.m_pData + FIELD_BYTES, length)) {
            break;
        }
        // The cache has counted something else than its rows hold now.
        const int detached = object.DetachData();
        shm_unlink(object.m_name.c_str());
        if (detached != vantry::RESULT_OK) {
            return fail();
        }
    }
    size = object.m_size;
    VANTRY_LOGF(DLOG_DEBUG, "The cursor(%s) was stored successfully", name.c_str());
    object.DetachData();
    return vantry::RESULT_OK;
}

std::shared_ptr<ISQLiteCursor> CSharedQueryObject::GetCursor(const std::string& name, const int& size) {
    CSharedQueryObject object;
    try {
        object.m_name = name;
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
    char* const mapping = object.ShmGetObject(size);
    if (mapping == nullptr) {
        VANTRY_LOG(DLOG_INFO, "Get Shared memory has failed");
        return {};
    }
    std::shared_ptr<ISQLiteCursor> cursor =
        DeserializeCursorData(mapping + FIELD_BYTES, ReadableBytes(mapping, size, object.m_fd));
    object.ShmRemoveObject(size);
    VANTRY_LOGF(DLOG_DEBUG, "Getting cursor(%s) successfully", name.c_str());
    return cursor;
}

ISharedQueryObject::~ISharedQueryObject() = default;

int ISharedQueryObject::StoreCursor(std::shared_ptr<ISQLiteCursor> pCursor, const std::string& key,
                                    std::string& name, int& size) {
    return CSharedQueryObject::StoreCursor(std::move(pCursor), key, name, size);
}

std::shared_ptr<ISQLiteCursor> ISharedQueryObject::GetCursor(const std::string& name, const int& size) {
    return CSharedQueryObject::GetCursor(name, size);
}

int ISharedQueryObject::GetRequestID() { return CSharedQueryObject::GetRequestID(); }

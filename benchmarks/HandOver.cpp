#include "HandOver.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "LibraryResult.h"
#include "RowsInMemory.h"
#include "SharedQueryObject.h"
#include "VantryConnection.h"
#include "Works.h"
#include "result_generated.h"

namespace bench {

namespace {

void SendMessage(int requests, const std::string& name, std::size_t size) {
    Message message;
    message.size = static_cast<std::int32_t>(size);
    std::strncpy(message.name, name.c_str(), sizeof message.name - 1);
    WriteAll(requests, &message, sizeof message);
}

// The library's own.
class LibraryWay : public Way {
public:
    void Query(const std::string& path, const Table& table, std::size_t /*rows*/) override {
        m_cursor = Select(m_connection, path, table, m_projection);
    }

    void Provide(int requests) override {
        std::string name;
        int size = 0;
        if (ISharedQueryObject::StoreCursor(m_cursor, "bench" + std::to_string(getpid()) + "_", name, size) !=
            0) {
            Fail("StoreCursor failed");
        }
        SendMessage(requests, name, static_cast<std::size_t>(size));
    }

    void Release() override { m_cursor.reset(); }

    void OpenConsumer(const std::string& /*path*/, const Table& table, std::size_t /*rows*/) override {
        m_table = &table;
    }

    std::int64_t Consume(const Message& message, int /*requests*/) override {
        m_cursor = ISharedQueryObject::GetCursor(message.name, message.size);
        return m_cursor ? SumOf(*m_cursor, *m_table) : -1;
    }

    void ReleaseConsumed() override { m_cursor.reset(); }

private:
    const Table* m_table = nullptr;
    std::optional<CVantryConnection> m_connection;
    std::vector<std::string> m_projection;
    std::shared_ptr<ISQLiteCursor> m_cursor;
};

// A block that is ready, through shared memory with one copy on each side.
class BlockWay : public Way {
public:
    void Query(const std::string& /*path*/, const Table& table, std::size_t rows) override {
        if (!m_block.empty()) {
            return;
        }
        for (std::size_t row = 0; row < rows; ++row) {
            for (std::size_t i = 0; i < table.Columns().size(); ++i) {
                Append(table.Row(row)[i], table.Columns()[i].kind);
            }
        }
    }

    void Provide(int requests) override {
        const std::string name = "/bench" + std::to_string(getpid());
        const int descriptor = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
        if (descriptor < 0 || ftruncate(descriptor, static_cast<off_t>(m_block.size())) != 0) {
            Fail("cannot make a shared-memory object");
        }
        void* const mapping =
            mmap(nullptr, m_block.size(), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
        close(descriptor);
        if (mapping == MAP_FAILED) {
            Fail("cannot map a shared-memory object");
        }
        std::memcpy(mapping, m_block.data(), m_block.size());
        munmap(mapping, m_block.size());
        SendMessage(requests, name, m_block.size());
    }

    std::int64_t Consume(const Message& message, int /*requests*/) override {
        const auto size = static_cast<std::size_t>(message.size);
        const int descriptor = shm_open(message.name, O_RDONLY, 0);
        void* const mapping = mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor, 0);
        close(descriptor);
        shm_unlink(message.name);
        if (mapping == MAP_FAILED) {
            return -1;
        }
        m_block.resize(size);
        std::memcpy(m_block.data(), mapping, size);
        munmap(mapping, size);
        return SumOfBlock();
    }

private:
    struct Head {
        std::int32_t type;
        std::int32_t size;
    };

    void Append(const Value& value, Kind kind) {
        const bool isNumber = kind == Kind::Integer || kind == Kind::Real;
        const Head head = {value.isNull ? SQLITE_NULL : static_cast<int>(kind) + 1,
                           value.isNull ? 0
                           : isNumber   ? 8
                                        : static_cast<int>(value.text.size())};
        const void* const bytes = kind == Kind::Integer ? static_cast<const void*>(&value.integer)
                                  : kind == Kind::Real  ? static_cast<const void*>(&value.real)
                                                        : value.text.data();
        m_block.append(reinterpret_cast<const char*>(&head), sizeof head);
        m_block.append(static_cast<const char*>(bytes), static_cast<std::size_t>(head.size));
    }

    std::int64_t SumOfBlock() const {
        Sum sum;
        for (const char* next = m_block.data(); next < m_block.data() + m_block.size();) {
            Head head;
            std::memcpy(&head, next, sizeof head);
            next += sizeof head;
            if (head.type == SQLITE_INTEGER) {
                std::int64_t integer = 0;
                std::memcpy(&integer, next, sizeof integer);
                sum.Add(integer);
            } else if (head.type == SQLITE_FLOAT) {
                double real = 0;
                std::memcpy(&real, next, sizeof real);
                sum.Add(real);
            } else if (head.type != SQLITE_NULL) {
                sum.Add(std::string_view(next, static_cast<std::size_t>(head.size)));
            }
            next += head.size;
        }
        return sum.Total();
    }

    std::string m_block;
};

// The least that can hand over values which each have a buffer of their own: no row, no column, no cursor, only the
// object with the library's calls and flags, one copy of each value into it, and one buffer and one copy of each out
// of it. What holds the values is not freed and filled anew by the provider.
class LeastWay : public Way {
public:
    ~LeastWay() override { ReleaseConsumed(); }

    void Query(const std::string& /*path*/, const Table& table, std::size_t rows) override {
        if (!m_held.empty()) {
            return;
        }
        for (std::size_t row = 0; row < rows; ++row) {
            for (std::size_t i = 0; i < table.Columns().size(); ++i) {
                Hold(table.Row(row)[i], table.Columns()[i].kind);
                m_bytes += sizeof(Head) + static_cast<std::size_t>(m_held.back().head.size);
            }
        }
    }

    void Provide(int requests) override {
        const std::string name = "/bench" + std::to_string(getpid());
        const int descriptor = shm_open(name.c_str(), O_RDWR | O_CREAT | O_APPEND, 0666);
        const auto length = static_cast<off_t>(m_bytes);
        if (descriptor < 0 || ftruncate(descriptor, length) != 0 ||
            posix_fallocate(descriptor, 0, length) != 0) {
            Fail("cannot make a shared-memory object");
        }
        void* const mapping =
            mmap(nullptr, m_bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_LOCKED, descriptor, 0);
        close(descriptor);
        if (mapping == MAP_FAILED) {
            Fail("cannot map a shared-memory object");
        }
        char* next = static_cast<char*>(mapping);
        for (const Held& held : m_held) {
            std::memcpy(next, &held.head, sizeof held.head);
            next += sizeof held.head;
            std::memcpy(next, held.value, static_cast<std::size_t>(held.head.size));
            next += held.head.size;
        }
        munmap(mapping, m_bytes);
        SendMessage(requests, name, m_bytes);
    }

    std::int64_t Consume(const Message& message, int /*requests*/) override {
        const auto size = static_cast<std::size_t>(message.size);
        const int descriptor = shm_open(message.name, O_RDWR, 0);
        void* const mapping = mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor, 0);
        if (mapping == MAP_FAILED) {
            return -1;
        }
        const char* const end = static_cast<const char*>(mapping) + size;
        for (const char* next = static_cast<const char*>(mapping); next < end;) {
            Held held{};
            std::memcpy(&held.head, next, sizeof held.head);
            next += sizeof held.head;
            if (held.head.type != SQLITE_NULL) {
                held.value = new char[static_cast<std::size_t>(held.head.size) + 1];
                std::memcpy(held.value, next, static_cast<std::size_t>(held.head.size));
                next += held.head.size;
            }
            m_held.push_back(held);
        }
        munmap(mapping, size);
        shm_unlink(message.name);
        close(descriptor);
        return Sums();
    }

    void ReleaseConsumed() override {
        for (auto held = m_held.rbegin(); held != m_held.rend(); ++held) {
            delete[] held->value;
        }
        m_held.clear();
    }

private:
    struct Head {
        std::int32_t type;
        std::int32_t size;
    };
    struct Held {
        Head head;
        char* value;
    };

    void Hold(const Value& value, Kind kind) {
        const bool isNumber = kind == Kind::Integer || kind == Kind::Real;
        const void* const bytes = kind == Kind::Integer ? static_cast<const void*>(&value.integer)
                                  : kind == Kind::Real  ? static_cast<const void*>(&value.real)
                                                        : value.text.data();
        Held held{{value.isNull ? SQLITE_NULL : static_cast<int>(kind) + 1,
                   value.isNull ? 0
                   : isNumber   ? 8
                                : static_cast<int>(value.text.size())},
                  nullptr};
        if (!value.isNull) {
            held.value = new char[static_cast<std::size_t>(held.head.size) + 1];
            std::memcpy(held.value, bytes, static_cast<std::size_t>(held.head.size));
        }
        m_held.push_back(held);
    }

    std::int64_t Sums() const {
        Sum sum;
        for (const Held& held : m_held) {
            if (held.head.type == SQLITE_INTEGER) {
                std::int64_t integer = 0;
                std::memcpy(&integer, held.value, sizeof integer);
                sum.Add(integer);
            } else if (held.head.type == SQLITE_FLOAT) {
                double real = 0;
                std::memcpy(&real, held.value, sizeof real);
                sum.Add(real);
            } else if (held.head.type != SQLITE_NULL) {
                sum.Add(std::string_view(held.value, static_cast<std::size_t>(held.head.size)));
            }
        }
        return sum.Total();
    }

    std::vector<Held> m_held;
    std::size_t m_bytes = 0;
};

// FlatBuffers, built from rows in memory, through the pipe.
class FlatBuffersWay : public Way {
public:
    void Query(const std::string& /*path*/, const Table& table, std::size_t rows) override {
        if (!m_rows.empty()) {
            return;
        }
        for (std::size_t row = 0; row < rows; ++row) {
            auto& cells = m_rows.emplace_back();
            for (std::size_t i = 0; i < table.Columns().size(); ++i) {
                cells.push_back(MakeCell(table.Row(row)[i], table.Columns()[i].kind));
            }
        }
    }

    void Provide(int requests) override {
        m_builder.Clear();
        m_built.clear();
        for (const auto& row : m_rows) {
            m_values.clear();
            for (const Cell& cell : row) {
                m_values.push_back(Build(m_builder, cell));
            }
            m_built.push_back(flat::CreateRow(m_builder, m_builder.CreateVector(m_values)));
        }
        m_builder.Finish(flat::CreateResult(m_builder, m_builder.CreateVector(m_built)));
        SendMessage(requests, "", m_builder.GetSize());
        WriteAll(requests, m_builder.GetBufferPointer(), m_builder.GetSize());
    }

    std::int64_t Consume(const Message& message, int requests) override {
        m_bytes.resize(static_cast<std::size_t>(message.size));
        if (!ReadAll(requests, m_bytes.data(), m_bytes.size())) {
            return -1;
        }
        // Their own bounds for a buffer of this size: a million tables would not do for a narrow result.
        flatbuffers::Verifier verifier(m_bytes.data(), m_bytes.size(), 64, 100000000);
        if (!flat::VerifyResultBuffer(verifier)) {
            return -1;
        }
        Sum sum;
        for (const flat::Row* row : *flat::GetResult(m_bytes.data())->rows()) {
            for (const flat::Value* value : *row->values()) {
                if (value->type() == SQLITE_INTEGER) {
                    sum.Add(static_cast<std::int64_t>(value->integer()));
                } else if (value->type() == SQLITE_FLOAT) {
                    sum.Add(value->real());
                } else if (value->type() != SQLITE_NULL) {
                    sum.Add(std::string_view(reinterpret_cast<const char*>(value->bytes()->data()),
                                             value->bytes()->size()));
                }
            }
        }
        return sum.Total();
    }

private:
    static Cell MakeCell(const Value& value, Kind kind) {
        if (value.isNull) {
            return {};
        }
        switch (kind) {
            case Kind::Integer:
                return value.integer;
            case Kind::Real:
                return value.real;
            case Kind::Text:
                return value.text;
            default:
                return Blob(value.text.begin(), value.text.end());
        }
    }

    static flatbuffers::Offset<flat::Value> Build(flatbuffers::FlatBufferBuilder& builder, const Cell& cell) {
        if (const auto* integer = std::get_if<std::int64_t>(&cell)) {
            return flat::CreateValue(builder, SQLITE_INTEGER, *integer);
        }
        if (const auto* real = std::get_if<double>(&cell)) {
            return flat::CreateValue(builder, SQLITE_FLOAT, 0, *real);
        }
        if (const auto* text = std::get_if<std::string>(&cell)) {
            const auto bytes =
                builder.CreateVector(reinterpret_cast<const std::uint8_t*>(text->data()), text->size());
            return flat::CreateValue(builder, SQLITE_TEXT, 0, 0, bytes);
        }
        if (const auto* blob = std::get_if<Blob>(&cell)) {
            return flat::CreateValue(builder, SQLITE_BLOB, 0, 0, builder.CreateVector(*blob));
        }
        return flat::CreateValue(builder, SQLITE_NULL);
    }

    Rows m_rows;
    // Kept from one hand-over to the next, with their memory.
    flatbuffers::FlatBufferBuilder m_builder{MOST_BYTES};
    std::vector<flatbuffers::Offset<flat::Row>> m_built;
    std::vector<flatbuffers::Offset<flat::Value>> m_values;
    std::vector<std::uint8_t> m_bytes;
};

// No hand-over: the consumer runs the query itself, on a file that it has open and read before.
class OwnQueryWay : public Way {
public:
    // `into` names the works that take the result into memory.
    explicit OwnQueryWay(std::string into) : m_into(std::move(into)) {}

    void Provide(int requests) override { SendMessage(requests, "", 0); }

    void OpenConsumer(const std::string& path, const Table& table, std::size_t rows) override {
        m_works = MakeWorks(m_into);
        m_works->Open(path, table);
        m_works->PrepareRead(rows);
    }

    std::int64_t Consume(const Message& /*message*/, int /*requests*/) override {
        m_works->Read();
        return m_works->SumOfHeld();
    }

    void ReleaseConsumed() override { m_works->Destroy(); }

private:
    std::string m_into;
    std::unique_ptr<Works> m_works;
};

// The same, with each value read where SQLite has it, and nothing kept.
class StepWay : public Way {
public:
    ~StepWay() override { sqlite3_close(m_db); }

    void Provide(int requests) override { SendMessage(requests, "", 0); }

    void OpenConsumer(const std::string& path, const Table& table, std::size_t /*rows*/) override {
        m_sql = table.SelectSql();
        if (sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
            Fail("cannot open " + path);
        }
    }

    std::int64_t Consume(const Message& /*message*/, int /*requests*/) override {
        std::size_t rows = 0;
        return SumOfQuery(m_db, m_sql, rows);
    }

private:
    std::string m_sql;
    sqlite3* m_db = nullptr;
};

}  // namespace

void WriteAll(int descriptor, const void* bytes, std::size_t size) {
    const auto* next = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t written = write(descriptor, next, size);
        if (written < 0 && errno != EINTR) {
            Fail("cannot write to a pipe");
        }
        if (written > 0) {
            next += written;
            size -= static_cast<std::size_t>(written);
        }
    }
}

bool ReadAll(int descriptor, void* bytes, std::size_t size) {
    auto* next = static_cast<char*>(bytes);
    while (size > 0) {
        const ssize_t taken = read(descriptor, next, size);
        if (taken == 0 || (taken < 0 && errno != EINTR)) {
            return false;
        }
        if (taken > 0) {
            next += taken;
            size -= static_cast<std::size_t>(taken);
        }
    }
    return true;
}

const std::vector<std::string>& WayNames() {
    static const std::vector<std::string> names = {"vantry",    "least",       "block",     "flatbuffers",
                                                   "own-steps", "own-vectors", "own-vantry"};
    return names;
}

std::unique_ptr<Way> MakeWay(const std::string& name) {
    if (name == "vantry") {
        return std::make_unique<LibraryWay>();
    }
    if (name == "least") {
        return std::make_unique<LeastWay>();
    }
    if (name == "block") {
        return std::make_unique<BlockWay>();
    }
    if (name == "flatbuffers") {
        return std::make_unique<FlatBuffersWay>();
    }
    if (name == "own-steps") {
        return std::make_unique<StepWay>();
    }
    if (name == "own-vectors") {
        return std::make_unique<OwnQueryWay>("raw");
    }
    if (name == "own-vantry") {
        return std::make_unique<OwnQueryWay>("vantry");
    }
    Fail("no such way: " + name);
}

}  // namespace bench

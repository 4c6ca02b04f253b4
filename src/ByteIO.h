#ifndef VANTRY_SRC_BYTE_IO_H
#define VANTRY_SRC_BYTE_IO_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vantry {

// Copies a value's bytes; those of a number without a call. For no bytes no address need be given.
inline void CopyBytes(char* target, const char* source, std::size_t size) {
    if (size == sizeof(std::int64_t)) {
        std::memcpy(target, source, sizeof(std::int64_t));
    } else if (size > 0) {
        std::memcpy(target, source, size);
    }
}

// Writes a result's fields one behind the other, unaligned, in the machine's byte order. The caller has
// counted the bytes before.
class ByteWriter {
public:
    explicit ByteWriter(char* target) : m_next(target) {}

    void PutInt(std::int32_t value) {
        std::memcpy(m_next, &value, sizeof value);
        m_next += sizeof value;
    }

    void PutInts(std::int32_t first, std::int32_t second) {
        const std::int32_t values[] = {first, second};
        std::memcpy(m_next, values, sizeof values);
        m_next += sizeof values;
    }

    void PutBytes(const char* bytes, std::size_t size) {
        CopyBytes(m_next, bytes, size);
        m_next += size;
    }

    void PutZero() { *m_next++ = '\0'; }

private:
    char* m_next;
};

// Reads fields out of bytes that are not trusted: each once, and none past the end.
class ByteReader {
public:
    ByteReader(const char* source, std::size_t size) : m_next(source), m_remaining(size), m_size(size) {}

    bool Has(std::size_t wanted) const { return m_remaining >= wanted; }
    std::size_t Offset() const { return m_size - m_remaining; }
    std::size_t Remaining() const { return m_remaining; }

    // Valid only after Has(4).
    std::int32_t TakeInt() {
        std::int32_t value = 0;
        std::memcpy(&value, Take(sizeof value), sizeof value);
        return value;
    }

    // The address of the next `size` bytes. Valid only after Has(size).
    const char* Take(std::size_t size) {
        const char* const taken = m_next;
        m_next += size;
        m_remaining -= size;
        return taken;
    }

private:
    const char* m_next;
    std::size_t m_remaining;
    std::size_t m_size;
};

}  // namespace vantry

#endif

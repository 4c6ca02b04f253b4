#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

// What the fuzzers of operations share: an input that is read as a row of choices, and its writer for the seeds.

namespace fuzz {

inline void Require(bool good, const char* what) {
    if (!good) {
        std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

// Reads choices off an input. One that has ended goes on with zeros.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : m_next(data), m_end(data + size) {}

    bool Ended() const { return m_next == m_end; }

    int Byte() { return Ended() ? 0 : *m_next++; }

    // A number from 0 to count - 1.
    int Below(int count) { return Byte() % count; }

    std::uint64_t Number(int bytes) {
        std::uint64_t number = 0;
        for (int i = 0; i < bytes; ++i) {
            number |= static_cast<std::uint64_t>(Byte()) << (8 * i);
        }
        return number;
    }

    // A text behind its length, which takes one byte.
    std::string Text() {
        auto length = static_cast<std::size_t>(Byte());
        if (length > static_cast<std::size_t>(m_end - m_next)) {
            length = static_cast<std::size_t>(m_end - m_next);
        }
        std::string text(reinterpret_cast<const char*>(m_next), length);
        m_next += length;
        return text;
    }

private:
    const std::uint8_t* m_next;
    const std::uint8_t* m_end;
};

// Writes an input, choice by choice as Input reads it.
class InputWriter {
public:
    InputWriter& Byte(int value) {
        m_bytes += static_cast<char>(value);
        return *this;
    }

    template <typename... Values>
    InputWriter& Bytes(Values... values) {
        (Byte(values), ...);
        return *this;
    }

    InputWriter& Number(std::uint64_t number, int bytes) {
        for (int i = 0; i < bytes; ++i) {
            Byte(static_cast<int>(number >> (8 * i) & 0xffU));
        }
        return *this;
    }

    InputWriter& Text(const std::string& text) {
        Byte(static_cast<int>(text.size()));
        m_bytes += text;
        return *this;
    }

    const std::string& Result() const { return m_bytes; }

private:
    std::string m_bytes;
};

// The bytes of a number as they stand in memory.
template <typename Number>
std::string BytesOf(Number number) {
    std::string bytes(sizeof number, '\0');
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

// A text as what takes a pointer to characters sees it.
inline std::string ToFirstZero(const std::string& text) { return text.c_str(); }

}  // namespace fuzz

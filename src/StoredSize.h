#ifndef VANTRY_SRC_STORED_SIZE_H
#define VANTRY_SRC_STORED_SIZE_H

#include <sqlite3.h>

#include <cstdint>

#include "SQLiteCursor.h"

namespace vantry {

inline bool EndsInZero(int type) { return type == SQLITE_TEXT || type == SQLITE_BLOB; }

// The bytes of a cell in a stored result: its type and its length, its value, and the zero byte behind a text or
// blob.
inline std::uint64_t StoredBytes(const CDbColumn& cell) {
    constexpr std::uint64_t HEAD_BYTES = 8;
    if (cell.value == nullptr) {
        return HEAD_BYTES;
    }
    return HEAD_BYTES + static_cast<std::uint64_t>(cell.size) + (EndsInZero(cell.type) ? 1 : 0);
}

}  // namespace vantry

#endif

#ifndef VANTRY_SRC_RESULT_CODES_H
#define VANTRY_SRC_RESULT_CODES_H

namespace vantry {

constexpr int RESULT_OK = 0;
constexpr int RESULT_IO = -5;
constexpr int RESULT_NO_MEMORY = -12;
constexpr int RESULT_NO_PERMISSION = -13;
constexpr int RESULT_NOT_ACTIVE = -14;
constexpr int RESULT_BUSY = -16;
constexpr int RESULT_INVALID = -22;
constexpr int RESULT_READ_ONLY = -30;
constexpr int RESULT_END = -34;
constexpr int RESULT_BUFFER_TOO_SMALL = -105;
constexpr int RESULT_UNKNOWN = static_cast<int>(0xC0000000U);
// Positive, among negative codes: the getters' answer for a column that is missing from its row.
constexpr int RESULT_NO_COLUMN = 6;

constexpr const char* NO_MEMORY_TEXT = "The memory is insufficient";
constexpr const char* NO_HANDLE_TEXT = "m_pDB is NULL";

}  // namespace vantry

#endif

#pragma once

// The form of an input of cursor_moves: the result, then moves until the input ends.
//
//   mode, columns - 1, a name for each, rows, the values of each, faults at the start and their code;
//   then operations, each with its own arguments.

namespace fuzz {

enum CursorMode : int { LIVE, PRELOADED, FETCHED, CURSOR_MODES };
// From this byte on they repeat, and texts may be large.
constexpr int LARGE_MODES = 252;

enum CursorOperation : int {
    MOVE_NEXT,
    MOVE_PREVIOUS,
    MOVE_FIRST,
    MOVE_LAST,
    RESET_STEP,
    FINALIZE,
    SEE_ALL,
    ADD_ROW,
    EVICT,
    // The rows that the database shows from now on.
    SHOW_ROWS,
    // So many steps that fail, and their code.
    FAULTS,
    // The bytes that the cache may hold from now on.
    BOUND,
    // The number of an evicted row.
    REFILL,
    // By bytes, or through shared memory.
    HAND_OVER,
    // A column and the size of a buffer.
    READ_BLOB,
    FIND_NAME,
    NEXT_UNTIL_FAILURE,
    CURSOR_OPERATIONS
};

enum ValueKind : int {
    NULL_VALUE,
    SMALL_INTEGER,
    INTEGER,
    DOUBLE,
    TEXT,
    BLOB,
    // Its size is counted in pieces, of 16 KiB in the large modes.
    LARGE_TEXT,
    VALUE_KINDS
};

constexpr int MOST_COLUMNS = 4;
constexpr int MOST_ROWS = 32;
constexpr int LARGE_PIECE = 16384;

// What a step can answer, chosen by number.
constexpr int FAULT_CODES[] = {1, 4, 5, 6, 9, 10, 11, 13, 19, 23};
constexpr int FAULT_CODE_COUNT = sizeof FAULT_CODES / sizeof FAULT_CODES[0];

}  // namespace fuzz

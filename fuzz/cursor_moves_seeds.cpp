#include <cstdio>
#include <fstream>
#include <string>

#include "CursorMoves.h"
#include "Input.h"

// Writes the walks from which the fuzzer of cursors starts into a directory.

namespace {

using fuzz::InputWriter;

// A result of two columns, a number and a letter, with so many rows; no step fails.
InputWriter Letters(int mode, int rows) {
    InputWriter writer;
    writer.Byte(mode).Byte(1).Text("id").Text("name").Byte(rows);
    for (int row = 0; row < rows; ++row) {
        writer.Bytes(fuzz::SMALL_INTEGER, row, fuzz::TEXT).Text(std::string(1, static_cast<char>('a' + row)));
    }
    return writer.Bytes(0, 0);
}

// One row with a value of each kind in turn, four columns.
InputWriter Values() {
    InputWriter writer;
    writer.Byte(fuzz::LIVE).Byte(3).Text("a").Text("").Text("a").Text("with \"quotes\"").Byte(2);
    writer.Byte(fuzz::NULL_VALUE).Byte(fuzz::INTEGER).Number(0x8000000000000001U, 8);
    writer.Byte(fuzz::DOUBLE).Number(0x3ff8000000000000U, 8);
    writer.Byte(fuzz::TEXT).Text(std::string("a\0b", 3));
    writer.Byte(fuzz::BLOB).Text(std::string("\0\xff", 2)).Byte(fuzz::BLOB).Text("");
    writer.Byte(fuzz::TEXT).Text("").Bytes(fuzz::SMALL_INTEGER, 9);
    return writer.Bytes(0, 0);
}

// Rows of 512 KiB, more than the cache holds.
InputWriter Large(int mode, int rows) {
    InputWriter writer;
    writer.Byte(fuzz::LARGE_MODES + mode).Byte(0).Text("v").Byte(rows);
    for (int row = 0; row < rows; ++row) {
        writer.Bytes(fuzz::LARGE_TEXT, 32);
    }
    return writer.Bytes(0, 0);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace fuzz;
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    const struct {
        const char* name;
        InputWriter input;
    } seeds[] = {
        {"forward-and-back", Letters(LIVE, 3).Bytes(MOVE_NEXT, MOVE_NEXT, MOVE_NEXT, MOVE_NEXT, MOVE_PREVIOUS,
                                                    MOVE_PREVIOUS, MOVE_PREVIOUS, MOVE_FIRST)},
        {"past-the-end",
         Letters(LIVE, 2).Bytes(NEXT_UNTIL_FAILURE, NEXT_UNTIL_FAILURE, RESET_STEP, NEXT_UNTIL_FAILURE)},
        {"last-as-the-first-move", Letters(LIVE, 3).Bytes(MOVE_LAST, MOVE_PREVIOUS, MOVE_LAST)},
        {"last-after-one", Letters(LIVE, 3).Bytes(MOVE_NEXT, MOVE_LAST, MOVE_LAST, MOVE_FIRST)},
        {"last-after-a-reset",
         Letters(LIVE, 4).Bytes(MOVE_NEXT, MOVE_NEXT, RESET_STEP, MOVE_LAST, MOVE_FIRST, MOVE_NEXT)},
        {"no-rows", Letters(LIVE, 0).Bytes(MOVE_NEXT, MOVE_FIRST, MOVE_LAST, MOVE_PREVIOUS, RESET_STEP)},
        {"rows-that-come-later",
         Letters(LIVE, 3).Bytes(SHOW_ROWS, 0, MOVE_NEXT, SHOW_ROWS, 2, MOVE_FIRST, MOVE_NEXT, MOVE_NEXT)},
        {"preloaded", Letters(PRELOADED, 3)
                          .Bytes(MOVE_LAST, NEXT_UNTIL_FAILURE, MOVE_LAST, MOVE_FIRST, MOVE_PREVIOUS,
                                 RESET_STEP, MOVE_NEXT)},
        {"fetched",
         Letters(FETCHED, 3)
             .Bytes(NEXT_UNTIL_FAILURE, MOVE_LAST, MOVE_PREVIOUS, HAND_OVER, 1, NEXT_UNTIL_FAILURE)},
        {"fetched-before-its-end", Letters(LIVE, 3).Bytes(MOVE_NEXT, HAND_OVER, 0, MOVE_NEXT)},
        {"values", Values()
                       .Bytes(MOVE_NEXT, READ_BLOB, 1, 4, MOVE_NEXT, READ_BLOB, 1, 4, READ_BLOB, 1, 2,
                              READ_BLOB, 2, 4, FIND_NAME)
                       .Text("a")
                       .Byte(FIND_NAME)
                       .Text("none")},
        {"finalised", Letters(LIVE, 3).Bytes(FINALIZE, MOVE_NEXT, MOVE_FIRST, MOVE_LAST)},
        {"finalised-between",
         Letters(LIVE, 3).Bytes(MOVE_NEXT, MOVE_NEXT, FINALIZE, MOVE_NEXT, MOVE_FIRST, ADD_ROW, REFILL, 0)},
        {"busy", Letters(LIVE, 3).Bytes(FAULTS, 2, 2, MOVE_NEXT, FAULTS, 40, 3, MOVE_NEXT, MOVE_NEXT)},
        {"a-step-that-fails", Letters(LIVE, 3).Bytes(FAULTS, 1, 0, MOVE_NEXT, MOVE_NEXT, FAULTS, 1, 4,
                                                     MOVE_NEXT, MOVE_NEXT, MOVE_FIRST)},
        {"a-reset-that-tells",
         Letters(LIVE, 3).Bytes(MOVE_NEXT, MOVE_NEXT, FAULTS, 1, 8, MOVE_NEXT, FINALIZE)},
        {"evicted", Letters(LIVE, 6).Bytes(MOVE_NEXT, BOUND, 25, 0, MOVE_NEXT, MOVE_NEXT, MOVE_NEXT,
                                           MOVE_PREVIOUS, MOVE_PREVIOUS, MOVE_FIRST, MOVE_NEXT, MOVE_LAST)},
        {"evicted-and-finalised",
         Letters(LIVE, 6).Bytes(NEXT_UNTIL_FAILURE, BOUND, 10, 0, EVICT, FINALIZE, MOVE_FIRST, MOVE_PREVIOUS,
                                HAND_OVER, 0, NEXT_UNTIL_FAILURE)},
        {"refilled", Letters(LIVE, 4).Bytes(NEXT_UNTIL_FAILURE, BOUND, 0, 0, EVICT, REFILL, 1, FAULTS, 35, 2,
                                            REFILL, 2, SHOW_ROWS, 0, REFILL, 0)},
        {"large", Large(LIVE, 6).Bytes(NEXT_UNTIL_FAILURE, MOVE_PREVIOUS, MOVE_FIRST, MOVE_LAST)},
        {"large-preloaded", Large(PRELOADED, 6).Bytes(MOVE_NEXT, MOVE_FIRST, MOVE_NEXT)},
        {"large-stored", Large(PRELOADED, 4).Bytes(HAND_OVER, 1, MOVE_NEXT)},
    };
    for (const auto& seed : seeds) {
        std::ofstream file(std::string(argv[1]) + "/" + seed.name, std::ios::binary);
        file << seed.input.Result();
        if (!file.flush()) {
            std::fprintf(stderr, "%s/%s cannot be written\n", argv[1], seed.name);
            return 1;
        }
    }
    return 0;
}

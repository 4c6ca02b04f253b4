#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "Input.h"
#include "SqlBuilders.h"

// Writes the requests from which the fuzzer of statements starts into a directory.

namespace {

using fuzz::InputWriter;

constexpr int OWN_TEXT = 255;

// A choice of one of the lists' texts is its number; this is a text that is on none.
InputWriter& Own(InputWriter& writer, const std::string& text) { return writer.Byte(OWN_TEXT).Text(text); }

// A bundle of texts, keys and values by their numbers.
InputWriter& Entries(InputWriter& writer, const std::vector<std::pair<int, int>>& entries) {
    writer.Byte(static_cast<int>(entries.size()));
    for (const auto& entry : entries) {
        writer.Bytes(fuzz::TEXT_ENTRY, entry.first, entry.second);
    }
    return writer;
}

InputWriter Insert(int table, const std::vector<std::pair<int, int>>& entries, int conflict) {
    InputWriter writer;
    Entries(writer.Bytes(fuzz::INSERT, table), entries).Byte(conflict);
    return writer;
}

InputWriter SelectAll(int table, int walked) {
    InputWriter writer;
    return writer.Bytes(fuzz::SELECT, table, 0, 0, 0, walked);
}

InputWriter Joined(const std::vector<InputWriter>& parts) {
    InputWriter writer;
    for (const InputWriter& part : parts) {
        for (const char each : part.Result()) {
            writer.Byte(static_cast<unsigned char>(each));
        }
    }
    return writer;
}

InputWriter Bytes(const std::vector<int>& values) {
    InputWriter writer;
    for (const int value : values) {
        writer.Byte(value);
    }
    return writer;
}

// One entry whose key and value are on no list.
InputWriter Hostile(const std::string& key, const std::string& value) {
    InputWriter writer;
    writer.Bytes(fuzz::INSERT, 0, 1, fuzz::BYTES_ENTRY);
    Own(Own(writer, key), value).Byte(0);
    return writer;
}

// A select that shows an argument with a zero byte in it.
InputWriter SelectWithZero() {
    InputWriter writer;
    return Own(writer.Bytes(fuzz::SELECT_BOUND, 0, 1, 6, 0, 1), std::string("x\0y", 3)).Bytes(0, fuzz::STEP);
}

InputWriter Execute(const std::string& sql) {
    InputWriter writer;
    return Own(writer.Byte(fuzz::EXECUTE), sql);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace fuzz;
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    const InputWriter all = SelectAll(0, STEP);
    const struct {
        const char* name;
        InputWriter input;
    } seeds[] = {
        {"insert", Joined({Insert(0, {{0, 1}, {1, 5}, {2, 2}, {3, 3}, {4, 8}}, 0), all})},
        {"insert-or-replace", Joined({Insert(0, {{5, 1}, {0, 4}}, 5), Insert(0, {{5, 1}, {0, 5}}, 4), all})},
        {"insert-refused", Joined({Insert(0, {{5, 1}}, 0), Insert(0, {{6, 9}}, 2), Insert(5, {{0, 1}}, 0)})},
        {"insert-keys", Insert(1, {{7, 1}, {8, 6}, {0, 12}}, 0)},
        {"insert-no-column", Joined({Insert(0, {}, 0), Insert(0, {{9, 1}}, 0), Bytes({INSERT, 0, 9, 0})})},
        {"insert-array", Bytes({INSERT, 0, 2, ARRAY_ENTRY, 0, 1, BYTES_ENTRY, 1, 5, 1})},
        {"insert-hostile", Joined({Hostile("a) VALUES (1); --", "x"), Hostile("a", std::string("b\0c", 3)),
                                   Hostile("\"a\"", "'\xff'"), Hostile("", "x")})},
        {"update", Joined({Bytes({UPDATE, 0, 1, TEXT_ENTRY, 0, 1, 3, 0}), all})},
        {"update-bound", Joined({Bytes({UPDATE_BOUND, 0, 1, TEXT_ENTRY, 1, 5, 1, 1, 1, 0}), all})},
        {"update-too-many", Joined({Bytes({UPDATE_BOUND, 0, 1, TEXT_ENTRY, 1, 5, 1, 3, 1, 4, 5, 0}), all})},
        {"update-too-few", Bytes({UPDATE_BOUND, 0, 1, TEXT_ENTRY, 1, 5, 2, 1, 1, 4})},
        {"update-constraint", Bytes({UPDATE_BOUND, 0, 1, TEXT_ENTRY, 5, 1, 0, 0, 1})},
        {"delete", Joined({Bytes({DELETE, 0, 4, DELETE, 0, 5, DELETE, 1, 0}), all})},
        {"delete-bound", Joined({Bytes({DELETE_BOUND, 0, 6, 1, 4, DELETE_BOUND, 0, 7, 0}), all})},
        {"select", Joined({SelectAll(0, PRELOAD), SelectAll(1, STEP), SelectAll(2, PRELOAD),
                           Bytes({SELECT, 0, 3, 0, 2, 4, 0, 2, PRELOAD})})},
        {"select-bound",
         Bytes({SELECT_BOUND, 0, 0, 1, 1, 1, 0, STEP, SELECT_BOUND, 0, 2, 6, 0, 1, 2, 1, 5, 1, PRELOAD})},
        {"select-bound-zero", SelectWithZero()},
        {"select-refused",
         Bytes({SELECT, 5, 0, 0, 0, 0, SELECT, 0, 0, 7, 4, 0, SELECT_BOUND, 0, 0, 0, 2, 1, 1, 0, 0})},
        {"order", Bytes({SELECT, 0, 0, 0, 3, 0, SELECT, 0, 0, 0, 4, 1, SELECT, 0, 0, 0, 5, 1})},
        {"held", Joined({SelectAll(0, HOLD), Bytes({EXECUTE, 2, DELETE, 0, 0}), Execute("DROP TABLE t"),
                         SelectAll(1, HOLD), all})},
        {"transaction", Joined({Bytes({EXECUTE, 1}), Insert(0, {{5, 1}}, 1), Bytes({EXECUTE, 3}), all})},
        {"build", Bytes({BUILD_INSERT,
                         0,
                         2,
                         TEXT_ENTRY,
                         0,
                         1,
                         TEXT_ENTRY,
                         8,
                         5,
                         3,
                         BUILD_UPDATE,
                         1,
                         1,
                         TEXT_ENTRY,
                         0,
                         4,
                         1,
                         2,
                         1,
                         5,
                         5,
                         BUILD_UPDATE,
                         0,
                         0,
                         0,
                         1,
                         1,
                         0})},
        {"prepare", Bytes({PREPARE, 5, 0, PREPARE, 0, 1, 1, PREPARE, 6, 0, PREPARE, 8, 2, 1, 1})},
        {"endless", Bytes({EXECUTE, 8, EXECUTE, 7, EXECUTE, 6})},
        {"texts", Bytes({TEXTS, 5, 6, 7, TEXTS, 6, 0, 1, TEXTS, 10, 7, 6, TEXTS, 4, 4, 4})},
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

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "SharedQueryObject.h"

// Writes the blocks from which the fuzzer starts into a directory: results of real statements, and some of them cut.

namespace {

class Object : public CSharedQueryObject {
public:
    using CSharedQueryObject::m_buffer;
};

std::string Block(sqlite3* db, const char* select, bool toTheEnd) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, select, -1, &statement, nullptr) != SQLITE_OK) {
        std::fprintf(stderr, "%s: %s\n", select, sqlite3_errmsg(db));
        std::exit(1);
    }
    const auto cursor = std::make_shared<CSQLiteCursor>(db, statement);
    while (cursor->MoveNextStep() == 0 && toTheEnd) {
    }
    Object object;
    if (object.SerializeCursorData(cursor) != 0) {
        std::exit(1);
    }
    return std::string(object.m_buffer.begin(), object.m_buffer.end());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    const struct {
        const char* name;
        const char* select;
        bool toTheEnd;
        std::size_t length;
    } seeds[] = {
        {"integer", "SELECT 7 AS v", true, std::string::npos},
        {"integer-least", "SELECT -9223372036854775807 - 1 AS v", true, std::string::npos},
        {"float", "SELECT 1.5 AS v", true, std::string::npos},
        {"text", "SELECT 'ab' AS v", true, std::string::npos},
        {"text-empty", "SELECT '' AS v", true, std::string::npos},
        {"text-zeros", "SELECT CAST(x'6100620063' AS TEXT) AS v", true, std::string::npos},
        {"blob", "SELECT x'00ff0180' AS v", true, std::string::npos},
        {"blob-empty", "SELECT x'' AS v", true, std::string::npos},
        {"null", "SELECT NULL AS v", true, std::string::npos},
        {"every-type", "SELECT 7 AS i, 1.5 AS f, 'ab' AS t, x'00ff' AS b, NULL AS n", true,
         std::string::npos},
        {"rows",
         "SELECT 1 AS id, 'one' AS name UNION ALL SELECT 2, 'two' UNION ALL SELECT 3, NULL UNION ALL SELECT "
         "4, 4.5",
         true, std::string::npos},
        {"columns", "SELECT 1 AS a, 2 AS b, 3 AS c, 4 AS d, 5 AS e, 6 AS f, 7 AS g, 8 AS h", true,
         std::string::npos},
        {"names", "SELECT 1 AS \"\", 2 AS \"a name with blanks\", 3 AS \"\xc3\xa4\"", true,
         std::string::npos},
        {"no-rows", "SELECT 1 AS a, 2 AS b WHERE 0", true, std::string::npos},
        {"not-to-the-end", "SELECT 1 AS a UNION ALL SELECT 2", false, std::string::npos},
        {"cut-in-the-counts", "SELECT 7 AS v", true, 7},
        {"cut-in-a-name-length", "SELECT 7 AS v", true, 10},
        {"cut-in-a-name", "SELECT 7 AS 'a longer name'", true, 16},
        {"cut-in-a-type", "SELECT 7 AS v", true, 17},
        {"cut-in-a-length", "SELECT 'ab' AS v", true, 20},
        {"cut-in-a-value", "SELECT 'a longer text' AS v", true, 30},
        {"cut-in-the-second-row", "SELECT 7 AS v UNION ALL SELECT 8", true, 40},
    };
    sqlite3* db = nullptr;
    if (sqlite3_open(":memory:", &db) != SQLITE_OK) {
        return 1;
    }
    for (const auto& seed : seeds) {
        std::ofstream file(std::string(argv[1]) + "/" + seed.name, std::ios::binary);
        file << Block(db, seed.select, seed.toTheEnd).substr(0, seed.length);
        if (!file.flush()) {
            std::fprintf(stderr, "%s/%s cannot be written\n", argv[1], seed.name);
            return 1;
        }
    }
    sqlite3_close(db);
    return 0;
}

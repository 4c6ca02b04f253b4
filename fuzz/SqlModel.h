#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "Input.h"
#include "SQLiteCursor.h"

// The statements and the binding rules as the header describes them, and a database beside the library's on which they
// are tried.

namespace fuzz {

struct Column {
    std::string name;
    std::string value;
};
using Columns = std::vector<Column>;

inline std::vector<std::string> ValuesOf(const Columns& columns) {
    std::vector<std::string> values;
    for (const Column& column : columns) {
        values.push_back(column.value);
    }
    return values;
}

inline std::string Joined(const std::vector<std::string>& parts) {
    std::string text;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        text += (i > 0 ? ", " : "") + parts[i];
    }
    return text;
}

inline std::string ConflictText(int conflict) {
    static const char* const words[] = {"", "ROLLBACK", "ABORT", "FAIL", "IGNORE", "REPLACE"};
    return conflict == 0 ? " " : std::string(" OR ") + words[conflict] + " ";
}

inline std::string InsertText(const std::string& table, const Columns& columns, int conflict, bool bound) {
    std::vector<std::string> names;
    std::vector<std::string> values;
    for (const Column& column : columns) {
        names.push_back(column.name);
        values.push_back(bound ? "?" : column.value);
    }
    return "INSERT" + ConflictText(conflict) + "INTO " + table + " (" + Joined(names) + ") VALUES (" +
           Joined(values) + ")";
}

inline std::string UpdateText(const std::string& table, const Columns& columns, const std::string& where,
                              int conflict, bool bound) {
    std::vector<std::string> settings;
    for (const Column& column : columns) {
        settings.push_back(column.name + "=" + (bound ? "?" : column.value));
    }
    return "UPDATE " + ConflictText(conflict) + table + " SET " + Joined(settings) +
           (where.empty() ? "" : " WHERE " + where);
}

inline std::string SelectText(const std::string& table, const std::vector<std::string>& columns,
                              const std::string& where, const std::string& order) {
    return "SELECT " + (columns.empty() ? "*" : Joined(columns)) + " FROM " + table +
           (where.empty() ? "" : " WHERE " + where) +
           (order.empty() ? "" : " ORDER BY " + order.substr(0, order.find(';')));
}

// Without the pair of quotes that stands round it; a lone quote is a pair.
inline std::string BoundText(const std::string& text) {
    const bool quoted = !text.empty() && text.front() == '\'' && text.back() == '\'';
    if (!quoted) {
        return text;
    }
    return text.size() < 2 ? "" : std::string(text.begin() + 1, text.end() - 1);
}

inline std::string Replaced(const std::string& text, const std::string& from, const std::string& to) {
    std::string result;
    for (std::size_t i = 0; i < text.size();) {
        if (!from.empty() && text.compare(i, from.size(), from) == 0) {
            result += to;
            i += from.size();
        } else {
            result += text[i++];
        }
    }
    return result;
}

inline int Mapped(int code) {
    switch (code) {
        case 0:
            return 0;
        case 3:
            return -13;
        case 4:
            return -22;
        case 5:
        case 6:
            return -16;
        case 7:
            return -12;
        case 8:
            return -30;
        case 10:
        case 11:
        case 14:
        case 16:
        case 26:
            return -5;
        default:
            return -1073741824;
    }
}

// Every so many of SQLite's own steps cost one; without any left, statements are interrupted.
constexpr long long STEP_BUDGET = 200;
constexpr int STEPS_AT_ONCE = 100;

inline int CountSteps(void* budget) { return --*static_cast<long long*>(budget) < 0 ? 1 : 0; }

// Keeps foreign statements off the file system, and from what differs between two databases that hold the same.
inline int Authorise(void*, int action, const char* first, const char* second, const char*, const char*) {
    switch (action) {
        case SQLITE_ATTACH:
        case SQLITE_DETACH:
        case SQLITE_PRAGMA:
        case SQLITE_CREATE_VTABLE:
            return SQLITE_DENY;
        case SQLITE_FUNCTION:
            for (const char* name :
                 {"random", "randomblob", "date", "time", "datetime", "julianday", "unixepoch", "strftime",
                  "current_date", "current_time", "current_timestamp"}) {
                if (second != nullptr && sqlite3_stricmp(second, name) == 0) {
                    return SQLITE_DENY;
                }
            }
            return SQLITE_OK;
        case SQLITE_READ:
            for (const char* name : {"sqlite_stmt", "sqlite_dbpage", "dbstat", "bytecode", "tables_used"}) {
                if (first != nullptr && sqlite3_stricmp(first, name) == 0) {
                    return SQLITE_DENY;
                }
            }
            return SQLITE_OK;
        default:
            return SQLITE_OK;
    }
}

inline void Bound(sqlite3* db, long long& budget, bool bounded) {
    sqlite3_progress_handler(db, STEPS_AT_ONCE, bounded ? CountSteps : nullptr, &budget);
    sqlite3_set_authorizer(db, bounded ? Authorise : nullptr, nullptr);
}

inline void Prepare(sqlite3* db, long long& budget) {
    Require(sqlite3_exec(
                db,
                "PRAGMA temp_store=2;"
                "CREATE TABLE t (a, b TEXT, c INTEGER, d REAL, e BLOB, f NUMERIC UNIQUE,"
                " g TEXT NOT NULL DEFAULT 'g' CHECK (length(g) < 9));"
                "CREATE TABLE u (k INTEGER PRIMARY KEY AUTOINCREMENT, \"x y\" TEXT, a INTEGER);"
                "CREATE TABLE \"odd name\" (a, quenby_tiles_sync_event);"
                "CREATE VIEW v AS SELECT a, b FROM t;"
                "INSERT INTO t(a, b, c, f) VALUES (1, 'one', 1, 1), ('2', 'two', 2, 2), (NULL, '', 3, 'x');"
                "INSERT INTO u(a) VALUES (7), (8)",
                nullptr, nullptr, nullptr) == SQLITE_OK,
            "no schema");
    sqlite3_limit(db, SQLITE_LIMIT_LENGTH, 2000);
    sqlite3_limit(db, SQLITE_LIMIT_EXPR_DEPTH, 50);
    sqlite3_limit(db, SQLITE_LIMIT_COMPOUND_SELECT, 10);
    sqlite3_limit(db, SQLITE_LIMIT_TRIGGER_DEPTH, 5);
    sqlite3_limit(db, SQLITE_LIMIT_LIKE_PATTERN_LENGTH, 100);
    sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    Bound(db, budget, true);
}

// A row, with its columns' names; `bytes` counts what a cursor counts.
inline std::string ShowRow(sqlite3_stmt* statement, long long& bytes) {
    std::string text;
    for (int column = 0; column < sqlite3_column_count(statement); ++column) {
        const int type = sqlite3_column_type(statement, column);
        std::string value;
        int size = 8;
        if (type == SQLITE_INTEGER) {
            value = BytesOf(sqlite3_column_int64(statement, column));
        } else if (type == SQLITE_FLOAT) {
            value = BytesOf(sqlite3_column_double(statement, column));
        } else {
            const auto* const start = static_cast<const char*>(sqlite3_column_blob(statement, column));
            size = sqlite3_column_bytes(statement, column);
            value.assign(start != nullptr ? start : "", static_cast<std::size_t>(size));
            value = type == SQLITE_TEXT ? ToFirstZero(value) : value;
        }
        bytes += size;
        text.append(sqlite3_column_name(statement, column)).append(":").append(std::to_string(type));
        text.append(":").append(std::to_string(size)).append(":").append(value).append("|");
    }
    return text;
}

inline std::string ShowRow(ISQLiteCursor& cursor) {
    // SQLite's types, by the cursor's.
    static const int types[] = {SQLITE_INTEGER, 0, SQLITE_FLOAT, SQLITE_TEXT, SQLITE_BLOB, SQLITE_NULL, 0};
    std::string text;
    for (int column = 0; column < cursor.GetColumnCount(); ++column) {
        const int type = types[cursor.GetColumnType(column)];
        const int size = cursor.GetColumnSize(column);
        std::string value;
        long long number = 0;
        double real = 0;
        int result = 0;
        if (type == SQLITE_INTEGER) {
            result = cursor.GetInteger64Data(column, number);
            value = BytesOf(number);
        } else if (type == SQLITE_FLOAT) {
            result = cursor.GetDoubleData(column, real);
            value = BytesOf(real);
        } else if (type == SQLITE_TEXT) {
            result = cursor.GetStringData(column, value);
        } else if (type == SQLITE_BLOB) {
            value.resize(static_cast<std::size_t>(size));
            result = size > 0 ? cursor.GetBlobData(column, value.data(), size) : 0;
        }
        Require(result == 0, "a value cannot be read");
        text.append(cursor.GetColumnName(column)).append(":").append(std::to_string(type));
        text.append(":").append(std::to_string(size)).append(":").append(value).append("|");
    }
    return text;
}

// Everything that a database holds.
inline std::string Dump(sqlite3* db, long long& budget) {
    Bound(db, budget, false);
    const auto query = [db](const std::string& sql) {
        std::vector<std::string> rows;
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
        while (sqlite3_step(statement) == SQLITE_ROW) {
            long long bytes = 0;
            rows.push_back(ShowRow(statement, bytes));
            const auto* const name = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
            rows.push_back(name != nullptr ? name : "");
        }
        sqlite3_finalize(statement);
        return rows;
    };
    std::string text = Joined(query("SELECT type, name, sql FROM sqlite_schema"));
    const auto tables =
        query("SELECT '\"' || replace(name, '\"', '\"\"') || '\"' FROM sqlite_schema WHERE type = 'table'");
    // The names stand in every second place.
    for (std::size_t i = 1; i < tables.size(); i += 2) {
        text += Joined(query("SELECT * FROM " + tables[i]));
    }
    Bound(db, budget, true);
    return text;
}

// The second database, to which the model's statements are given as the library is to give them.
class Twin {
public:
    Twin() {
        Require(sqlite3_open(":memory:", &db) == SQLITE_OK, "no twin");
        fuzz::Prepare(db, budget);
    }
    Twin(const Twin&) = delete;
    Twin& operator=(const Twin&) = delete;
    ~Twin() {
        sqlite3_finalize(m_held);
        Require(sqlite3_close(db) == SQLITE_OK, "a statement of the twin stays behind");
    }

    int Execute(const std::string& sql) {
        return WhileBusy(30, [&] { return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr); });
    }

    int Prepare(const std::string& sql, sqlite3_stmt*& statement, const char** tail = nullptr) {
        return WhileBusy(30, [&] { return sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, tail); });
    }

    // Answers with the last bind's code.
    int Bind(const std::string& sql, const std::vector<std::string>& arguments, sqlite3_stmt*& statement) {
        int code = Prepare(sql, statement);
        if (code != SQLITE_OK) {
            return code;
        }
        int place = 0;
        for (const std::string& argument : arguments) {
            const std::string text = BoundText(argument);
            code = sqlite3_bind_text(statement, ++place, text.c_str(), static_cast<int>(text.size()),
                                     SQLITE_TRANSIENT);
        }
        return code;
    }

    // One step to the statement's end, whatever could not be bound. `unprepared` is the answer of a statement that
    // SQLite refuses.
    int Write(const std::string& sql, const std::vector<std::string>& arguments, int unprepared) {
        sqlite3_stmt* statement = nullptr;
        Bind(sql, arguments, statement);
        if (statement == nullptr) {
            return unprepared;
        }
        const int stepped = WhileBusy(30, [&] { return sqlite3_step(statement); });
        const int ended = WhileBusy(30, [&] { return sqlite3_reset(statement); });
        sqlite3_finalize(statement);
        return ended == SQLITE_OK && IsBusy(stepped) ? stepped : ended;
    }

    int StepAsCursor(sqlite3_stmt* statement) {
        return WhileBusy(31, [&] { return sqlite3_step(statement); });
    }

    // Keeps a statement where it stands, in the place of the one before.
    void Hold(sqlite3_stmt* statement) {
        sqlite3_finalize(m_held);
        m_held = statement;
    }

    sqlite3* db = nullptr;
    long long budget = STEP_BUDGET;
    int sleeps = 0;

private:
    static bool IsBusy(int code) { return code == SQLITE_BUSY || code == SQLITE_LOCKED; }

    // A busy answer is followed by a pause, the thirtieth by the end, or by one call more.
    template <typename Call>
    int WhileBusy(int calls, Call call) {
        int code = call();
        for (int pause = 1; pause <= 30 && IsBusy(code); ++pause) {
            ++sleeps;
            if (pause < calls) {
                code = call();
            }
        }
        return code;
    }

    sqlite3_stmt* m_held = nullptr;
};

}  // namespace fuzz

#pragma once

// The form of an input of sql_builders: operations until the input ends, each with its own arguments.
//
// A text is a byte below the number of its list's texts, which chooses one of them, or any other byte, and then a
// length and the bytes.

namespace fuzz {

enum SqlOperation : int {
    // Table, bundle, conflict.
    INSERT,
    // Table, bundle, where clause, conflict.
    UPDATE,
    // Table, bundle, where clause, arguments, conflict.
    UPDATE_BOUND,
    // Table, where clause.
    DELETE,
    // Table, where clause, arguments.
    DELETE_BOUND,
    // Table, columns, where clause, order, how it is walked.
    SELECT,
    // Table, columns, where clause, arguments, order, how it is walked.
    SELECT_BOUND,
    // As an insert and an update; nothing is run.
    BUILD_INSERT,
    BUILD_UPDATE,
    // A statement.
    EXECUTE,
    PREPARE,
    // A text, and two to be replaced and put in.
    TEXTS,
    SQL_OPERATIONS
};

enum Walked : int { PRELOAD, STEP, HOLD, WALKS };

enum EntryKind : int { TEXT_ENTRY, BYTES_ENTRY, ARRAY_ENTRY, ENTRY_KINDS };

constexpr const char* TABLES[] = {"t", "u", "v", "\"odd name\"", "main.t", "missing"};
constexpr const char* KEYS[] = {
    "a", "b", "c", "d", "e", "f", "g", "k", "\"x y\"", "quenby_tiles_sync_event", "rowid"};
constexpr const char* VALUES[] = {
    "",        "1", "-9223372036854775808", "1.5", "text", "'quoted'", "'", "''", "x'00ff'", "NULL",
    "'it''s'", "?", "1); DROP TABLE t; --"};
constexpr const char* WHERES[] = {"",
                                  "a=?",
                                  "a=? AND b>?",
                                  "1",
                                  "rowid IN (SELECT max(rowid) FROM t)",
                                  "a='x'; DELETE FROM u",
                                  "b LIKE ?",
                                  "(",
                                  "a=?2",
                                  "c BETWEEN ? AND ?"};
constexpr const char* COLUMNS[] = {"a",         "*",      "b AS \"x y\"", "count(*)",
                                   "typeof(a)", "hex(e)", "a || ?",       "u.k"};
constexpr const char* ORDERS[] = {"", "a", "b DESC, a", "a; DROP TABLE t", ";", "rowid LIMIT 2"};
constexpr const char* STATEMENTS[] = {
    "",
    "BEGIN EXCLUSIVE;",
    "COMMIT;",
    "ROLLBACK;",
    "DROP TABLE u",
    "SELECT 1; SELECT",
    "INSERT INTO t(a) VALUES (1) RETURNING a",
    "CREATE TABLE w AS SELECT * FROM t",
    "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i FROM c) SELECT * FROM c"};

}  // namespace fuzz

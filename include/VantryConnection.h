#ifndef VANTRY_CONNECTION_H
#define VANTRY_CONNECTION_H

#include <pthread.h>
#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

#include "SQLiteCursor.h"
#include "VantryExport.h"

/// @file
/// The connection to a database file, and its lock.

struct _bundle_t;  // NOLINT(bugprone-reserved-identifier): the platform's name
struct keyval_t;

/// A named mutex. It is not recursive: a thread that holds it must not enter it again. It cannot be copied.
class VANTRY_API CDBLock {
public:
    /// A free lock without a name.
    CDBLock();
    /// A free lock.
    ///
    /// @param name  tells locks apart in a debugger; copied, never read.
    explicit CDBLock(const std::string& name);
    CDBLock(const CDBLock&) = delete;
    CDBLock& operator=(const CDBLock&) = delete;
    /// Destroys the mutex; no thread may hold it.
    virtual ~CDBLock();

    /// Waits for the mutex and takes it.
    void Enter() const;
    /// Gives the mutex back; only the thread that holds it may.
    void Leave() const;

protected:
    /// The name; empty when memory ran out.
    std::string m_name;
    /// The mutex.
    mutable pthread_mutex_t m_mutex;
};

/// Holds a lock for as long as the guard lives. It cannot be copied.
class VANTRY_API CDBLocalScopedLock {
public:
    /// Waits for the lock and takes it.
    ///
    /// @param pLock  the lock, borrowed for the guard's life; null makes a guard that does nothing.
    explicit CDBLocalScopedLock(const CDBLock* pLock);
    CDBLocalScopedLock(const CDBLocalScopedLock&) = delete;
    CDBLocalScopedLock& operator=(const CDBLocalScopedLock&) = delete;
    /// Gives the lock back.
    virtual ~CDBLocalScopedLock();

protected:
    /// The lock, borrowed, or null.
    const CDBLock* m_pLock;
};

/// One connection to one SQLite database file. It cannot be copied.
///
/// @dotfile architecture.dot "Who holds what, and what crosses to another process"
///
/// Result codes: 0 is success. Failures are -5 (input or output, corrupt, not a database, cannot open), -12
/// (memory), -13 (permission), -16 (busy or locked), -22 (no handle, wrong argument, aborted), -30
/// (read-only), and 0xC0000000 for everything else. An operation that returns raw SQLite codes says so.
///
/// Waiting: a call that meets a busy or locked database is made 30 times at most, each busy answer followed
/// by 30 ms, so an operation may take 0.9 s longer in the calling thread for each SQLite call that it makes;
/// then it gives up. The steps of IntegrityCheck() and CopyDBFile() do not wait.
///
/// Threads: OpenOperation(), IsOpen(), CloseOperation() (so CloseDB() and the destructor too) and ExcuteSQL()
/// (so the statement of SetForeignKeyConstraintsEnabled() too) take the connection's lock. No other operation
/// does: callers that share a connection between threads serialise those themselves.
///
/// Memory: no operation throws. One that runs out of memory logs it and fails in its own way: -12 or -22,
/// null, false or an empty text.
class VANTRY_API CVantryConnection {
public:
    /// @name Open and close
    /// @{

    /// A connection without a path; it cannot be opened.
    CVantryConnection();
    /// A closed connection to the file `path` + `name`.
    ///
    /// @param path      directory, ending in a slash: nothing is put between path and name.
    /// @param name      file name.
    /// @param openMode  1 read-only; 2 read-write; 6 read-write, created when missing; 9 read-only without
    ///                  SQLite's own mutex. Kept: any other mode is refused only by SQLite, when opening.
    CVantryConnection(const std::string& path, const std::string& name, int openMode);
    CVantryConnection(const CVantryConnection&) = delete;
    CVantryConnection& operator=(const CVantryConnection&) = delete;
    /// Closes the database as CloseDB() does.
    virtual ~CVantryConnection();

    /// Opens the database. Close an open connection first: its handle would be lost.
    ///
    /// Threads: takes the lock for each try, not while it sleeps.
    ///
    /// Kept: a failed open may leave a handle behind, so that IsOpen() answers true; CloseDB() releases it.
    ///
    /// @return 0; -22 when path and name are empty; -16 when still busy at the end; -12 when memory runs out;
    ///         else the mapped code.
    int OpenOperation();

    /// Finalises every statement of the connection, those of live cursors included, and closes it.
    /// Cursors with a live statement must be released before.
    ///
    /// Threads: takes the lock, and keeps it while it waits.
    ///
    /// @return 0, also when nothing was open; else the mapped code: the handle is given up all the same.
    int CloseOperation();

    /// CloseOperation(), with a log line on success.
    ///
    /// @return as CloseOperation().
    int CloseDB();

    /// Tells whether there is a handle.
    ///
    /// Threads: takes the lock.
    ///
    /// @return true when there is one.
    bool IsOpen() const;

    /// Tells the open mode given at construction.
    ///
    /// @return the mode; 0 for a connection without a path.
    int GetOpenMode() const;

    /// Tells the row id of the last insert on this connection.
    ///
    /// @return the id, 0 before the first; -1 without a handle.
    long long GetLastInsertRowID();

    /// Maps an SQLite result code to the library's: 3 to -13; 4 to -22; 5 and 6 to -16; 7 to -12; 8 to -30;
    /// 10, 11, 14, 16 and 26 to -5; 0 to 0; every other value to 0xC0000000.
    ///
    /// @param code  a primary code of SQLite.
    /// @return the library's code.
    static int ConvertSQLiteErrorToVantryError(int code);

    /// @}
    /// @name Run and bind
    ///
    /// Every operation below that needs a handle and has none returns -22, false, or nothing; the inserts
    /// 0xC0000000. Where there is an `error`, it receives SQLite's message of a failure and is otherwise left
    /// alone, unless told differently.
    /// @{

    /// Runs SQL text; rows that it yields are dropped.
    ///
    /// A failure is told by the result and the text, not by the log.
    ///
    /// Kept: each retry runs the text from its first statement, so that statements before the busy one are made
    /// again.
    ///
    /// Threads: takes the lock for the whole call, waits included.
    ///
    /// @param sql    one or more statements, read up to the first zero byte.
    /// @param error  out: SQLite's message of a failure; empty when memory does not suffice for it.
    /// @return 0; -22 without a handle; else the mapped code.
    int ExcuteSQL(const std::string& sql, std::string& error);

    /// ExcuteSQL() without the lock.
    ///
    /// @param sql    as for ExcuteSQL().
    /// @param error  as for ExcuteSQL().
    /// @return as ExcuteSQL().
    int ExcuteSQLInner(const std::string& sql, std::string& error);

    /// Prepares one statement.
    ///
    /// @param sql     the statement, read up to the first zero byte.
    /// @param ppStmt  out: the statement, owned by the caller; null after a failed preparation, left alone
    ///                after -22 without a handle.
    /// @param ppTail  out: where the text after the statement begins, within `sql`; may be null.
    /// @param error   out: SQLite's message of a failure.
    /// @return 0; -22 without a handle and for a null ppStmt; else the mapped code.
    int PrepareCMD(const std::string& sql, sqlite3_stmt** ppStmt, const char** ppTail, std::string& error);

    /// Prepares one statement and binds the arguments to its placeholders 1, 2, 3, ..., each as text in the
    /// form of ToBindText(). Column affinity turns text back into numbers; an expression or a column without
    /// a type compares and stores the text.
    ///
    /// Kept: a failed bind is logged and the next argument is bound all the same.
    ///
    /// @param ppStmt     out: the statement, owned by the caller, also after a failed bind; null when it
    ///                   could not be prepared.
    /// @param sql        the statement.
    /// @param arguments  the arguments, copied.
    /// @param error      out: SQLite's message of a failed preparation.
    /// @return 0; -22 without a handle and for a null ppStmt; the mapped code of a failed preparation; else
    ///         the mapped code of the last bind.
    int PrepareBindStatement(sqlite3_stmt** ppStmt, const std::string& sql,
                             const std::vector<std::string>& arguments, std::string& error);

    /// Takes the single quotes off a text that begins and ends with one.
    ///
    /// Kept: quotes doubled inside stay doubled, and a lone quote becomes the empty text.
    ///
    /// @param text  the text.
    /// @return the text as it is bound.
    static std::string ToBindText(std::string text);

    /// Resets a statement, clears its bindings and finalises it.
    ///
    /// Kept: a statement whose reset or clearing failed stays until the connection closes. A last step that
    /// ended busy or locked is forgiven: the reset repeats its answer once, and is called again. Judge by the
    /// step.
    ///
    /// @param pStmt  a statement of this connection, which is gone after success.
    /// @param error  out: SQLite's last message, on success too.
    /// @return 0; -22 without a handle and for a null statement; else the raw SQLite code of a failed reset
    ///         (the error of the statement's last step, other than busy and locked) or clearing.
    int FinalizeStatement(sqlite3_stmt* pStmt, std::string& error);

    /// Tells whether SQLite's integrity check answers "ok".
    ///
    /// Kept: a busy database answers false.
    ///
    /// @return true for "ok"; false for everything else, and without a handle.
    bool IntegrityCheck();

    /// Switches foreign keys on or off when that differs from the last switch; a new connection counts as
    /// switched off.
    ///
    /// Threads: takes the lock for the statement alone. What it remembers, and the handle that it looks at before
    /// and, for a message, after, are for the caller to guard: no other switch and no close beside it.
    ///
    /// Kept: a failed switch is remembered as done, and the last switch across a close and an open, where
    /// SQLite starts anew.
    ///
    /// @param enable  true to switch on.
    void SetForeignKeyConstraintsEnabled(bool enable);

    /// @}
    /// @name Transactions
    ///
    /// Failures are told by log lines only. A caller that must know uses CTransactionScope (VantryExtras.h), or
    /// runs the statement through ExcuteSQL(). Transactions do not nest: a second
    /// begin fails and is logged, and the next commit ends the first. None takes the lock.
    /// @{

    /// Begins a transaction.
    ///
    /// @param exclusive  true for an exclusive one, false for an immediate one.
    void BeginTransaction(bool exclusive);
    /// Begins an exclusive transaction, which outside of write-ahead mode keeps readers out too.
    void BeginTransaction();
    /// Commits.
    void CommitTransaction();
    /// Rolls back.
    void RollbackTransaction();
    /// Ends the transaction.
    ///
    /// @param commit  true to commit, false to roll back.
    void EndTransaction(bool commit);

    /// @}
    /// @name Select
    /// @{

    /// Writes a SELECT. Nothing is quoted: table, columns and clauses are SQL.
    ///
    /// Kept: the order ends at its first ";".
    ///
    /// @param table       the table, or whatever may stand after FROM.
    /// @param projection  columns; empty for all.
    /// @param where       condition; empty for none.
    /// @param order       order; empty for none.
    /// @return the text; empty when memory runs out.
    std::string CreateSelectStatement(const std::string& table, const std::vector<std::string>& projection,
                                      const std::string& where, const std::string& order);

    /// Runs a SELECT.
    ///
    /// Kept: a preload that meets an error gives a cursor with the rows read so far, which looks like a
    /// shorter result.
    ///
    /// @param table       as for CreateSelectStatement().
    /// @param projection  as for CreateSelectStatement().
    /// @param where       as for CreateSelectStatement().
    /// @param order       as for CreateSelectStatement().
    /// @param preload     true: all rows are read into the cursor's cache now, and the statement is released.
    ///                    False: the cursor steps a live statement, and must be released before the
    ///                    connection is closed.
    /// @return the cursor, before its first row, which borrows the connection's handle; empty on failure.
    std::shared_ptr<ISQLiteCursor> SelectRequest(const std::string& table,
                                                 const std::vector<std::string>& projection,
                                                 const std::string& where, const std::string& order,
                                                 const bool& preload);
    /// Runs a SELECT, preloaded.
    ///
    /// @param table       as for CreateSelectStatement().
    /// @param projection  as for CreateSelectStatement().
    /// @param where       as for CreateSelectStatement().
    /// @param order       as for CreateSelectStatement().
    /// @return the cursor, before its first row; empty on failure.
    std::shared_ptr<ISQLiteCursor> SelectRequest(const std::string& table,
                                                 const std::vector<std::string>& projection,
                                                 const std::string& where, const std::string& order);
    /// Runs a SELECT with arguments.
    ///
    /// Kept: as without arguments; and a statement whose arguments could not be bound stays until the
    /// connection closes.
    ///
    /// @param table       as for CreateSelectStatement().
    /// @param projection  as for CreateSelectStatement().
    /// @param where       as for CreateSelectStatement().
    /// @param arguments   bound to the "?" of the where clause, as PrepareBindStatement() does.
    /// @param order       as for CreateSelectStatement().
    /// @param extra       not used, and cannot be left out.
    /// @param preload     as without arguments.
    /// @return the cursor, before its first row, which borrows the connection's handle; empty on failure.
    std::shared_ptr<ISQLiteCursor> SelectRequest(const std::string& table,
                                                 const std::vector<std::string>& projection,
                                                 const std::string& where,
                                                 const std::vector<std::string>& arguments,
                                                 const std::string& order, const std::string& extra,
                                                 const bool& preload);
    /// Runs a SELECT with arguments, preloaded.
    ///
    /// @param table       as for CreateSelectStatement().
    /// @param projection  as for CreateSelectStatement().
    /// @param where       as for CreateSelectStatement().
    /// @param arguments   bound to the "?" of the where clause, as PrepareBindStatement() does.
    /// @param order       as for CreateSelectStatement().
    /// @param extra       not used, and cannot be left out.
    /// @return the cursor, before its first row; empty on failure.
    std::shared_ptr<ISQLiteCursor> SelectRequest(const std::string& table,
                                                 const std::vector<std::string>& projection,
                                                 const std::string& where,
                                                 const std::vector<std::string>& arguments,
                                                 const std::string& order, const std::string& extra);

    /// @}
    /// @name Insert
    ///
    /// A bundle's keys are column names, its values their text. Text and byte values (up to their first zero
    /// byte) become columns; arrays and the key TilesModel::EVENT_TILES_SYNC_KEY do not. Kept: columns stand
    /// in the order of the addresses of the key strings inside the bundle. The bundle is borrowed for the
    /// call and must not be changed meanwhile.
    ///
    /// `conflict` selects an entry of CONFLICT_VALUES: 0 none, 1 rollback, 2 abort, 3 fail, 4 ignore, 5
    /// replace. It is not checked: any other number is undefined behaviour.
    /// @{

    /// Collects one entry of a bundle; the callback for bundle_foreach().
    ///
    /// @param key       the entry's key.
    /// @param type      its type, as the platform counts types; text and bytes are collected.
    /// @param value     the entry, read only.
    /// @param userData  a `std::map<const char*, const char*>`, from key to value; it borrows the bundle's
    ///                  text.
    static void ConvertBundleToMap(const char* key, int type, const keyval_t* value, void* userData);

    /// Writes an INSERT with the values in the text.
    ///
    /// Kept: values are written bare: put SQL literals in the bundle.
    ///
    /// @param table     the table's name.
    /// @param pBundle   the columns and their values.
    /// @param conflict  the conflict clause's number.
    /// @return the text; empty when the bundle has no column, and when memory runs out.
    std::string CreateInsertStatement(const std::string& table, _bundle_t* pBundle, int conflict);

    /// Writes an INSERT with a "?" a value.
    ///
    /// @param table      the table's name.
    /// @param pBundle    the columns and their values.
    /// @param conflict   the conflict clause's number.
    /// @param arguments  out: the values, in the order of the "?".
    /// @return the text; empty when the bundle has no column, and when memory runs out.
    std::string CreateInsertStatementWithWildcard(const std::string& table, _bundle_t* pBundle, int conflict,
                                                  std::vector<std::string>& arguments);

    /// Inserts one row. GetLastInsertRowID() tells its row id.
    ///
    /// @param table     the table's name.
    /// @param pBundle   the columns and their values.
    /// @param conflict  the conflict clause's number.
    /// @return 0; -22 for a null bundle or one without a column; -16 when its step stayed busy or the
    ///         commit behind its row was; else the mapped code. 0xC0000000 stands, among others, for a violated
    ///         constraint, for no handle, and for a statement that could not be prepared.
    int InsertWithOnConflict(const std::string& table, _bundle_t* pBundle, int conflict);

    /// InsertWithOnConflict() without a conflict clause.
    ///
    /// @param table    the table's name.
    /// @param pBundle  the columns and their values.
    /// @return as InsertWithOnConflict().
    int InsertRequest(const std::string& table, _bundle_t* pBundle);

    /// @}
    /// @name Update
    ///
    /// Bundles and conflict clauses are those of an insert.
    /// @{

    /// Writes an UPDATE with the values in the text.
    ///
    /// Kept: values are written bare, as by CreateInsertStatement().
    ///
    /// @param table     the table's name.
    /// @param pBundle   the columns and their values.
    /// @param where     condition; empty for every row.
    /// @param conflict  the conflict clause's number.
    /// @return the text; empty when the bundle has no column, and when memory runs out.
    std::string CreateUpdateStatement(const std::string& table, _bundle_t* pBundle, const std::string& where,
                                      int conflict);

    /// Writes an UPDATE with a "?" a value.
    ///
    /// @param table      the table's name.
    /// @param pBundle    the columns and their values.
    /// @param where      condition, with "?" where arguments belong; empty for every row.
    /// @param conflict   the conflict clause's number.
    /// @param arguments  in: those of the where clause; out: the bundle's values, then those. Left alone when
    ///                   the text is empty.
    /// @return the text; empty when the bundle has no column, and when memory runs out.
    std::string CreateUpdateStatementWithWildcard(const std::string& table, _bundle_t* pBundle,
                                                  const std::string& where, int conflict,
                                                  std::vector<std::string>& arguments);

    /// Updates rows with the values in the text, as CreateUpdateStatement() writes it.
    ///
    /// @param table     the table's name.
    /// @param pBundle   the columns and their values.
    /// @param where     condition; empty for every row.
    /// @param conflict  the conflict clause's number.
    /// @return 0, also when no row meets the condition; -22 for a null bundle, one without a column, or no
    ///         handle; else the mapped code.
    int UpdateWithOnConflict(const std::string& table, _bundle_t* pBundle, const std::string& where,
                             int conflict);

    /// Updates rows with bound values and arguments.
    ///
    /// Kept: SQLite's code is not mapped.
    ///
    /// @param table      the table's name.
    /// @param pBundle    the columns and their values.
    /// @param where      condition, with "?" where arguments belong; empty for every row.
    /// @param arguments  the arguments of the condition.
    /// @param conflict   the conflict clause's number.
    /// @return 0, also when no row meets the condition; -22 for a null bundle, one without a column, no
    ///         handle, or a statement that could not be prepared; else the raw SQLite code, 5 or 6 when its
    ///         step stayed busy or the commit behind its row was.
    int UpdateWithOnConflict(const std::string& table, _bundle_t* pBundle, const std::string& where,
                             std::vector<std::string> arguments, int conflict);

    /// UpdateWithOnConflict() without a conflict clause, with the values in the text.
    ///
    /// @param table    the table's name.
    /// @param pBundle  the columns and their values.
    /// @param where    condition; empty for every row.
    /// @return as that operation: mapped.
    int UpdateRequest(const std::string& table, _bundle_t* pBundle, const std::string& where);
    /// UpdateWithOnConflict() without a conflict clause, with bound values and arguments.
    ///
    /// @param table      the table's name.
    /// @param pBundle    the columns and their values.
    /// @param where      condition, with "?" where arguments belong; empty for every row.
    /// @param arguments  the arguments of the condition.
    /// @return as that operation: a raw SQLite code.
    int UpdateRequest(const std::string& table, _bundle_t* pBundle, const std::string& where,
                      std::vector<std::string> arguments);

    /// @}
    /// @name Delete
    /// @{

    /// Writes a DELETE.
    ///
    /// @param table  the table's name.
    /// @param where  condition; empty for every row.
    /// @return the text; empty when memory runs out.
    std::string CreateDeleteStatement(const std::string& table, const std::string& where);

    /// Deletes rows.
    ///
    /// @param table  the table's name.
    /// @param where  condition; empty for every row.
    /// @return 0, also when no row meets the condition; -22 without a handle; else the mapped code.
    int DeleteRequest(const std::string& table, const std::string& where);

    /// Deletes rows with arguments bound to the where clause.
    ///
    /// Kept: SQLite's code is not mapped.
    ///
    /// @param table      the table's name.
    /// @param where      condition, with "?" where arguments belong; empty for every row.
    /// @param arguments  the arguments of the condition.
    /// @return 0, also when no row meets the condition; -22 without a handle and for a statement that could
    ///         not be prepared; else the raw SQLite code, 5 or 6 when its step stayed busy or the
    ///         commit behind its row was.
    int DeleteRequest(const std::string& table, const std::string& where,
                      const std::vector<std::string>& arguments);

    /// @}
    /// @name Files
    ///
    /// Neither takes the lock, but for a close that comes first, and neither waits for a busy database.
    /// @{

    /// Removes a database file, then its side files "-journal", "-shm" and "-wal".
    ///
    /// Kept: it stops at the first file that cannot be removed, a missing one included; so it mostly answers
    /// false although the database file is gone.
    ///
    /// @param path  directory, ending in a slash.
    /// @param name  file name.
    /// @return true when all four were there and are gone.
    bool DeleteDatabase(const std::string& path, const std::string& name);

    /// Copies a database over another one, in one pass. Others may read the source meanwhile; they may write
    /// to it only in write-ahead mode. Cursors with a live statement must be gone before a connection is closed
    /// for it.
    ///
    /// The log does not tell why a copy failed. The source is opened for writing, so that SQLite can roll back
    /// what a crash left in it.
    ///
    /// Kept: a target that cannot be opened leaves SQLite's handle of it behind.
    ///
    /// @param source      path of the file to copy.
    /// @param target      path of the copy, created when missing; its content is replaced.
    /// @param closeFirst  closes this connection before, to be opened again by the caller: for a copy of, or
    ///                    over, its own file.
    /// @return true when the copy is complete; false for an empty path, a file that cannot be opened or is no
    ///         database, one file given twice, a locked source or target, a full disk, and a failure of input,
    ///         output or memory.
    bool CopyDBFile(std::string source, std::string target, bool closeFirst);

    /// @}

    /// The conflict clauses, by number, each between two blanks: 0 none (a single blank), 1 OR ROLLBACK,
    /// 2 OR ABORT, 3 OR FAIL, 4 OR IGNORE, 5 OR REPLACE.
    static const std::string CONFLICT_VALUES[6];

protected:
    /// Serialises the operations named above, owned; null when it could not be made: such a connection works,
    /// and its callers serialise everything.
    CDBLock* m_pLock;
    /// The database file's directory, ending in a slash.
    std::string m_dbPath;
    /// The database file's name.
    std::string m_dbName;
    /// The open mode given at construction.
    int m_openMode;
    /// The last foreign-key switch.
    bool m_foreignKeysEnabled;
    /// The handle, owned; null when closed. Written under `m_pLock`; the requests read it without.
    sqlite3* m_pDB;
};

#endif

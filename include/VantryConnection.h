#ifndef VANTRY_CONNECTION_H
#define VANTRY_CONNECTION_H

#include <pthread.h>
#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

#include "SQLiteCursor.h"
#include "VantryExport.h"

struct _bundle_t;  // NOLINT(bugprone-reserved-identifier): the platform's name
struct keyval_t;

/// A named mutex. It is not recursive: a thread that holds it must not enter it again.
class VANTRY_API CDBLock {
public:
    CDBLock();
    /// @param name  tells locks apart in a debugger; copied, never read.
    explicit CDBLock(const std::string& name);
    CDBLock(const CDBLock&) = delete;
    CDBLock& operator=(const CDBLock&) = delete;
    virtual ~CDBLock();

    /// Waits for the mutex and takes it.
    void Enter() const;
    /// Gives the mutex back.
    void Leave() const;

protected:
    std::string m_name;
    mutable pthread_mutex_t m_mutex;
};

/// Holds a lock for as long as the guard lives.
class VANTRY_API CDBLocalScopedLock {
public:
    /// @param pLock  the lock, borrowed for the guard's life; null makes a guard that does nothing.
    explicit CDBLocalScopedLock(const CDBLock* pLock);
    CDBLocalScopedLock(const CDBLocalScopedLock&) = delete;
    CDBLocalScopedLock& operator=(const CDBLocalScopedLock&) = delete;
    virtual ~CDBLocalScopedLock();

protected:
    const CDBLock* m_pLock;
};

/// One connection to one SQLite database file.
///
/// Result codes: 0 is success. Failures are -5 (input or output, corrupt, not a database, cannot open), -12
/// (memory), -13 (permission), -16 (busy or locked), -22 (no handle, wrong argument, aborted), -30
/// (read-only), and 0xC0000000 for everything else. An operation that returns raw SQLite codes says so.
///
/// Waiting: a call that meets a busy or locked database is made 30 times at most, each busy answer followed
/// by 30 ms, so an operation may take 0.9 s longer in the calling thread for each SQLite call that it makes;
/// then it gives up.
///
/// Threads: OpenOperation(), IsOpen(), CloseOperation() (so CloseDB() and the destructor too) and ExcuteSQL()
/// (so SetForeignKeyConstraintsEnabled() too) take the connection's lock. No other operation does: callers
/// that share a connection between threads serialise those themselves.
///
/// Memory: no operation throws. One that runs out of memory logs it and fails in its own way: -12 or -22,
/// null, false or an empty text.
class VANTRY_API CVantryConnection {
public:
    // ---- Open and close -------------------------------------------------------------------------------

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
    /// @return 0; -22 when path and name are empty; -16 when still busy at the end; else the mapped code.
    /// Threads: takes the lock for each try, not while it sleeps.
    /// Kept: a failed open may leave a handle behind, so that IsOpen() answers true; CloseDB() releases it.
    int OpenOperation();

    /// Finalises every statement of the connection, those of live cursors included, and closes it.
    /// Cursors with a live statement must be released before.
    ///
    /// @return 0, also when nothing was open; else the mapped code: the handle is given up all the same.
    /// Threads: takes the lock, and keeps it while it waits.
    int CloseOperation();

    /// CloseOperation(), with a log line on success.
    int CloseDB();

    /// Tells whether there is a handle. Threads: takes the lock.
    bool IsOpen() const;

    /// Tells the open mode given at construction.
    int GetOpenMode() const;

    /// Tells the row id of the last insert on this connection; -1 without a handle.
    long long GetLastInsertRowID();

    /// Maps an SQLite result code to the library's: 3 to -13; 4 to -22; 5 and 6 to -16; 7 to -12; 8 to -30;
    /// 10, 11, 14, 16 and 26 to -5; 0 to 0; every other value to 0xC0000000.
    static int ConvertSQLiteErrorToVantryError(int code);

    // ---- Run and bind ---------------------------------------------------------------------------------
    //
    // Every operation below that needs a handle and has none returns -22, false, or nothing; the inserts
    // 0xC0000000. Where there is an `error`, it receives SQLite's message of a failure and is otherwise left
    // alone, unless told differently.

    /// Runs SQL text; rows that it yields are dropped.
    ///
    /// @return 0, or the mapped code.
    /// Threads: takes the lock for the whole call, waits included.
    int ExcuteSQL(const std::string& sql, std::string& error);

    /// ExcuteSQL() without the lock.
    int ExcuteSQLInner(const std::string& sql, std::string& error);

    /// Prepares one statement.
    ///
    /// @param ppStmt  out: the statement, owned by the caller; null after a failure.
    /// @param ppTail  out: where the text after the statement begins, within `sql`; may be null.
    /// @return 0, or the mapped code; -22 also for a null ppStmt.
    int PrepareCMD(const std::string& sql, sqlite3_stmt** ppStmt, const char** ppTail, std::string& error);

    /// Prepares one statement and binds the arguments to its placeholders 1, 2, 3, ..., each as text in the
    /// form of ToBindText(). Column affinity turns text back into numbers; an expression or a column without
    /// a type compares and stores the text.
    ///
    /// @param ppStmt  out: the statement, owned by the caller, also after a failed bind; null when it could
    ///                not be prepared.
    /// @return 0; the mapped code of a failed preparation; else the mapped code of the last bind. Kept: a
    ///         failed bind is logged and the next argument is bound all the same.
    int PrepareBindStatement(sqlite3_stmt** ppStmt, const std::string& sql,
                             const std::vector<std::string>& arguments, std::string& error);

    /// Takes the single quotes off a text that begins and ends with one. Kept: quotes doubled inside stay
    /// doubled, and a lone quote becomes the empty text.
    static std::string ToBindText(std::string text);

    /// Resets a statement, clears its bindings and finalises it.
    ///
    /// @param error  out: SQLite's last message, on success too.
    /// @return 0; -22 for a null statement; the raw SQLite code of a failed reset (the error of the
    ///         statement's last step) or clearing. Kept: the statement then stays until the connection
    ///         closes.
    int FinalizeStatement(sqlite3_stmt* pStmt, std::string& error);

    /// Tells whether SQLite's integrity check answers "ok". Kept: a busy database answers false.
    bool IntegrityCheck();

    /// Switches foreign keys on or off when that differs from the last switch; a new connection counts as
    /// switched off. Kept: a failed switch is remembered as done.
    void SetForeignKeyConstraintsEnabled(bool enable);

    // ---- Transactions ---------------------------------------------------------------------------------
    //
    // Failures are told by log lines only. A caller that must know asks sqlite3's own state through a
    // statement of its own, or runs the statement through ExcuteSQL().

    /// Begins an exclusive transaction (true), or an immediate one (false).
    void BeginTransaction(bool exclusive);
    /// Begins an exclusive transaction.
    void BeginTransaction();
    /// Commits.
    void CommitTransaction();
    /// Rolls back.
    void RollbackTransaction();
    /// Commits (true) or rolls back (false).
    void EndTransaction(bool commit);

    // ---- Select ---------------------------------------------------------------------------------------

    /// Writes a SELECT. Nothing is quoted: table, columns and clauses are SQL.
    ///
    /// @param projection  columns; empty for all.
    /// @param where       condition, empty for none.
    /// @param order       order, empty for none. Kept: it ends at its first ";".
    std::string CreateSelectStatement(const std::string& table, const std::vector<std::string>& projection,
                                      const std::string& where, const std::string& order);

    /// Runs a SELECT.
    ///
    /// @param arguments  bound to the "?" of the where clause, as PrepareBindStatement() does.
    /// @param extra      not used.
    /// @param preload    true (as in the overloads without it): all rows are read into the cursor's cache
    /// now,
    ///                   and the statement is released. False: the cursor steps a live statement, and must be
    ///                   released before the connection is closed.
    /// @return the cursor, before its first row; empty on failure. Kept: a preload that meets an error gives
    ///         a cursor with the rows read so far, which looks like a shorter result.
    std::shared_ptr<ISQLiteCursor> SelectRequest(const std::string& table,
                                                 const std::vector<std::string>& projection,
                                                 const std::string& where, const std::string& order,
                                                 const bool& preload);
    std::shared_ptr<ISQLiteCursor> SelectRequest(const std::string& table,
                                                 const std::vector<std::string>& projection,
                                                 const std::string& where, const std::string& order);
    std::shared_ptr<ISQLiteCursor> SelectRequest(const std::string& table,
                                                 const std::vector<std::string>& projection,
                                                 const std::string& where,
                                                 const std::vector<std::string>& arguments,
                                                 const std::string& order, const std::string& extra,
                                                 const bool& preload);
    std::shared_ptr<ISQLiteCursor> SelectRequest(const std::string& table,
                                                 const std::vector<std::string>& projection,
                                                 const std::string& where,
                                                 const std::vector<std::string>& arguments,
                                                 const std::string& order, const std::string& extra);

    // ---- Insert ---------------------------------------------------------------------------------------
    //
    // A bundle's keys are column names, its values their text. Text and byte values (up to their first zero
    // byte) become columns; arrays and the key TilesModel::EVENT_TILES_SYNC_KEY do not. Kept: columns stand
    // in the order of the addresses of the key strings inside the bundle. The bundle is borrowed for the call
    // and must not be changed meanwhile.
    //
    // `conflict` selects an entry of CONFLICT_VALUES: 0 none, 1 rollback, 2 abort, 3 fail, 4 ignore, 5
    // replace. It is not checked: any other number is undefined behaviour.

    /// Collects one entry of a bundle; the callback for bundle_foreach().
    ///
    /// @param userData  a std::map<const char*, const char*>, from key to value; it borrows the bundle's
    /// text.
    static void ConvertBundleToMap(const char* key, int type, const keyval_t* value, void* userData);

    /// Writes an INSERT with the values in the text. Kept: values are written bare: put SQL literals in the
    /// bundle. Empty when the bundle has no column.
    std::string CreateInsertStatement(const std::string& table, _bundle_t* pBundle, int conflict);

    /// Writes an INSERT with a "?" a value.
    ///
    /// @param arguments  out: the values, in the order of the "?".
    /// @return the text; empty when the bundle has no column.
    std::string CreateInsertStatementWithWildcard(const std::string& table, _bundle_t* pBundle, int conflict,
                                                  std::vector<std::string>& arguments);

    /// Inserts one row. GetLastInsertRowID() tells its row id.
    ///
    /// @return 0; -22 for a null bundle or one without a column; -16 when its step stayed busy; else the
    ///         mapped code. 0xC0000000 stands, among others, for a violated constraint, for no handle, and
    ///         for a statement that could not be prepared.
    int InsertWithOnConflict(const std::string& table, _bundle_t* pBundle, int conflict);

    /// InsertWithOnConflict() without a conflict clause.
    int InsertRequest(const std::string& table, _bundle_t* pBundle);

    // ---- Update ---------------------------------------------------------------------------------------

    /// Writes an UPDATE with the values in the text, bare as in CreateInsertStatement().
    ///
    /// @param where  condition; empty for every row.
    std::string CreateUpdateStatement(const std::string& table, _bundle_t* pBundle, const std::string& where,
                                      int conflict);

    /// Writes an UPDATE with a "?" a value.
    ///
    /// @param arguments  in: those of the where clause; out: the bundle's values, then those.
    std::string CreateUpdateStatementWithWildcard(const std::string& table, _bundle_t* pBundle,
                                                  const std::string& where, int conflict,
                                                  std::vector<std::string>& arguments);

    /// Updates rows with the values in the text.
    ///
    /// @return 0; -22 for a null bundle or one without a column; else the mapped code.
    int UpdateWithOnConflict(const std::string& table, _bundle_t* pBundle, const std::string& where,
                             int conflict);

    /// Updates rows with bound values and arguments.
    ///
    /// @return 0; -22 for a null bundle, one without a column, or a statement that could not be prepared;
    ///         else the raw SQLite code (kept: not mapped), 5 or 6 when its step stayed busy.
    int UpdateWithOnConflict(const std::string& table, _bundle_t* pBundle, const std::string& where,
                             std::vector<std::string> arguments, int conflict);

    /// UpdateWithOnConflict() without a conflict clause.
    int UpdateRequest(const std::string& table, _bundle_t* pBundle, const std::string& where);
    int UpdateRequest(const std::string& table, _bundle_t* pBundle, const std::string& where,
                      std::vector<std::string> arguments);

    // ---- Delete ---------------------------------------------------------------------------------------

    /// Writes a DELETE. An empty where clause stands for every row.
    std::string CreateDeleteStatement(const std::string& table, const std::string& where);

    /// Deletes rows. @return 0, or the mapped code.
    int DeleteRequest(const std::string& table, const std::string& where);

    /// Deletes rows with arguments bound to the where clause.
    ///
    /// @return 0; -22 for a statement that could not be prepared; else the raw SQLite code (kept: not
    /// mapped),
    ///         5 or 6 when its step stayed busy.
    int DeleteRequest(const std::string& table, const std::string& where,
                      const std::vector<std::string>& arguments);

    // ---- Files ----------------------------------------------------------------------------------------
    //
    // Neither takes the lock, but for a close that comes first, and neither waits for a busy database.

    /// Removes a database file, then its side files "-journal", "-shm" and "-wal".
    ///
    /// @param path  directory, ending in a slash.
    /// @param name  file name.
    /// @return true when all four were there and are gone. Kept: it stops at the first file that cannot be
    ///         removed, a missing one included; so it mostly answers false although the database file is
    ///         gone.
    bool DeleteDatabase(const std::string& path, const std::string& name);

    /// Copies a database file over another one, page by page, while others may use the source.
    ///
    /// @param source      path of the file to copy.
    /// @param target      path of the copy, created when missing; its content is replaced.
    /// @param closeFirst  closes this connection before, to be opened again by the caller: for a copy of, or
    ///                    over, its own file.
    /// @return true when the copy is complete; false for an empty path, a file that cannot be opened or is no
    ///         database, and a locked source or target.
    /// Kept: a target that cannot be opened leaves SQLite's handle of it behind.
    bool CopyDBFile(std::string source, std::string target, bool closeFirst);

    /// The conflict clauses, by number.
    static const std::string CONFLICT_VALUES[6];

protected:
    /// Serialises the operations named above; null when it could not be made: such a connection works, and
    /// its callers serialise everything.
    CDBLock* m_pLock;
    std::string m_dbPath;
    std::string m_dbName;
    int m_openMode;
    /// The last foreign-key switch.
    bool m_foreignKeysEnabled;
    /// The handle; null when closed. Written under `m_pLock`; the requests read it without.
    sqlite3* m_pDB;
};

#endif

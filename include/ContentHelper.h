#ifndef VANTRY_CONTENT_HELPER_H
#define VANTRY_CONTENT_HELPER_H

#include <string>
#include <vector>

#include "VantryConnection.h"
#include "VantryExport.h"

/// @file
/// The base of data-access objects.

/// The base of a provider's data-access object: owns one connection, opened when it is first wanted, keeps a
/// copy of the database file beside it, and turns values and content URIs into SQL.
///
/// A derived class makes its schema in OnConfigure(), which is called after every open.
///
/// Threads: ConnectDB(), GetConnection() and DisconnectDB() take the helper's lock, and the hooks run under
/// it: a hook must not call them. No other operation takes it; callers that share a helper between threads
/// serialise those.
///
/// Memory: no operation throws. One that runs out of memory logs it and fails in its own way: null, false or
/// an empty text. A helper cannot be copied.
class VANTRY_API CContentHelper {
public:
    /// Which backup file RestoreDB() takes.
    enum eBackupStage : int {
        /// The one that BackupDB() writes.
        BACKUP_STAGE_FIRST = 0,
        /// Another one, which nothing here writes.
        BACKUP_STAGE_SECOND = 1
    };

    /// @name Connection
    /// @{

    /// A disconnected helper without path and name.
    CContentHelper();
    /// A disconnected helper.
    ///
    /// @param path     directory of the database file, ending in a slash.
    /// @param name     its name.
    /// @param version  schema version; stored, never compared.
    CContentHelper(const std::string& path, const std::string& name, int version);
    CContentHelper(const CContentHelper&) = delete;
    CContentHelper& operator=(const CContentHelper&) = delete;
    /// Disconnects, as DisconnectDB() does.
    virtual ~CContentHelper();

    /// Called after every successful open, under the helper's lock. The place for the schema.
    ///
    /// @param pConnection  the open connection, owned by the helper.
    virtual void OnConfigure(CVantryConnection* pConnection) = 0;
    /// Meant for a database that an open has restored or created.
    ///
    /// Kept: nothing calls it; make the schema in OnConfigure().
    ///
    /// @param pConnection  the open connection, owned by the helper.
    virtual void OnCreate(CVantryConnection* pConnection) = 0;
    /// Meant for a database of an older version.
    ///
    /// Kept: nothing calls it.
    ///
    /// @param pConnection  the open connection, owned by the helper.
    /// @param oldVersion   the schema version of the file.
    /// @param newVersion   the schema version that is wanted.
    virtual void OnUpgrade(CVantryConnection* pConnection, int oldVersion, int newVersion) = 0;

    /// Opens the database.
    ///
    /// Path, name and version replace what the helper has, also when the open then fails.
    ///
    /// Kept: while there is a connection the arguments are ignored: an open one is given back, and one that
    /// was closed (by BackupDB(), for instance) is opened as it was made.
    ///
    /// Threads: takes the helper's lock, and holds it while OnConfigure() runs.
    ///
    /// @param openMode  1 read-only; 2 read-write; 6 read-write, created when missing; 9 read-only without
    ///                  SQLite's own mutex.
    /// @param path      directory, ending in a slash; empty keeps the helper's.
    /// @param name      file name; empty keeps the helper's.
    /// @param version   schema version; 0 keeps the helper's.
    /// @return the connection, owned by the helper and valid until DisconnectDB(); null when it cannot be
    ///         opened, or memory runs out.
    CVantryConnection* ConnectDB(int openMode, const std::string& path, const std::string& name, int version);
    /// Opens the database for reading and writing, and creates it when it is missing.
    ///
    /// Threads: takes the helper's lock.
    ///
    /// @return as the operation above.
    CVantryConnection* ConnectDB();
    /// The same as ConnectDB().
    ///
    /// @return the connection, owned by the helper and valid until DisconnectDB(); or null.
    CVantryConnection* GetConnection();
    /// Tells the database file's name.
    ///
    /// @return the name, without its directory; empty when memory runs out.
    std::string GetDatabaseName() const;
    /// Closes the database and releases the connection. Cursors with a live statement must be gone before.
    ///
    /// Threads: takes the helper's lock.
    void DisconnectDB();

    /// @}
    /// @name Backup, restore and checks
    ///
    /// They work on the helper's connection: without one (call ConnectDB() first) each fails with a log line.
    /// @{

    /// Copies the database file to the first backup file, its name + ".sqlite". The connection is closed for
    /// it, and stays closed: ConnectDB() opens it again.
    ///
    /// Kept: whatever the file holds is copied, damage included, over the only backup. Check it before and
    /// after.
    ///
    /// Cursors with a live statement must be gone before.
    ///
    /// @return true when the copy succeeded; false without a connection, and for every failure of
    ///         CVantryConnection::CopyDBFile(). A lock is not waited for.
    bool BackupDB();

    /// Replaces the database file by a backup file. The connection is closed for it, and stays closed.
    ///
    /// Kept: the database file is deleted before the copy begins; when the copy fails, it is gone.
    ///
    /// Kept: the answer is true when the file was copied and CheckDBCorruption() then answers true, which it
    /// does, after a second, because the connection is closed; a thread that connects meanwhile makes it false.
    /// True says that the file was copied, not that it is sound.
    ///
    /// @param stage  BACKUP_STAGE_FIRST: name + ".sqlite"; BACKUP_STAGE_SECOND (kept: and every negative
    ///               number): name + ".sqlite.bak"; a greater number is refused.
    /// @return true when the backup was copied; false when it was not, without a connection, and for a stage
    ///         that does not exist.
    bool RestoreDB(eBackupStage stage);

    /// Asks the database for its integrity, ten times at most, 100 ms apart. A question that meets a lock waits
    /// up to 0.9 s more.
    ///
    /// Kept: a database that is closed, or merely busy, counts as corrupted; so does a helper without a
    /// connection.
    ///
    /// @return false as soon as it answers that it is sound; true when it never does.
    bool CheckDBCorruption();

    /// Opens the connection.
    ///
    /// Kept: one that is open loses its handle.
    ///
    /// @param restored  out: false.
    /// @return the result of CVantryConnection::OpenOperation(), 0 for success; -22 without a connection.
    int TryOpenRestoreFile(bool& restored);
    /// Does nothing.
    ///
    /// @return 0.
    int TryBackupFile();

    /// Tells whether the first row of the accelerators table has a `_id` above 0.
    ///
    /// Kept: only that table is looked at; every other one counts as valid.
    ///
    /// @param table  the table's name.
    /// @return true when it has such a row, and for every other name than "accelerators"; false without a
    ///         connection, and when memory runs out.
    bool CheckValidData(const std::string& table);

    /// Lists the tables that have used autoincrement keys.
    ///
    /// @param tables  in, out: the names are added to what is there.
    /// @return true when the database is sound and `tables` holds a name at the end; false without a
    ///         connection, and when memory does not suffice to list a name. Rows that it does not suffice to
    ///         read are left out, with a line of the log.
    bool CheckValidTables(std::vector<std::string>& tables);

    /// @}
    /// @name Text for SQL
    ///
    /// No form adds quotes round a text: the caller writes them. None makes NULL. A number reads the same in
    /// every locale. Each is empty when memory runs out.
    /// @{

    /// Replaces every `from` by `to`; what was inserted is not searched again.
    ///
    /// @param source  the text.
    /// @param from    what is replaced; empty replaces nothing.
    /// @param to      what takes its place.
    /// @return the new text.
    static std::string SQLReplace(const std::string& source, const std::string& from, const std::string& to);
    /// Doubles the single quotes of a text.
    ///
    /// @param value  the text.
    /// @return the text, to be put between single quotes.
    static std::string ToSQLFormat(const std::string& value);
    /// Doubles the single quotes of a text.
    ///
    /// @param value  the text; null counts as empty.
    /// @return the text, to be put between single quotes.
    static std::string ToSQLFormat(const char* value);
    /// Writes a character; a single quote is doubled.
    ///
    /// @param value  the character.
    /// @return the text, to be put between single quotes.
    static std::string ToSQLFormat(char value);
    /// Writes a truth value.
    ///
    /// @param value  the value.
    /// @return "1" or "0".
    static std::string ToSQLFormat(bool value);
    /// Writes an integer.
    ///
    /// @param value  the number.
    /// @return decimal digits, with a minus sign where it is due.
    static std::string ToSQLFormat(int value);
    /// Writes an integer.
    ///
    /// @param value  the number.
    /// @return decimal digits, with a minus sign where it is due.
    static std::string ToSQLFormat(long value);
    /// Writes an integer.
    ///
    /// @param value  the number.
    /// @return decimal digits, with a minus sign where it is due.
    static std::string ToSQLFormat(long long value);
    /// Writes a floating-point number.
    ///
    /// Kept: it is rounded to six significant digits: bind an argument where that is too few.
    ///
    /// @param value  the number.
    /// @return the digits: 1234567 gives "1.23457e+06".
    static std::string ToSQLFormat(double value);

    /// Gives the table's name in a content URI: what follows its last "/".
    ///
    /// Kept: no character is refused, so use it on URIs that you trust.
    ///
    /// @param uri  the URI.
    /// @return the name; a text without "/" is its own name, one that ends in "/" gives the empty text.
    static std::string GetTableNameFromUri(const std::string& uri);

    /// @}

    /// What the first backup file's name ends in: ".sqlite".
    static const std::string DB_BACKUP_POSTFIX;
    /// What the second backup file's name ends in: ".sqlite.bak".
    static const std::string DB_BACKUP_POSTFIX_SECOND;

protected:
    /// Guards `m_database`, owned; null when it could not be made: callers then serialise everything.
    CDBLock* m_pLock;
    /// The database file's name.
    std::string m_dbName;
    /// Its directory, ending in a slash.
    std::string m_dbPath;
    /// The schema version; stored, never compared.
    int m_dbVersion;
    /// The connection, owned; null while disconnected.
    CVantryConnection* m_database;
};

#endif

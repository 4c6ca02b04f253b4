#ifndef VANTRY_CONTENT_HELPER_H
#define VANTRY_CONTENT_HELPER_H

#include <string>
#include <vector>

#include "VantryConnection.h"
#include "VantryExport.h"

/// The base of a provider's data-access object: owns one connection, opened when it is first wanted, keeps a
/// copy of the database file beside it, and turns values and content URIs into SQL.
///
/// A derived class makes its schema in OnConfigure(), which is called after every open.
///
/// Threads: ConnectDB(), GetConnection() and DisconnectDB() take the helper's lock, and the hooks run under
/// it: a hook must not call them. No other operation takes it; callers that share a helper between threads
/// serialise those.
class VANTRY_API CContentHelper {
public:
    /// Which backup file RestoreDB() takes.
    enum eBackupStage : int { BACKUP_STAGE_FIRST = 0, BACKUP_STAGE_SECOND = 1 };

    // ---- Connection -----------------------------------------------------------------------------------

    /// A helper without path and name.
    CContentHelper();
    /// A disconnected helper.
    ///
    /// @param path     directory of the database file, ending in a slash.
    /// @param name     its name.
    /// @param version  schema version; kept, never compared.
    CContentHelper(const std::string& path, const std::string& name, int version);
    CContentHelper(const CContentHelper&) = delete;
    CContentHelper& operator=(const CContentHelper&) = delete;
    /// Disconnects.
    virtual ~CContentHelper();

    /// Called after every successful open, under the helper's lock.
    ///
    /// @param pConnection  the open connection, owned by the helper.
    virtual void OnConfigure(CVantryConnection* pConnection) = 0;
    /// Meant for a database that an open has restored or created. Kept: nothing calls it today; make the
    /// schema in OnConfigure().
    virtual void OnCreate(CVantryConnection* pConnection) = 0;
    /// Meant for a database of an older version. Kept: nothing calls it.
    virtual void OnUpgrade(CVantryConnection* pConnection, int oldVersion, int newVersion) = 0;

    /// Opens the database, unless it is open: then the arguments are ignored.
    ///
    /// @param openMode  as for CVantryConnection.
    /// @param path, name, version  replace what the helper has; an empty text or 0 keeps it. They are kept
    ///                             also after a failure.
    /// @return the connection, owned by the helper and valid until DisconnectDB(); null when it cannot be
    ///         opened.
    CVantryConnection* ConnectDB(int openMode, const std::string& path, const std::string& name, int version);
    /// Opens the database for reading and writing, creates it when it is missing.
    CVantryConnection* ConnectDB();
    /// The same as ConnectDB().
    CVantryConnection* GetConnection();
    /// Tells the database file's name.
    std::string GetDatabaseName() const;
    /// Closes the database and releases the connection. Cursors with a live statement must be gone before.
    void DisconnectDB();

    // ---- Backup, restore and checks -------------------------------------------------------------------
    //
    // They work on the helper's connection: without one (call ConnectDB() first) each fails with a log line.

    /// Copies the database file to the first backup file, its name + ".sqlite". The connection is closed for
    /// it, and stays closed: DisconnectDB() and ConnectDB() open it again.
    ///
    /// @return true when the copy succeeded.
    /// Kept: whatever the file holds is copied, damage included, over the only backup. Check it before and
    /// after.
    bool BackupDB();

    /// Replaces the database file by a backup file. The connection is closed for it, and stays closed.
    ///
    /// @param stage  BACKUP_STAGE_FIRST: name + ".sqlite"; BACKUP_STAGE_SECOND (kept: and every negative
    ///               number): name + ".sqlite.bak", which nothing here writes.
    /// @return kept: true when the file was copied and CheckDBCorruption() then answers true, which it does,
    ///         after a second, because the connection is closed. True says that the file was copied, not that
    ///         it is sound.
    /// Kept: the database file is deleted before the copy begins; when the copy fails, it is gone.
    bool RestoreDB(eBackupStage stage);

    /// Asks the database for its integrity, ten times at most, 100 ms apart.
    ///
    /// @return false as soon as it answers that it is sound; true when it never does.
    /// Kept: a database that is closed, or merely busy, counts as corrupted.
    bool CheckDBCorruption();

    /// Opens the connection.
    ///
    /// @param restored  out: false.
    /// @return the result of CVantryConnection::OpenOperation(); -22 without a connection.
    int TryOpenRestoreFile(bool& restored);
    /// Does nothing. @return 0.
    int TryBackupFile();

    /// Tells whether the accelerators table has a row with an id above 0 in first place.
    ///
    /// @return kept: true for every other table, without a look at it.
    bool CheckValidData(const std::string& table);

    /// Lists the tables that have used autoincrement keys.
    ///
    /// @param tables  in, out: the names are added to what is there.
    /// @return true when the database is sound and `tables` holds a name at the end.
    bool CheckValidTables(std::vector<std::string>& tables);

    // ---- Text for SQL ---------------------------------------------------------------------------------
    //
    // No form adds quotes round a text: the caller writes them. None makes NULL.

    /// Replaces every `from` by `to`; what was inserted is not searched again. An empty `from` replaces
    /// nothing.
    static std::string SQLReplace(const std::string& source, const std::string& from, const std::string& to);
    /// Doubles the single quotes of a text. Null gives the empty text.
    static std::string ToSQLFormat(const std::string& value);
    static std::string ToSQLFormat(const char* value);
    static std::string ToSQLFormat(char value);
    /// "1" or "0".
    static std::string ToSQLFormat(bool value);
    /// Decimal digits, with a minus sign where it is due.
    static std::string ToSQLFormat(int value);
    static std::string ToSQLFormat(long value);
    static std::string ToSQLFormat(long long value);
    /// Six significant digits: 1234567 gives "1.23457e+06".
    static std::string ToSQLFormat(double value);

    /// Gives what follows the last "/" of a URI: the table's name. A text without "/" is its own name; one
    /// that ends in "/" gives the empty text. Kept: no character is refused, so use it on URIs that you
    /// trust.
    static std::string GetTableNameFromUri(const std::string& uri);

    /// What a backup file's name ends in: ".sqlite" and ".sqlite.bak".
    static const std::string DB_BACKUP_POSTFIX;
    static const std::string DB_BACKUP_POSTFIX_SECOND;

protected:
    /// Guards `m_database`; null when it could not be made: callers then serialise everything.
    CDBLock* m_pLock;
    std::string m_dbName;
    std::string m_dbPath;
    int m_dbVersion;
    /// The connection, owned; null while disconnected.
    CVantryConnection* m_database;
};

#endif

#ifndef VANTRY_TILES_DAO_H
#define VANTRY_TILES_DAO_H

#include <memory>
#include <string>
#include <vector>

#include "ContentHelper.h"
#include "SQLiteCursor.h"
#include "VantryExport.h"

/// @file
/// The data-access object of the tiles database.

/// A query on the tiles content.
struct PT_CONSUMER_SELECT_IN_PARAM {
    /// A content URI of TilesModel.h; what follows its last "/" names the table.
    std::string uri;
    /// The condition, with "?" where arguments belong; empty for none.
    std::string selection;
    /// The arguments of the condition, one a "?", bound as text.
    std::vector<std::string> selectionArgs;
    /// The order; empty for none. Kept: it ends at its first ";".
    std::string sortOrder;
    /// The columns; empty for all.
    std::vector<std::string> projection;
    /// Not used.
    std::string extraClause;
};

/// The answer to a query.
struct PT_CONSUMER_SELECT_OUT_PARAM {
    /// Not written by a query.
    int result = 0;
    /// The rows, all of them read (preloaded); null when the select failed.
    std::shared_ptr<ISQLiteCursor> cursor;
};

/// Reads the tiles database of the device, at its fixed place.
///
/// The connection is opened for reading only, and stays open between queries. The hooks of CContentHelper do
/// nothing here: the schema is its provider's.
///
/// Kept: ConnectDB() and GetConnection(), which are inherited, open for writing and make the file when there
/// is no connection. Call SelectQuery() only.
///
/// Threads: as CContentHelper; threads that share an object serialise their queries.
class VANTRY_API CTilesDAO : public CContentHelper {
public:
    /// Opens TILES_DB_PATH + TILES_DB_NAME for reading. A failed open is tried again by the first query.
    ///
    /// Kept: path, name and version are replaced by the fixed ones.
    ///
    /// @param path     not used.
    /// @param name     not used.
    /// @param version  not used.
    CTilesDAO(const std::string& path, const std::string& name, int version);
    /// Disconnects.
    ~CTilesDAO() override;

    /// Does nothing.
    ///
    /// @param pConnection  not used.
    void OnConfigure(CVantryConnection* pConnection) override;
    /// Does nothing.
    ///
    /// @param pConnection  not used.
    void OnCreate(CVantryConnection* pConnection) override;
    /// Does nothing.
    ///
    /// @param pConnection  not used.
    /// @param oldVersion   not used.
    /// @param newVersion   not used.
    void OnUpgrade(CVantryConnection* pConnection, int oldVersion, int newVersion) override;

    /// Runs a select; the connection stays open for the next one.
    ///
    /// Kept: a select that failed answers true as well: look at the cursor.
    ///
    /// @param in   the query; read only.
    /// @param out  its cursor is replaced, also by null; left alone when the database cannot be opened.
    /// @return false when the database cannot be opened, else true.
    bool SelectQuery(PT_CONSUMER_SELECT_IN_PARAM& in, PT_CONSUMER_SELECT_OUT_PARAM& out);

    /// The directory of the device's tiles database, ending in a slash.
    static const std::string TILES_DB_PATH;
    /// The database file's name, "px_tiles.db".
    static const std::string TILES_DB_NAME;
    /// The schema's version, 15. It is kept, never compared.
    static const int TILES_DB_VERSION;
};

#endif

#ifndef VANTRY_TILES_DAO_H
#define VANTRY_TILES_DAO_H

#include <memory>
#include <string>
#include <vector>

#include "ContentHelper.h"
#include "SQLiteCursor.h"
#include "VantryExport.h"

/// A query on the tiles content.
struct PT_CONSUMER_SELECT_IN_PARAM {
    /// A content URI of TilesModel.h; its last part names the table.
    std::string uri;
    /// The condition, with "?" where arguments belong; empty for none.
    std::string selection;
    std::vector<std::string> selectionArgs;
    /// The order; empty for none.
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
    /// The rows; null when the select failed.
    std::shared_ptr<ISQLiteCursor> cursor;
};

/// Reads the tiles database of the device, at its fixed place.
///
/// Threads: as CContentHelper; threads that share an object serialise their queries.
class VANTRY_API CTilesDAO : public CContentHelper {
public:
    /// Opens TILES_DB_PATH + TILES_DB_NAME for reading. A failed open is tried again by the first query.
    ///
    /// Kept: path, name and version are replaced by the fixed ones.
    CTilesDAO(const std::string& path, const std::string& name, int version);
    ~CTilesDAO() override;

    void OnConfigure(CVantryConnection* pConnection) override;
    void OnCreate(CVantryConnection* pConnection) override;
    void OnUpgrade(CVantryConnection* pConnection, int oldVersion, int newVersion) override;

    /// Runs a select; the connection stays open for the next one.
    ///
    /// @param in   the query; read only.
    /// @param out  its cursor is replaced, also by null; left alone when the database cannot be opened.
    /// @return false when the database cannot be opened. Kept: true else, whether or not the select
    ///         succeeded: look at the cursor.
    bool SelectQuery(PT_CONSUMER_SELECT_IN_PARAM& in, PT_CONSUMER_SELECT_OUT_PARAM& out);

    static const std::string TILES_DB_PATH;
    static const std::string TILES_DB_NAME;
    /// The schema's version, 15.
    static const int TILES_DB_VERSION;
};

#endif

#pragma once

#include <string>

#include "Catalogue.h"
#include "ContentHelper.h"

// The provider's data-access object: the tiles database, with its schema.
class TilesStore : public CContentHelper {
public:
    // `directory` ends in a slash.
    explicit TilesStore(const std::string& directory);

    // Makes the tables when they are not there.
    void OnConfigure(CVantryConnection* pConnection) override;
    void OnCreate(CVantryConnection* pConnection) override;
    void OnUpgrade(CVantryConnection* pConnection, int oldVersion, int newVersion) override;

    struct Written {
        int inserted = 0;
        int updated = 0;
        int deleted = 0;
    };
    // Replaces the content by the catalogue's, in one transaction: inserts, then updates and deletes some of it.
    // Throws std::runtime_error; the database then holds what it held before.
    Written Fill(const Catalogue& catalogue);

    // Backs the file up: the content is proved sound before, the side file after. Throws std::runtime_error.
    void BackUp();
    // Closes the connection and opens it again.
    bool Reconnect();
    std::string File() const { return m_dbPath + m_dbName; }

    static const char* const NAME;
};

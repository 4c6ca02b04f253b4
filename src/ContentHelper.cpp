#include "ContentHelper.h"

#include <unistd.h>

#include <exception>
#include <locale>
#include <new>
#include <sstream>
#include <utility>

#include "Log.h"
#include "ResultCodes.h"
#include "TilesModel.h"

const std::string CContentHelper::DB_BACKUP_POSTFIX = ".sqlite";
const std::string CContentHelper::DB_BACKUP_POSTFIX_SECOND = CContentHelper::DB_BACKUP_POSTFIX + ".bak";

namespace {

constexpr const char* NO_DATABASE_TEXT = "Database is NULL";
constexpr const char* CHECKED_TABLE = "accelerators";
constexpr int READ_WRITE_CREATE = 6;
constexpr int PROBE_ATTEMPTS = 10;
constexpr useconds_t PROBE_PAUSE_MICROSECONDS = 100000;

// Numbers read the same whatever the process's locale is.
template <typename Number>
std::string Format(Number value, const vantry::LogPlace& place) {
    try {
        std::ostringstream stream;
        stream.imbue(std::locale::classic());
        // A stream that runs out of memory keeps it to itself otherwise.
        stream.exceptions(std::ios_base::badbit);
        stream << value;
        return stream.str();
    } catch (const std::exception&) {
        VANTRY_LOG_AT(place, DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

}  // namespace

// ---- Connection ---------------------------------------------------------------------------------------

CContentHelper::CContentHelper() : m_pLock(nullptr), m_dbVersion(0), m_database(nullptr) {
    try {
        m_pLock = new CDBLock("CContentHelper");
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
    }
}

CContentHelper::CContentHelper(const std::string& path, const std::string& name, int version)
    : CContentHelper() {
    m_dbVersion = version;
    try {
        m_dbPath = path;
        m_dbName = name;
    } catch (const std::exception&) {
        m_dbPath.clear();
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
    }
}

CContentHelper::~CContentHelper() {
    DisconnectDB();
    delete m_pLock;
    m_pLock = nullptr;
}

CVantryConnection* CContentHelper::ConnectDB(int openMode, const std::string& path, const std::string& name,
                                             int version) {
    const CDBLocalScopedLock guard(m_pLock);
    if (m_database != nullptr && m_database->IsOpen()) {
        return m_database;
    }
    if (m_database == nullptr) {
        try {
            // Both or none: half a change would name another file.
            std::string newPath = path;
            std::string newName = name;
            if (!path.empty()) {
                m_dbPath.swap(newPath);
            }
            if (!name.empty()) {
                m_dbName.swap(newName);
            }
        } catch (const std::exception&) {
            VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
            return nullptr;
        }
        if (version != 0) {
            m_dbVersion = version;
        }
        m_database = new (std::nothrow) CVantryConnection(m_dbPath, m_dbName, openMode);
        if (m_database == nullptr) {
            VANTRY_LOG(DLOG_INFO, "Failed to connect DB : memory is not enough!");
            return nullptr;
        }
    }
    bool restored = false;
    const int result = TryOpenRestoreFile(restored);
    if (result != vantry::RESULT_OK) {
        delete m_database;
        m_database = nullptr;
        VANTRY_LOGF(DLOG_DEBUG, "Failed to connect DB (%d)", result);
        return nullptr;
    }
    OnConfigure(m_database);
    if (restored) {
        OnCreate(m_database);
    }
    return m_database;
}

CVantryConnection* CContentHelper::ConnectDB() { return ConnectDB(READ_WRITE_CREATE, {}, {}, 0); }

CVantryConnection* CContentHelper::GetConnection() { return ConnectDB(); }

std::string CContentHelper::GetDatabaseName() const {
    try {
        return m_dbName;
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

void CContentHelper::DisconnectDB() {
    const CDBLocalScopedLock guard(m_pLock);
    if (m_database == nullptr) {
        return;
    }
    VANTRY_LOG(DLOG_DEBUG, "CContentHelper::DisconnectDB");
    delete m_database;
    m_database = nullptr;
}

// ---- Backup, restore and checks -----------------------------------------------------------------------

bool CContentHelper::BackupDB() {
    VANTRY_LOG(DLOG_DEBUG, "CContentHelper::BackupDB");
    if (m_database == nullptr) {
        VANTRY_LOG(DLOG_DEBUG, "Error: m_database is NULL");
        return false;
    }
    bool copied = false;
    try {
        const std::string file = m_dbPath + m_dbName;
        copied = m_database->CopyDBFile(file, file + DB_BACKUP_POSTFIX, true);
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
    }
    if (!copied) {
        VANTRY_LOG(DLOG_DEBUG, "BackupDB() failed");
    }
    return copied;
}

bool CContentHelper::RestoreDB(eBackupStage stage) {
    const int stageNumber = static_cast<int>(stage);
    if (stageNumber > BACKUP_STAGE_SECOND) {
        VANTRY_LOGF(DLOG_DEBUG, "Not supported backup stage : %d", stageNumber);
        return false;
    }
    VANTRY_LOG(DLOG_DEBUG, "CContentHelper::RestoreDB start");
    bool copied = false;
    if (m_database != nullptr) {
        try {
            // Every text before the file goes, so that memory shortage leaves it alone.
            std::string target = m_dbPath + m_dbName;
            std::string backup =
                target + (stageNumber == BACKUP_STAGE_FIRST ? DB_BACKUP_POSTFIX : DB_BACKUP_POSTFIX_SECOND);
            m_database->CloseDB();
            m_database->DeleteDatabase(m_dbPath, m_dbName);
            copied = m_database->CopyDBFile(std::move(backup), std::move(target), true);
        } catch (const std::exception&) {
            VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        }
    }
    // Kept: the probe's "corrupted" is the answer of a closed connection, and counts as success.
    if (copied && CheckDBCorruption()) {
        VANTRY_LOG(DLOG_DEBUG, "CContentHelper::Restore DB success");
        return true;
    }
    VANTRY_LOG(DLOG_DEBUG, "RestoreDB() failed");
    return false;
}

bool CContentHelper::CheckDBCorruption() {
    if (m_database == nullptr) {
        VANTRY_LOG(DLOG_INFO, NO_DATABASE_TEXT);
        return true;
    }
    for (int attempt = 0; attempt < PROBE_ATTEMPTS; ++attempt) {
        if (m_database->IntegrityCheck()) {
            return false;
        }
        usleep(PROBE_PAUSE_MICROSECONDS);
    }
    return true;
}

int CContentHelper::TryOpenRestoreFile(bool& restored) {
    restored = false;
    if (m_database == nullptr) {
        VANTRY_LOG(DLOG_INFO, NO_DATABASE_TEXT);
        return vantry::RESULT_INVALID;
    }
    return m_database->OpenOperation();
}

int CContentHelper::TryBackupFile() { return vantry::RESULT_OK; }

bool CContentHelper::CheckValidData(const std::string& table) {
    if (m_database == nullptr) {
        VANTRY_LOG(DLOG_DEBUG, NO_DATABASE_TEXT);
        return false;
    }
    if (table != CHECKED_TABLE) {
        return true;
    }
    long long rowId = -1;
    try {
        const std::vector<std::string> noArguments;
        const auto cursor =
            m_database->SelectRequest(table, {TilesModel::Accelerators::_ID}, "", noArguments, "", "");
        if (cursor && cursor->MoveNextStep() == vantry::RESULT_OK) {
            cursor->GetInteger64Data(0, rowId);
            VANTRY_LOGF(DLOG_DEBUG, "Table Name : %s - Row ID : %lld", table.c_str(), rowId);
        }
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
    }
    // cppcheck-suppress knownConditionTrueFalse ; the cursor has set it, through a reference
    if (rowId < 1) {
        VANTRY_LOGF(DLOG_DEBUG, "Data is not valid - Empty table : %s", table.c_str());
        return false;
    }
    return true;
}

bool CContentHelper::CheckValidTables(std::vector<std::string>& tables) {
    if (m_database == nullptr) {
        VANTRY_LOG(DLOG_DEBUG, NO_DATABASE_TEXT);
        return false;
    }
    if (!m_database->IntegrityCheck()) {
        return false;
    }
    try {
        const std::vector<std::string> noArguments;
        const auto cursor = m_database->SelectRequest("sqlite_sequence", {"name"}, "", noArguments, "", "");
        while (cursor && cursor->MoveNextStep() == vantry::RESULT_OK) {
            std::string name;
            cursor->GetStringData(0, name);
            if (!name.empty()) {
                tables.push_back(name);
            }
            VANTRY_LOGF(DLOG_DEBUG, "Table Name : %s", name.c_str());
        }
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return false;
    }
    return !tables.empty();
}

// ---- Text for SQL -------------------------------------------------------------------------------------

std::string CContentHelper::SQLReplace(const std::string& source, const std::string& from,
                                       const std::string& to) {
    try {
        std::string result = source;
        std::size_t position = 0;
        // An empty text is found everywhere, without end.
        while (!from.empty() && (position = result.find(from, position)) != std::string::npos) {
            result.replace(position, from.size(), to);
            position += to.size();
        }
        return result;
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

std::string CContentHelper::ToSQLFormat(const std::string& value) { return SQLReplace(value, "'", "''"); }

std::string CContentHelper::ToSQLFormat(const char* value) {
    try {
        return ToSQLFormat(std::string(value != nullptr ? value : ""));
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

std::string CContentHelper::ToSQLFormat(char value) { return ToSQLFormat(std::string(1, value)); }

std::string CContentHelper::ToSQLFormat(bool value) { return value ? "1" : "0"; }

std::string CContentHelper::ToSQLFormat(int value) { return Format(value, VANTRY_HERE); }

std::string CContentHelper::ToSQLFormat(long value) { return Format(value, VANTRY_HERE); }

std::string CContentHelper::ToSQLFormat(long long value) { return Format(value, VANTRY_HERE); }

std::string CContentHelper::ToSQLFormat(double value) { return Format(value, VANTRY_HERE); }

std::string CContentHelper::GetTableNameFromUri(const std::string& uri) {
    const std::size_t slash = uri.rfind('/');
    try {
        return slash == std::string::npos ? uri : uri.substr(slash + 1);
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

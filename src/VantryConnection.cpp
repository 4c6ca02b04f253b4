#include "VantryConnection.h"

#include <bundle.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <map>
#include <new>
#include <string_view>
#include <utility>

#include "BusyRetry.h"
#include "Handles.h"
#include "Log.h"
#include "ResultCodes.h"
#include "TilesModel.h"

using vantry::BusyVoice;
using vantry::CallWhileBusy;
using vantry::LogPlace;
using vantry::StatementHandle;

const std::string CVantryConnection::CONFLICT_VALUES[6] = {" ",         " OR ROLLBACK ", " OR ABORT ",
                                                           " OR FAIL ", " OR IGNORE ",   " OR REPLACE "};

namespace {

constexpr const char* NO_STATEMENT_TEXT = "SQL statement is NULL";
constexpr const char* NO_STATEMENT_HANDLE_TEXT = "pHandle is NULL";
constexpr const char* NO_INSERT_COLUMN_TEXT = "There is no inserting data";
constexpr const char* NO_UPDATE_BUNDLE_TEXT = "updated data is NULL";
// Kept: a text, not a format; the line shows the two characters as they stand.
constexpr const char* EMPTY_UPDATE_TEXT = "%s Empty data";
// A macro, so that it can be joined to the line's head.
#define STEP_ERROR_FORMAT "%s : sqlite3_step returned Error %d, - %s"

// One column of a bundle: the texts are the bundle's own.
struct Column {
    std::string_view name;
    std::string_view value;
};

// What visits a bundle: the columns seen so far. There is room for all of them before the visit, which cannot
// be stopped.
struct ColumnList {
    std::vector<Column> columns;
    bool complete = true;
};

// SQLite takes lengths in 32 bits; what is longer than that is longer than its limit too, and refused.
int ByteLength(std::string_view text) {
    return text.size() > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(text.size());
}

// Copies SQLite's last message; an empty text when memory runs out.
void CopyMessage(sqlite3* db, std::string& error, const LogPlace& place) {
    try {
        error = sqlite3_errmsg(db);
    } catch (const std::exception&) {
        VANTRY_LOG_AT(place, DLOG_INFO, vantry::NO_MEMORY_TEXT);
        error.clear();
    }
}

bool CheckHandle(const sqlite3* db, const LogPlace& place) {
    if (db == nullptr) {
        VANTRY_LOG_AT(place, DLOG_INFO, vantry::NO_HANDLE_TEXT);
        return false;
    }
    return true;
}

int Execute(sqlite3* db, const char* sql, std::string& error, const LogPlace& place) {
    if (!CheckHandle(db, place)) {
        return vantry::RESULT_INVALID;
    }
    const int code = CallWhileBusy({place, "sqlite3_exec"},
                                   [=] { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr); });
    if (code != SQLITE_OK) {
        CopyMessage(db, error, place);
    }
    return CVantryConnection::ConvertSQLiteErrorToVantryError(code);
}

int Prepare(sqlite3* db, const std::string& sql, sqlite3_stmt** statement, const char** tail,
            const BusyVoice& voice) {
    return CallWhileBusy(
        voice, [=, &sql] { return sqlite3_prepare_v2(db, sql.c_str(), ByteLength(sql), statement, tail); });
}

bool IsListed(sqlite3* db, const sqlite3_stmt* statement) {
    for (sqlite3_stmt* listed = sqlite3_next_stmt(db, nullptr); listed != nullptr;
         listed = sqlite3_next_stmt(db, listed)) {
        if (listed == statement) {
            return true;
        }
    }
    return false;
}

// Finalises a statement. SQLite destroys it even when it answers busy, which repeats the error of the last
// step; so a retry looks first whether the statement is still there.
void Finalize(sqlite3* db, sqlite3_stmt* statement, const BusyVoice& voice) {
    bool again = false;
    CallWhileBusy(voice, [&] {
        if (again && !IsListed(db, statement)) {
            return SQLITE_OK;
        }
        again = true;
        return sqlite3_finalize(statement);
    });
}

// Steps a write to its end and logs any other ending. Returns the last step's code.
int StepWrite(sqlite3_stmt* statement, const std::string& error, const LogPlace& place) {
    const int code = CallWhileBusy({place, "sqlite3_step"}, [=] { return sqlite3_step(statement); });
    if (code != SQLITE_DONE) {
        VANTRY_LOGF_AT(place, DLOG_INFO, STEP_ERROR_FORMAT, place.function, code, error.c_str());
    }
    return code;
}

// The text as it is bound: without the quotes of an SQL literal.
std::string_view BoundText(std::string_view text) {
    if (text.empty() || text.front() != '\'' || text.back() != '\'') {
        return text;
    }
    return text.size() == 1 ? std::string_view() : text.substr(1, text.size() - 2);
}

// Prepares a statement and binds texts to its placeholders; the lines are those of PrepareBindStatement().
//
// `argumentAt` gives the text of an argument, counted from 0.
template <typename ArgumentAt>
int PrepareAndBind(sqlite3* db, sqlite3_stmt** statement, const std::string& sql, std::size_t argumentCount,
                   ArgumentAt argumentAt, std::string& error) {
    static const LogPlace place = VANTRY_PLACE("PrepareBindStatement");
    if (!CheckHandle(db, place)) {
        return vantry::RESULT_INVALID;
    }
    if (statement == nullptr) {
        VANTRY_LOG_AT(place, DLOG_INFO, NO_STATEMENT_HANDLE_TEXT);
        return vantry::RESULT_INVALID;
    }
    int code = Prepare(db, sql, statement, nullptr, {place, "sqlite3_prepare_v2"});
    if (code != SQLITE_OK) {
        CopyMessage(db, error, place);
        VANTRY_LOGF_AT(place, DLOG_INFO, "sqlite3_prepare_v2 : SQLite3 Error - %s", error.c_str());
        return CVantryConnection::ConvertSQLiteErrorToVantryError(code);
    }
    for (std::size_t i = 0; i < argumentCount; ++i) {
        const int index = static_cast<int>(i) + 1;
        const std::string_view text = BoundText(argumentAt(i));
        const int length = ByteLength(text);
        // The address of an empty view may be null, which would bind NULL.
        const char* const bytes = text.empty() ? "" : text.data();
        code = sqlite3_bind_text(*statement, index, bytes, length,
                                 SQLITE_TRANSIENT);  // NOLINT(performance-no-int-to-ptr): SQLite's constant
        if (code == SQLITE_OK) {
            VANTRY_LOGF_AT(place, DLOG_DEBUG, "[bind index %d] sqlite3_bind_text :  [%.*s]", index, length,
                           bytes);
        } else {
            VANTRY_LOGF_AT(place, DLOG_INFO, "[bind index%d] sqlite3_bind_text() has an error : %s", index,
                           sqlite3_errmsg(db));
        }
    }
    return CVantryConnection::ConvertSQLiteErrorToVantryError(code);
}

// The text of a bundle's entry that is a column; null for one that is none, with the lines that say so.
const char* ReadEntry(const char* key, int type, const keyval_t* value) {
    static const LogPlace place = VANTRY_PLACE("ConvertBundleToMap");
    // The platform's readers take the entry without const, and do not change it.
    auto* const entry = const_cast<keyval_t*>(value);
    switch (type) {
        case BUNDLE_TYPE_STR:
        case BUNDLE_TYPE_BYTE: {
            void* text = nullptr;
            std::size_t size = 0;
            bundle_keyval_get_basic_val(entry, &text, &size);
            if (std::strcmp(key, TilesModel::EVENT_TILES_SYNC_KEY.c_str()) == 0) {
                VANTRY_LOG_AT(place, DLOG_DEBUG, "Skip this bundle - reserved item");
                return nullptr;
            }
            return text != nullptr ? static_cast<const char*>(text) : "";
        }
        case BUNDLE_TYPE_STR_ARRAY: {
            VANTRY_LOGF_AT(place, DLOG_DEBUG, "Found STR_ARRAY -KEY: %s", key);
            void** texts = nullptr;
            unsigned int length = 0;
            std::size_t* sizes = nullptr;
            bundle_keyval_get_array_val(entry, &texts, &length, &sizes);
            VANTRY_LOGF_AT(place, DLOG_DEBUG, "-Array len: %d", static_cast<int>(length));
            for (unsigned int i = 0; texts != nullptr && i < length; ++i) {
                VANTRY_LOGF_AT(place, DLOG_DEBUG, "-%s",
                               texts[i] != nullptr ? static_cast<const char*>(texts[i]) : "");
            }
            return nullptr;
        }
        default:
            VANTRY_LOG_AT(place, DLOG_DEBUG, "default");
            return nullptr;
    }
}

// The callback of the builders: what ConvertBundleToMap() does, into a list.
void CollectColumn(const char* key, const int type, const keyval_t* value, void* userData) {
    auto& list = *static_cast<ColumnList*>(userData);
    if (value == nullptr || key == nullptr) {
        return;
    }
    const char* const text = ReadEntry(key, type, value);
    if (text == nullptr) {
        return;
    }
    try {
        list.columns.push_back({key, text});
    } catch (const std::exception&) {
        list.complete = false;
    }
}

// The columns of a bundle; none when it has none, with the line that says why. Throws when memory runs out.
std::vector<Column> ReadColumns(_bundle_t* bundle, const char* emptyBundleText, const char* noColumnText,
                                const LogPlace& place) {
    ColumnList list;
    const int count = bundle_get_count(bundle);
    if (count == 0) {
        VANTRY_LOG_AT(place, DLOG_INFO, emptyBundleText);
        return {};
    }
    list.columns.reserve(static_cast<std::size_t>(std::max(count, 0)));
    bundle_foreach(bundle, CollectColumn, &list);
    if (!list.complete) {
        throw std::bad_alloc();
    }
    if (list.columns.empty()) {
        VANTRY_LOG_AT(place, DLOG_INFO, noColumnText);
    }
    // Kept: the order of the keys' addresses, which is that of the visit where a bundle stores them so; of
    // one key that is met twice the first value stays.
    const auto before = [](const Column& left, const Column& right) {
        return std::less<>()(left.name.data(), right.name.data());
    };
    const auto same = [](const Column& left, const Column& right) {
        return left.name.data() == right.name.data();
    };
    if (!std::is_sorted(list.columns.begin(), list.columns.end(), before)) {
        std::stable_sort(list.columns.begin(), list.columns.end(), before);
    }
    list.columns.erase(std::unique(list.columns.begin(), list.columns.end(), same), list.columns.end());
    return std::move(list.columns);
}

// Whether a statement holds the values themselves, or placeholders for them.
enum class Values { Written, Bound };

// Bytes that the columns take in a statement, with room for separators and placeholders.
std::size_t TextBytes(const std::vector<Column>& columns, Values values) {
    constexpr std::size_t SEPARATORS = 8;
    std::size_t bytes = 0;
    for (const Column& column : columns) {
        bytes += column.name.size() + SEPARATORS + (values == Values::Written ? column.value.size() : 0);
    }
    return bytes;
}

void AppendValue(std::string& text, const Column& column, Values values) {
    if (values == Values::Written) {
        text += column.value;
    } else {
        text += '?';
    }
}

constexpr std::size_t KEYWORD_BYTES = 64;

std::string WriteInsert(const std::string& table, const std::vector<Column>& columns, int conflict,
                        Values values) {
    std::string text;
    text.reserve(KEYWORD_BYTES + table.size() + TextBytes(columns, values));
    text.append("INSERT").append(CVantryConnection::CONFLICT_VALUES[conflict]).append("INTO ").append(table);
    std::string_view separator = " (";
    for (const Column& column : columns) {
        text.append(separator).append(column.name);
        separator = ", ";
    }
    separator = ") VALUES (";
    for (const Column& column : columns) {
        text += separator;
        AppendValue(text, column, values);
        separator = ", ";
    }
    text += ')';
    return text;
}

std::string WriteUpdate(const std::string& table, const std::vector<Column>& columns,
                        const std::string& where, int conflict, Values values) {
    std::string text;
    text.reserve(KEYWORD_BYTES + table.size() + where.size() + TextBytes(columns, values));
    text.append("UPDATE ").append(CVantryConnection::CONFLICT_VALUES[conflict]).append(table);
    std::string_view separator = " SET ";
    for (const Column& column : columns) {
        text.append(separator).append(column.name).append("=");
        AppendValue(text, column, values);
        separator = ", ";
    }
    if (!where.empty()) {
        text.append(" WHERE ").append(where);
    }
    return text;
}

// A statement about to be run or given out, and the columns whose values belong to its first placeholders.
// Both stay empty when the bundle has no column.
struct Statement {
    std::string text;
    std::vector<Column> columns;
};

// Throws when memory runs out.
Statement BuildInsert(const std::string& table, _bundle_t* bundle, int conflict, Values values,
                      const LogPlace& place) {
    Statement statement;
    statement.columns = ReadColumns(bundle, "insert data is NULL", NO_INSERT_COLUMN_TEXT, place);
    if (!statement.columns.empty()) {
        statement.text = WriteInsert(table, statement.columns, conflict, values);
        VANTRY_LOGF_AT(place, DLOG_DEBUG, "CMD : %s", statement.text.c_str());
    }
    return statement;
}

// The arguments of an update: the bundle's values first, those of the where clause after.
std::string_view MergedArgument(const Statement& statement, const std::vector<std::string>& whereArguments,
                                std::size_t index) {
    const std::size_t columnCount = statement.columns.size();
    return index < columnCount ? statement.columns[index].value
                               : std::string_view(whereArguments[index - columnCount]);
}

// Throws when memory runs out.
Statement BuildUpdate(const std::string& table, _bundle_t* bundle, const std::string& where, int conflict,
                      const std::vector<std::string>& whereArguments, const LogPlace& place) {
    Statement statement;
    statement.columns = ReadColumns(bundle, EMPTY_UPDATE_TEXT, "There is no updating data", place);
    if (statement.columns.empty()) {
        return statement;
    }
    statement.text = WriteUpdate(table, statement.columns, where, conflict, Values::Bound);
    for (std::size_t i = 0; i < statement.columns.size() + whereArguments.size(); ++i) {
        const std::string_view argument = MergedArgument(statement, whereArguments, i);
        VANTRY_LOGF_AT(place, DLOG_DEBUG, "[UpdateRequest] merged argument [%d] : %.*s", static_cast<int>(i),
                       ByteLength(argument), argument.data());
    }
    VANTRY_LOGF_AT(place, DLOG_DEBUG, "CMD : %s", statement.text.c_str());
    return statement;
}

// How a write ended, in raw SQLite codes: its last step, or the commit behind a row, and its finalisation.
struct WriteOutcome {
    int stepped;
    int finalised;

    // A second reset forgives a step or a commit that met a lock; the write was not made all the same.
    int Result() const { return finalised == SQLITE_OK && vantry::IsBusy(stepped) ? stepped : finalised; }
};

// Prepares a write, binds its arguments, steps and finalises it.
template <typename ArgumentAt>
WriteOutcome RunWrite(CVantryConnection& connection, sqlite3* db, const std::string& sql,
                      std::size_t argumentCount, ArgumentAt argumentAt, std::string& error,
                      const LogPlace& place) {
    sqlite3_stmt* statement = nullptr;
    // Kept: the result is not examined; without a statement the step and the finalisation fail.
    PrepareAndBind(db, &statement, sql, argumentCount, argumentAt, error);
    const int stepped = StepWrite(statement, error, place);
    const int finalised = connection.FinalizeStatement(statement, error);
    if (finalised != SQLITE_OK) {
        VANTRY_LOGF_AT(place, DLOG_INFO, STEP_ERROR_FORMAT, place.function, finalised, error.c_str());
    }
    // A row comes before the commit. That is the first reset's, and the refusal of one that is forgiven stays with
    // the connection.
    return {stepped == SQLITE_ROW ? sqlite3_errcode(db) : stepped, finalised};
}

void RunTransactionStatement(CVantryConnection& connection, sqlite3* db, const char* sql,
                             const LogPlace& place) {
    try {
        std::string error;
        if (connection.ExcuteSQLInner(sql, error) != vantry::RESULT_OK) {
            VANTRY_LOGF_AT(place, DLOG_INFO, "SQLite3 Error - %s", sqlite3_errmsg(db));
        }
    } catch (const std::exception&) {
        VANTRY_LOG_AT(place, DLOG_INFO, vantry::NO_MEMORY_TEXT);
    }
}

void CloseWithStatements(sqlite3* db) {
    while (sqlite3_stmt* statement = sqlite3_next_stmt(db, nullptr)) {
        sqlite3_finalize(statement);
    }
    sqlite3_close(db);
}

// Copies an open database into a file, in one pass. Returns SQLite's code.
int CopyInto(sqlite3* source, const std::string& target, const LogPlace& place) {
    VANTRY_LOG_AT(place, DLOG_DEBUG, "CopyDBFile is working 1");
    sqlite3* targetDb = nullptr;
    const int opened =
        sqlite3_open_v2(target.c_str(), &targetDb, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (opened != SQLITE_OK) {
        // Kept: the handle of the failed open is not closed.
        return opened;
    }
    sqlite3_backup* const backup = sqlite3_backup_init(targetDb, "main", source, "main");
    VANTRY_LOG_AT(place, DLOG_DEBUG, "CopyDBFile is working 2");
    if (backup != nullptr) {
        sqlite3_backup_step(backup, -1);
        sqlite3_backup_finish(backup);
    }
    // The copy leaves its error with the target.
    const int code = sqlite3_errcode(targetDb);
    CloseWithStatements(targetDb);
    return code;
}

// A cursor over a prepared select, with all rows in its cache where they are wanted at once.
std::shared_ptr<ISQLiteCursor> MakeCursor(sqlite3* db, StatementHandle statement, bool preload,
                                          bool clearBindings) {
    auto cursor = std::make_shared<CSQLiteCursor>(db, statement.get());
    sqlite3_stmt* const cursorsStatement = statement.release();
    if (preload) {
        while (cursor->MoveNextStep() == vantry::RESULT_OK) {
        }
        cursor->ResetStep();
        if (clearBindings) {
            sqlite3_clear_bindings(cursorsStatement);
        }
        cursor->FinalizeSQLStatement();
    }
    return cursor;
}

}  // namespace

// ---- Locks --------------------------------------------------------------------------------------------

CDBLock::CDBLock() : m_mutex() { pthread_mutex_init(&m_mutex, nullptr); }

CDBLock::CDBLock(const std::string& name) : CDBLock() {
    try {
        m_name = name;
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
    }
}

CDBLock::~CDBLock() { pthread_mutex_destroy(&m_mutex); }

void CDBLock::Enter() const { pthread_mutex_lock(&m_mutex); }

void CDBLock::Leave() const { pthread_mutex_unlock(&m_mutex); }

CDBLocalScopedLock::CDBLocalScopedLock(const CDBLock* pLock) : m_pLock(pLock) {
    if (m_pLock != nullptr) {
        m_pLock->Enter();
    }
}

CDBLocalScopedLock::~CDBLocalScopedLock() {
    if (m_pLock != nullptr) {
        m_pLock->Leave();
    }
}

// ---- Open and close -----------------------------------------------------------------------------------

CVantryConnection::CVantryConnection()
    : m_pLock(nullptr), m_openMode(0), m_foreignKeysEnabled(false), m_pDB(nullptr) {
    try {
        m_pLock = new (std::nothrow) CDBLock("CVantryConnection");
    } catch (const std::exception&) {
        m_pLock = nullptr;
    }
    if (m_pLock == nullptr) {
        VANTRY_LOG(DLOG_INFO, "Error local scoped lock is not working");
    }
}

CVantryConnection::CVantryConnection(const std::string& path, const std::string& name, int openMode)
    : CVantryConnection() {
    m_openMode = openMode;
    try {
        m_dbPath = path;
        m_dbName = name;
    } catch (const std::exception&) {
        // Half a path would name another file; an empty one cannot be opened.
        m_dbPath.clear();
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
    }
}

CVantryConnection::~CVantryConnection() {
    CloseDB();
    delete m_pLock;
    m_pLock = nullptr;
}

int CVantryConnection::OpenOperation() {
    std::string fullPath;
    try {
        fullPath.reserve(m_dbPath.size() + m_dbName.size());
        fullPath.append(m_dbPath).append(m_dbName);
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return vantry::RESULT_NO_MEMORY;
    }
    VANTRY_LOGF(DLOG_DEBUG, "Database path %s ", fullPath.c_str());
    if (fullPath.empty()) {
        VANTRY_LOG(DLOG_INFO, "Database path wasn't set");
        return vantry::RESULT_INVALID;
    }
    int flags = 0;
    switch (m_openMode) {
        case 1:
            flags = SQLITE_OPEN_READONLY;
            VANTRY_LOG(DLOG_DEBUG, "openFlags : SQLITE_OPEN_READONLY ");
            break;
        case 2:
            flags = SQLITE_OPEN_READWRITE;
            VANTRY_LOG(DLOG_DEBUG, "openFlags : SQLITE_OPEN_READWRITE ");
            break;
        case 6:
            flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
            VANTRY_LOG(DLOG_DEBUG, "openFlags : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE ");
            break;
        case 9:
            flags = SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX;
            VANTRY_LOG(DLOG_DEBUG, "openFlags : SQLITE_OPEN_READONLY  | DB_OPEN_NO_MUTEX ");
            break;
        default:
            // Kept: SQLite refuses the flags.
            VANTRY_LOG(DLOG_DEBUG, "The specified open mode flags are invalid.");
            break;
    }
    const LogPlace here = VANTRY_HERE;
    bool leftHandle = false;
    std::string message;
    const int code = CallWhileBusy({here, "sqlite3_open_v2"}, [&] {
        const CDBLocalScopedLock guard(m_pLock);
        const int opened = sqlite3_open_v2(fullPath.c_str(), &m_pDB, flags, nullptr);
        leftHandle = m_pDB != nullptr;
        // Once the lock is free another thread may close the handle.
        if (opened != SQLITE_OK && leftHandle) {
            CopyMessage(m_pDB, message, here);
        }
        return opened;
    });
    if (code == SQLITE_OK) {
        VANTRY_LOGF(DLOG_INFO, "sqlite3_open_v2() success : %s", m_dbName.c_str());
        return vantry::RESULT_OK;
    }
    // Kept: the handle that a failed open may leave stays for CloseOperation().
    if (leftHandle) {
        VANTRY_LOGF(DLOG_INFO, "sqlite3_open_v2() failed with Error msg : %s", message.c_str());
    } else {
        VANTRY_LOGF(DLOG_INFO, "sqlite3_open_v2() failed : %s", m_dbName.c_str());
    }
    return ConvertSQLiteErrorToVantryError(code);
}

int CVantryConnection::CloseOperation() {
    const CDBLocalScopedLock guard(m_pLock);
    if (m_pDB == nullptr) {
        VANTRY_LOG(DLOG_DEBUG, "Closing database failed because DB handle is NULL");
        return vantry::RESULT_OK;
    }
    while (sqlite3_stmt* statement = sqlite3_next_stmt(m_pDB, nullptr)) {
        Finalize(m_pDB, statement, {VANTRY_HERE, "vantry"});
    }
    const int code = sqlite3_close(m_pDB);
    if (code != SQLITE_OK) {
        VANTRY_LOGF(DLOG_INFO, "Closing database failed with error: %s", sqlite3_errmsg(m_pDB));
    }
    m_pDB = nullptr;
    return ConvertSQLiteErrorToVantryError(code);
}

int CVantryConnection::CloseDB() {
    const int result = CloseOperation();
    if (result == vantry::RESULT_OK) {
        VANTRY_LOGF(DLOG_INFO, "Database was closed : %s", m_dbName.c_str());
    }
    return result;
}

bool CVantryConnection::IsOpen() const {
    const CDBLocalScopedLock guard(m_pLock);
    return m_pDB != nullptr;
}

int CVantryConnection::GetOpenMode() const { return m_openMode; }

long long CVantryConnection::GetLastInsertRowID() {
    return CheckHandle(m_pDB, VANTRY_HERE) ? sqlite3_last_insert_rowid(m_pDB) : -1;
}

int CVantryConnection::ConvertSQLiteErrorToVantryError(int code) {
    using namespace vantry;
    static constexpr int RESULTS[] = {
        RESULT_OK,             // SQLITE_OK
        RESULT_UNKNOWN,        // SQLITE_ERROR
        RESULT_UNKNOWN,        // SQLITE_INTERNAL
        RESULT_NO_PERMISSION,  // SQLITE_PERM
        RESULT_INVALID,        // SQLITE_ABORT
        RESULT_BUSY,           // SQLITE_BUSY
        RESULT_BUSY,           // SQLITE_LOCKED
        RESULT_NO_MEMORY,      // SQLITE_NOMEM
        RESULT_READ_ONLY,      // SQLITE_READONLY
        RESULT_UNKNOWN,        // SQLITE_INTERRUPT
        RESULT_IO,             // SQLITE_IOERR
        RESULT_IO,             // SQLITE_CORRUPT
        RESULT_UNKNOWN,        // SQLITE_NOTFOUND
        RESULT_UNKNOWN,        // SQLITE_FULL
        RESULT_IO,             // SQLITE_CANTOPEN
        RESULT_UNKNOWN,        // SQLITE_PROTOCOL
        RESULT_IO,             // SQLITE_EMPTY
        RESULT_UNKNOWN,        // SQLITE_SCHEMA
        RESULT_UNKNOWN,        // SQLITE_TOOBIG
        RESULT_UNKNOWN,        // SQLITE_CONSTRAINT
        RESULT_UNKNOWN,        // SQLITE_MISMATCH
        RESULT_UNKNOWN,        // SQLITE_MISUSE
        RESULT_UNKNOWN,        // SQLITE_NOLFS
        RESULT_UNKNOWN,        // SQLITE_AUTH
        RESULT_UNKNOWN,        // SQLITE_FORMAT
        RESULT_UNKNOWN,        // SQLITE_RANGE
        RESULT_IO,             // SQLITE_NOTADB
    };
    constexpr unsigned COUNT = sizeof RESULTS / sizeof RESULTS[0];
    static_assert(COUNT == SQLITE_NOTADB + 1, "one entry a primary result code");
    static_assert(RESULTS[SQLITE_BUSY] == RESULT_BUSY && RESULTS[SQLITE_READONLY] == RESULT_READ_ONLY);
    const auto index = static_cast<unsigned>(code);
    return index < COUNT ? RESULTS[index] : RESULT_UNKNOWN;
}

// ---- Run and bind -------------------------------------------------------------------------------------

int CVantryConnection::ExcuteSQL(const std::string& sql, std::string& error) {
    const CDBLocalScopedLock guard(m_pLock);
    return Execute(m_pDB, sql.c_str(), error, VANTRY_HERE);
}

int CVantryConnection::ExcuteSQLInner(const std::string& sql, std::string& error) {
    return Execute(m_pDB, sql.c_str(), error, VANTRY_HERE);
}

int CVantryConnection::PrepareCMD(const std::string& sql, sqlite3_stmt** ppStmt, const char** ppTail,
                                  std::string& error) {
    if (!CheckHandle(m_pDB, VANTRY_HERE)) {
        return vantry::RESULT_INVALID;
    }
    if (ppStmt == nullptr) {
        VANTRY_LOG(DLOG_INFO, NO_STATEMENT_HANDLE_TEXT);
        return vantry::RESULT_INVALID;
    }
    const int code = Prepare(m_pDB, sql, ppStmt, ppTail, {VANTRY_HERE, "sqlite3_prepare_v2"});
    if (code != SQLITE_OK) {
        CopyMessage(m_pDB, error, VANTRY_HERE);
        VANTRY_LOGF(DLOG_INFO, "%s : SQLite3 Error - %s", __func__, error.c_str());
    }
    return ConvertSQLiteErrorToVantryError(code);
}

int CVantryConnection::PrepareBindStatement(sqlite3_stmt** ppStmt, const std::string& sql,
                                            const std::vector<std::string>& arguments, std::string& error) {
    return PrepareAndBind(
        m_pDB, ppStmt, sql, arguments.size(), [&](std::size_t i) -> std::string_view { return arguments[i]; },
        error);
}

std::string CVantryConnection::ToBindText(std::string text) {
    const std::size_t length = text.size();
    if (BoundText(text).size() != length) {
        text.erase(0, 1);
        text.resize(length < 2 ? 0 : length - 2);
    }
    return text;
}

int CVantryConnection::FinalizeStatement(sqlite3_stmt* pStmt, std::string& error) {
    if (!CheckHandle(m_pDB, VANTRY_HERE)) {
        return vantry::RESULT_INVALID;
    }
    if (pStmt == nullptr) {
        VANTRY_LOG(DLOG_INFO, NO_STATEMENT_HANDLE_TEXT);
        return vantry::RESULT_INVALID;
    }
    int code = CallWhileBusy({VANTRY_HERE, "sqlite3_reset"}, [=] { return sqlite3_reset(pStmt); });
    if (code != SQLITE_OK) {
        // Kept, here and below: a raw SQLite code, and the statement stays until the connection closes.
        CopyMessage(m_pDB, error, VANTRY_HERE);
        VANTRY_LOGF(DLOG_INFO, "[squence1]sqlite3_reset : SQLite3 Error - %s", error.c_str());
        return code;
    }
    code = sqlite3_clear_bindings(pStmt);
    if (code != SQLITE_OK) {
        CopyMessage(m_pDB, error, VANTRY_HERE);
        VANTRY_LOGF(DLOG_INFO, "[squence2]sqlite3_clear_bindings : SQLite3 Error - %s", error.c_str());
        return code;
    }
    Finalize(m_pDB, pStmt, {VANTRY_HERE, "sqlite3_finalize"});
    CopyMessage(m_pDB, error, VANTRY_HERE);
    return vantry::RESULT_OK;
}

bool CVantryConnection::IntegrityCheck() {
    if (!CheckHandle(m_pDB, VANTRY_HERE)) {
        return false;
    }
    StatementHandle statement;
    const int code = CallWhileBusy({VANTRY_HERE, "sqlite3_prepare_v2"}, [&] {
        sqlite3_stmt* prepared = nullptr;
        const int result = sqlite3_prepare_v2(m_pDB, "PRAGMA integrity_check;", -1, &prepared, nullptr);
        statement.reset(prepared);
        return result;
    });
    // SQLite's text lives until the next step, so each is looked at, and the last one kept, before that.
    std::string text;
    bool sound = false;
    while (code == SQLITE_OK && !sound && sqlite3_step(statement.get()) == SQLITE_ROW) {
        const auto* row = reinterpret_cast<const char*>(sqlite3_column_text(statement.get(), 0));
        sound = row != nullptr && std::strcmp(row, "ok") == 0;
        try {
            text = row != nullptr ? row : "";
        } catch (const std::exception&) {
            VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
            text.clear();
        }
    }
    statement.reset();
    if (sound) {
        VANTRY_LOGF(DLOG_INFO, "Integrity check result : %s", text.c_str());
    } else {
        VANTRY_LOGF(DLOG_INFO, "Integrity check result : NG - MSG : %s", text.c_str());
    }
    return sound;
}

void CVantryConnection::SetForeignKeyConstraintsEnabled(bool enable) {
    if (!CheckHandle(m_pDB, VANTRY_HERE)) {
        return;
    }
    if (enable != m_foreignKeysEnabled) {
        // Kept: remembered before it is done, and when it fails.
        m_foreignKeysEnabled = enable;
        try {
            std::string error;
            if (ExcuteSQL(enable ? "PRAGMA foreign_keys=1" : "PRAGMA foreign_keys=0", error) !=
                vantry::RESULT_OK) {
                VANTRY_LOGF(DLOG_INFO, "SQLite3 Error - %s", sqlite3_errmsg(m_pDB));
            }
        } catch (const std::exception&) {
            VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        }
    }
    VANTRY_LOGF(DLOG_DEBUG, "Foreign key is turned %s", m_foreignKeysEnabled ? "ON" : "OFF");
}

// ---- Transactions -------------------------------------------------------------------------------------

void CVantryConnection::BeginTransaction(bool exclusive) {
    if (!CheckHandle(m_pDB, VANTRY_HERE)) {
        return;
    }
    VANTRY_LOG(DLOG_DEBUG, "========= Begin transaction ========= ");
    RunTransactionStatement(*this, m_pDB, exclusive ? "BEGIN EXCLUSIVE;" : "BEGIN IMMEDIATE;", VANTRY_HERE);
}

void CVantryConnection::BeginTransaction() { BeginTransaction(true); }

void CVantryConnection::CommitTransaction() {
    if (!CheckHandle(m_pDB, VANTRY_HERE)) {
        return;
    }
    VANTRY_LOG(DLOG_INFO, "========= Commit transaction ========= ");
    RunTransactionStatement(*this, m_pDB, "COMMIT;", VANTRY_HERE);
}

void CVantryConnection::RollbackTransaction() {
    if (!CheckHandle(m_pDB, VANTRY_HERE)) {
        return;
    }
    VANTRY_LOG(DLOG_INFO, "========= Rollback transaction ========= ");
    RunTransactionStatement(*this, m_pDB, "ROLLBACK;", VANTRY_HERE);
}

void CVantryConnection::EndTransaction(bool commit) {
    if (commit) {
        CommitTransaction();
    } else {
        RollbackTransaction();
    }
}

// ---- Select -------------------------------------------------------------------------------------------

std::string CVantryConnection::CreateSelectStatement(const std::string& table,
                                                     const std::vector<std::string>& projection,
                                                     const std::string& where, const std::string& order) {
    try {
        std::string text = "SELECT ";
        if (projection.empty()) {
            text += '*';
        }
        const char* separator = "";
        for (const std::string& column : projection) {
            text.append(separator).append(column);
            separator = ", ";
        }
        text.append(" FROM ").append(table);
        if (!where.empty()) {
            text.append(" WHERE ").append(where);
        }
        if (!order.empty()) {
            const std::size_t end = order.find(';');
            text.append(" ORDER BY ").append(order, 0, end);
            if (end != std::string::npos) {
                // Kept: a clause that begins with the semicolon leaves nothing, and SQLite refuses the
                // statement.
                VANTRY_LOGF(DLOG_DEBUG, "found Semicolon in order : [%s] -> [%s]", order.c_str(),
                            order.substr(0, end).c_str());
            }
        }
        VANTRY_LOGF(DLOG_DEBUG, "CMD : %s", text.c_str());
        return text;
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

std::shared_ptr<ISQLiteCursor> CVantryConnection::SelectRequest(const std::string& table,
                                                                const std::vector<std::string>& projection,
                                                                const std::string& where,
                                                                const std::string& order,
                                                                const bool& preload) {
    if (!CheckHandle(m_pDB, VANTRY_HERE)) {
        return {};
    }
    const std::string sql = CreateSelectStatement(table, projection, where, order);
    if (sql.empty()) {
        VANTRY_LOG(DLOG_INFO, NO_STATEMENT_TEXT);
        return {};
    }
    sqlite3_stmt* prepared = nullptr;
    if (Prepare(m_pDB, sql, &prepared, nullptr, {VANTRY_HERE, "vantry", DLOG_DEBUG}) != SQLITE_OK) {
        VANTRY_LOGF(DLOG_INFO, "SQLite3 Error - %s", sqlite3_errmsg(m_pDB));
        return {};
    }
    try {
        return MakeCursor(m_pDB, StatementHandle(prepared), preload, false);
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

std::shared_ptr<ISQLiteCursor> CVantryConnection::SelectRequest(const std::string& table,
                                                                const std::vector<std::string>& projection,
                                                                const std::string& where,
                                                                const std::string& order) {
    return SelectRequest(table, projection, where, order, true);
}

std::shared_ptr<ISQLiteCursor> CVantryConnection::SelectRequest(
    const std::string& table, const std::vector<std::string>& projection, const std::string& where,
    const std::vector<std::string>& arguments, const std::string& order, const std::string& /*extra*/,
    const bool& preload) {
    if (!CheckHandle(m_pDB, VANTRY_HERE)) {
        return {};
    }
    const std::string sql = CreateSelectStatement(table, projection, where, order);
    if (sql.empty()) {
        VANTRY_LOG(DLOG_INFO, NO_STATEMENT_TEXT);
        return {};
    }
    sqlite3_stmt* prepared = nullptr;
    std::string error;
    if (PrepareBindStatement(&prepared, sql, arguments, error) != vantry::RESULT_OK) {
        // Kept: a statement whose arguments could not be bound stays until the connection closes.
        VANTRY_LOGF(DLOG_DEBUG, "SQLite3 Error - %s", sqlite3_errmsg(m_pDB));
        return {};
    }
    try {
        return MakeCursor(m_pDB, StatementHandle(prepared), preload, true);
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

std::shared_ptr<ISQLiteCursor> CVantryConnection::SelectRequest(
    const std::string& table, const std::vector<std::string>& projection, const std::string& where,
    const std::vector<std::string>& arguments, const std::string& order, const std::string& extra) {
    return SelectRequest(table, projection, where, arguments, order, extra, true);
}

// ---- Insert -------------------------------------------------------------------------------------------

void CVantryConnection::ConvertBundleToMap(const char* key, int type, const keyval_t* value, void* userData) {
    if (userData == nullptr || value == nullptr || key == nullptr) {
        return;
    }
    const char* const text = ReadEntry(key, type, value);
    if (text == nullptr) {
        return;
    }
    try {
        static_cast<std::map<const char*, const char*>*>(userData)->emplace(key, text);
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
    }
}

std::string CVantryConnection::CreateInsertStatement(const std::string& table, _bundle_t* pBundle,
                                                     int conflict) {
    try {
        return BuildInsert(table, pBundle, conflict, Values::Written, VANTRY_HERE).text;
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

std::string CVantryConnection::CreateInsertStatementWithWildcard(const std::string& table, _bundle_t* pBundle,
                                                                 int conflict,
                                                                 std::vector<std::string>& arguments) {
    arguments.clear();
    try {
        Statement statement = BuildInsert(table, pBundle, conflict, Values::Bound, VANTRY_HERE);
        arguments.reserve(statement.columns.size());
        for (const Column& column : statement.columns) {
            arguments.emplace_back(column.value);
        }
        return std::move(statement.text);
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        arguments.clear();
        return {};
    }
}

int CVantryConnection::InsertWithOnConflict(const std::string& table, _bundle_t* pBundle, int conflict) {
    if (pBundle == nullptr) {
        VANTRY_LOG(DLOG_INFO, "Inserted data is NULL");
        return vantry::RESULT_INVALID;
    }
    Statement statement;
    // As CreateInsertStatementWithWildcard() does it, without a copy of each value.
    static const LogPlace builder = VANTRY_PLACE("CreateInsertStatementWithWildcard");
    try {
        statement = BuildInsert(table, pBundle, conflict, Values::Bound, builder);
    } catch (const std::exception&) {
        VANTRY_LOG_AT(builder, DLOG_INFO, vantry::NO_MEMORY_TEXT);
    }
    if (statement.text.empty()) {
        VANTRY_LOG(DLOG_INFO, NO_STATEMENT_TEXT);
        return vantry::RESULT_INVALID;
    }
    std::string error;
    const auto& columns = statement.columns;
    const WriteOutcome outcome = RunWrite(
        *this, m_pDB, statement.text, columns.size(), [&](std::size_t i) { return columns[i].value; }, error,
        VANTRY_HERE);
    return ConvertSQLiteErrorToVantryError(outcome.Result());
}

int CVantryConnection::InsertRequest(const std::string& table, _bundle_t* pBundle) {
    return InsertWithOnConflict(table, pBundle, 0);
}

// ---- Update -------------------------------------------------------------------------------------------

std::string CVantryConnection::CreateUpdateStatement(const std::string& table, _bundle_t* pBundle,
                                                     const std::string& where, int conflict) {
    try {
        // Kept: the insert's words.
        const auto columns = ReadColumns(pBundle, EMPTY_UPDATE_TEXT, NO_INSERT_COLUMN_TEXT, VANTRY_HERE);
        if (columns.empty()) {
            return {};
        }
        std::string text = WriteUpdate(table, columns, where, conflict, Values::Written);
        VANTRY_LOGF(DLOG_DEBUG, "CMD : %s", text.c_str());
        return text;
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

std::string CVantryConnection::CreateUpdateStatementWithWildcard(const std::string& table, _bundle_t* pBundle,
                                                                 const std::string& where, int conflict,
                                                                 std::vector<std::string>& arguments) {
    try {
        Statement statement = BuildUpdate(table, pBundle, where, conflict, arguments, VANTRY_HERE);
        if (!statement.text.empty()) {
            std::vector<std::string> merged;
            const std::size_t count = statement.columns.size() + arguments.size();
            merged.reserve(count);
            for (std::size_t i = 0; i < count; ++i) {
                merged.emplace_back(MergedArgument(statement, arguments, i));
            }
            arguments.swap(merged);
        }
        return std::move(statement.text);
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

int CVantryConnection::UpdateWithOnConflict(const std::string& table, _bundle_t* pBundle,
                                            const std::string& where, int conflict) {
    if (pBundle == nullptr) {
        VANTRY_LOG(DLOG_INFO, NO_UPDATE_BUNDLE_TEXT);
        return vantry::RESULT_INVALID;
    }
    const std::string sql = CreateUpdateStatement(table, pBundle, where, conflict);
    if (sql.empty()) {
        VANTRY_LOG(DLOG_INFO, NO_STATEMENT_TEXT);
        return vantry::RESULT_INVALID;
    }
    std::string error;
    const int result = ExcuteSQLInner(sql, error);
    if (result != vantry::RESULT_OK) {
        VANTRY_LOGF(DLOG_INFO, "SQLite3 Error - %s", error.c_str());
    }
    return result;
}

int CVantryConnection::UpdateWithOnConflict(const std::string& table, _bundle_t* pBundle,
                                            const std::string& where, std::vector<std::string> arguments,
                                            int conflict) {
    if (pBundle == nullptr) {
        VANTRY_LOG(DLOG_INFO, NO_UPDATE_BUNDLE_TEXT);
        return vantry::RESULT_INVALID;
    }
    Statement statement;
    static const LogPlace builder = VANTRY_PLACE("CreateUpdateStatementWithWildcard");
    try {
        statement = BuildUpdate(table, pBundle, where, conflict, arguments, builder);
    } catch (const std::exception&) {
        VANTRY_LOG_AT(builder, DLOG_INFO, vantry::NO_MEMORY_TEXT);
    }
    if (statement.text.empty()) {
        VANTRY_LOG(DLOG_INFO, NO_STATEMENT_TEXT);
        return vantry::RESULT_INVALID;
    }
    std::string error;
    const WriteOutcome outcome = RunWrite(
        *this, m_pDB, statement.text, statement.columns.size() + arguments.size(),
        [&](std::size_t i) { return MergedArgument(statement, arguments, i); }, error, VANTRY_HERE);
    if (outcome.finalised != SQLITE_OK) {
        VANTRY_LOGF(DLOG_INFO, "SQLite3 Error - %s", error.c_str());
    }
    return outcome.Result();
}

int CVantryConnection::UpdateRequest(const std::string& table, _bundle_t* pBundle, const std::string& where) {
    return UpdateWithOnConflict(table, pBundle, where, 0);
}

int CVantryConnection::UpdateRequest(const std::string& table, _bundle_t* pBundle, const std::string& where,
                                     std::vector<std::string> arguments) {
    return UpdateWithOnConflict(table, pBundle, where, std::move(arguments), 0);
}

// ---- Delete -------------------------------------------------------------------------------------------

std::string CVantryConnection::CreateDeleteStatement(const std::string& table, const std::string& where) {
    try {
        std::string text = "DELETE FROM " + table;
        if (!where.empty()) {
            text.append(" WHERE ").append(where);
        }
        VANTRY_LOGF(DLOG_DEBUG, "CMD : %s", text.c_str());
        return text;
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return {};
    }
}

int CVantryConnection::DeleteRequest(const std::string& table, const std::string& where) {
    const std::string sql = CreateDeleteStatement(table, where);
    if (sql.empty()) {
        VANTRY_LOG(DLOG_INFO, NO_STATEMENT_TEXT);
        return vantry::RESULT_INVALID;
    }
    std::string error;
    const int result = ExcuteSQLInner(sql, error);
    if (result != vantry::RESULT_OK) {
        VANTRY_LOGF(DLOG_INFO, "%s : SQLite3 Error - %s", __func__, error.c_str());
    }
    return result;
}

int CVantryConnection::DeleteRequest(const std::string& table, const std::string& where,
                                     const std::vector<std::string>& arguments) {
    const std::string sql = CreateDeleteStatement(table, where);
    if (sql.empty()) {
        VANTRY_LOG(DLOG_INFO, NO_STATEMENT_TEXT);
        return vantry::RESULT_INVALID;
    }
    std::string error;
    const WriteOutcome outcome = RunWrite(
        *this, m_pDB, sql, arguments.size(), [&](std::size_t i) -> std::string_view { return arguments[i]; },
        error, VANTRY_HERE);
    return outcome.Result();
}

// ---- Files --------------------------------------------------------------------------------------------

bool CVantryConnection::DeleteDatabase(const std::string& path, const std::string& name) {
    try {
        const std::string file = path + name;
        const std::string files[] = {file, file + "-journal", file + "-shm", file + "-wal"};
        for (const std::string& each : files) {
            if (std::remove(each.c_str()) != 0) {
                // Kept: the files after it stay.
                VANTRY_LOGF(DLOG_DEBUG, " Deleted Failed(%s)", each.c_str());
                return false;
            }
            VANTRY_LOGF(DLOG_DEBUG, " Deleted (%s)", each.c_str());
        }
        return true;
    } catch (const std::exception&) {
        VANTRY_LOG(DLOG_INFO, vantry::NO_MEMORY_TEXT);
        return false;
    }
}

bool CVantryConnection::CopyDBFile(std::string source, std::string target, bool closeFirst) {
    VANTRY_LOGF(DLOG_DEBUG, "CopyDBFile start \n src : %s , target : %s", source.c_str(), target.c_str());
    if (source.empty() || target.empty()) {
        VANTRY_LOG(DLOG_INFO, "Wrong parameters");
        return false;
    }
    if (closeFirst && IsOpen()) {
        CloseDB();
    }
    sqlite3* sourceDb = nullptr;
    int code = sqlite3_open_v2(source.c_str(), &sourceDb, SQLITE_OPEN_READWRITE, nullptr);
    if (code == SQLITE_OK) {
        code = CopyInto(sourceDb, target, VANTRY_HERE);
        VANTRY_LOG(DLOG_DEBUG, "CopyDBFile is working 3");
    } else if (sourceDb != nullptr) {
        VANTRY_LOGF(DLOG_INFO, "Failed to copy DB : %s, ERRMSG: %s", source.c_str(),
                    sqlite3_errmsg(sourceDb));
    } else {
        VANTRY_LOGF(DLOG_INFO, "Failed to copy DB : %s, return code : %d", source.c_str(), code);
    }
    if (sourceDb != nullptr) {
        CloseWithStatements(sourceDb);
    }
    VANTRY_LOG(DLOG_DEBUG, "CopyDBFile is working end");
    return code == SQLITE_OK;
}

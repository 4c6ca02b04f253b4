#include "SqliteFaults.h"

#include <sqlite3.h>

#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "FromLibrary.h"
#include "TestSide.h"

namespace {

struct Rule {
    int code;
    int times;
    int skip;
};

struct State {
    bool active = false;
    std::map<std::string, int> calls;
    std::map<std::string, std::deque<Rule>> rules;
    std::string sql;
    int flags = 0;
    std::vector<support::OpenedDb> opened;
    std::function<void(const std::string&)> onCall;
};

std::mutex g_mutex;
State& TheState() {
    static State state;
    return state;
}

// Counts a call, and tells whether it is answered here.
bool Answered(const char* function, const void* caller, int& code) {
    const support::TestSide here;
    if (!support::FromLibrary(caller)) {
        return false;
    }
    std::unique_lock<std::mutex> guard(g_mutex);
    State& state = TheState();
    if (!state.active) {
        return false;
    }
    ++state.calls[function];
    if (state.onCall) {
        const auto onCall = state.onCall;
        guard.unlock();
        onCall(function);
        guard.lock();
    }
    auto& rules = state.rules[function];
    if (rules.empty()) {
        return false;
    }
    Rule& rule = rules.front();
    if (rule.skip > 0) {
        --rule.skip;
        return false;
    }
    code = rule.code;
    if (--rule.times == 0) {
        rules.pop_front();
    }
    return true;
}

void Remember(const char* sql, int length, const void* caller) {
    const support::TestSide here;
    if (sql != nullptr && support::FromLibrary(caller)) {
        const std::lock_guard<std::mutex> guard(g_mutex);
        if (!TheState().active) {
            return;
        }
        TheState().sql = length < 0 ? std::string(sql) : std::string(sql, static_cast<std::size_t>(length));
    }
}

}  // namespace

#define CALLER __builtin_return_address(0)
#define REAL(function) \
    static const auto real = reinterpret_cast<decltype(&function)>(support::NextSymbol(#function))
#define ANSWER(function)                   \
    int code = 0;                          \
    if (Answered(#function, CALLER, code)) \
        return code;                       \
    REAL(function)

extern "C" {

int sqlite3_open_v2(const char* name, sqlite3** db, int flags, const char* vfs) {
    const bool fromLibrary = support::FromLibrary(CALLER);
    if (fromLibrary) {
        const std::lock_guard<std::mutex> guard(g_mutex);
        TheState().flags = flags;
    }
    ANSWER(sqlite3_open_v2);
    code = real(name, db, flags, vfs);
    if (fromLibrary) {
        const support::TestSide here;
        const std::lock_guard<std::mutex> guard(g_mutex);
        if (TheState().active) {
            TheState().opened.push_back({name, flags, vfs != nullptr, *db, code});
        }
    }
    return code;
}

int sqlite3_close(sqlite3* db) {
    ANSWER(sqlite3_close);
    return real(db);
}

int sqlite3_prepare_v2(sqlite3* db, const char* sql, int length, sqlite3_stmt** statement,
                       const char** tail) {
    Remember(sql, length, CALLER);
    ANSWER(sqlite3_prepare_v2);
    return real(db, sql, length, statement, tail);
}

int sqlite3_exec(sqlite3* db, const char* sql, int (*callback)(void*, int, char**, char**), void* data,
                 char** message) {
    Remember(sql, -1, CALLER);
    ANSWER(sqlite3_exec);
    return real(db, sql, callback, data, message);
}

int sqlite3_step(sqlite3_stmt* statement) {
    ANSWER(sqlite3_step);
    return real(statement);
}

int sqlite3_reset(sqlite3_stmt* statement) {
    ANSWER(sqlite3_reset);
    return real(statement);
}

int sqlite3_clear_bindings(sqlite3_stmt* statement) {
    ANSWER(sqlite3_clear_bindings);
    return real(statement);
}

int sqlite3_finalize(sqlite3_stmt* statement) {
    ANSWER(sqlite3_finalize);
    return real(statement);
}

int sqlite3_bind_text(sqlite3_stmt* statement, int index, const char* text, int length,
                      void (*destroy)(void*)) {
    ANSWER(sqlite3_bind_text);
    return real(statement, index, text, length, destroy);
}

int sqlite3_column_type(sqlite3_stmt* statement, int column) {
    ANSWER(sqlite3_column_type);
    return real(statement, column);
}

int sqlite3_data_count(sqlite3_stmt* statement) {
    ANSWER(sqlite3_data_count);
    return real(statement);
}

int sqlite3_errcode(sqlite3* db) {
    ANSWER(sqlite3_errcode);
    return real(db);
}

int sqlite3_backup_step(sqlite3_backup* backup, int pages) {
    ANSWER(sqlite3_backup_step);
    return real(backup, pages);
}

int sqlite3_backup_finish(sqlite3_backup* backup) {
    ANSWER(sqlite3_backup_finish);
    return real(backup);
}

sqlite3_backup* sqlite3_backup_init(sqlite3* target, const char* targetName, sqlite3* source,
                                    const char* sourceName) {
    int code = 0;
    if (Answered("sqlite3_backup_init", CALLER, code)) {
        return nullptr;
    }
    REAL(sqlite3_backup_init);
    return real(target, targetName, source, sourceName);
}

}  // extern "C"

namespace support {

SqliteFaults::SqliteFaults() {
    const std::lock_guard<std::mutex> guard(g_mutex);
    TheState() = State();
    TheState().active = true;
}

SqliteFaults::~SqliteFaults() {
    const std::lock_guard<std::mutex> guard(g_mutex);
    TheState().active = false;
    TheState().onCall = {};
}

void SqliteFaults::Answer(const std::string& function, int code, int times, int skip) {
    const std::lock_guard<std::mutex> guard(g_mutex);
    TheState().rules[function].push_back({code, times, skip});
}

int SqliteFaults::Calls(const std::string& function) const {
    const std::lock_guard<std::mutex> guard(g_mutex);
    return TheState().calls[function];
}

std::string SqliteFaults::LastSql() const {
    const std::lock_guard<std::mutex> guard(g_mutex);
    return TheState().sql;
}

void SqliteFaults::OnCall(std::function<void(const std::string&)> onCall) {
    const std::lock_guard<std::mutex> guard(g_mutex);
    TheState().onCall = std::move(onCall);
}

std::vector<OpenedDb> SqliteFaults::Opened() const {
    const std::lock_guard<std::mutex> guard(g_mutex);
    return TheState().opened;
}

int SqliteFaults::LastOpenFlags() const {
    const std::lock_guard<std::mutex> guard(g_mutex);
    return TheState().flags;
}

}  // namespace support

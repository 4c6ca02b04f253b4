#include <bundle.h>
#include <dlog.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <functional>
#include <map>
#include <memory>
#include <string_view>
#include <vector>

#include "ContentHelper.h"
#include "Input.h"
#include "SQLiteCursor.h"
#include "SqlBuilders.h"
#include "SqlModel.h"
#include "VantryConnection.h"

// Makes requests with tables, bundles, clauses and arguments of any kind, against a database in memory. Beside the
// library goes a twin: the statement as a small model writes it, given to SQLite itself on a second database. Both must
// answer the same, and afterwards hold the same rows.

using fuzz::Require;
using fuzz::Twin;

namespace {

int g_sleeps = 0;
std::vector<std::string> g_lines;

}  // namespace

// Keeps the statements that the library says it has built.
extern "C" int __dlog_print(log_id_t, int, const char*, const char* format, ...) {
    static std::vector<char> text(1 << 16);
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    constexpr const char* COMMAND = ") > CMD : ";
    if (std::strstr(format, COMMAND) != nullptr) {
        g_lines.emplace_back(std::strstr(text.data(), COMMAND) + std::strlen(COMMAND));
    }
    return length;
}

// Waits are counted, not waited.
extern "C" int usleep(useconds_t microseconds) {
    Require(microseconds == 30000, "a pause has another length");
    ++g_sleeps;
    return 0;
}

namespace {

class OpenConnection : public CVantryConnection {
public:
    using CVantryConnection::CVantryConnection;
    using CVantryConnection::m_pDB;
};

class OpenHelper : public CContentHelper {
    void OnConfigure(CVantryConnection*) override {}
    void OnCreate(CVantryConnection*) override {}
    void OnUpgrade(CVantryConnection*, int, int) override {}
};

template <std::size_t Count>
std::string Choose(fuzz::Input& input, const char* const (&texts)[Count]) {
    const auto choice = static_cast<std::size_t>(input.Byte());
    return choice < Count ? texts[choice] : input.Text();
}

std::vector<std::string> ChooseArguments(fuzz::Input& input) {
    std::vector<std::string> arguments(static_cast<std::size_t>(input.Below(5)));
    for (std::string& argument : arguments) {
        argument = Choose(input, fuzz::VALUES);
    }
    return arguments;
}

// A bundle, and what a statement is to make of it.
struct Bundle {
    explicit Bundle(fuzz::Input& input) : bundle(bundle_create()) {
        constexpr int MOST_ENTRIES = 8;
        // One number more than there are counts: no bundle at all.
        const int entries = input.Below(MOST_ENTRIES + 2);
        if (entries > MOST_ENTRIES) {
            bundle_free(bundle);
            bundle = nullptr;
            return;
        }
        for (int i = 0; i < entries; ++i) {
            const int kind = input.Below(fuzz::ENTRY_KINDS);
            const std::string key = Choose(input, fuzz::KEYS);
            const std::string value = Choose(input, fuzz::VALUES);
            const char* const texts[] = {value.c_str(), nullptr};
            int added = 0;
            if (kind == fuzz::TEXT_ENTRY) {
                added = bundle_add_str(bundle, key.c_str(), value.c_str());
            } else if (kind == fuzz::BYTES_ENTRY) {
                added = bundle_add_byte(bundle, key.c_str(), value.data(), value.size());
            } else {
                added = bundle_add_str_array(bundle, key.c_str(), const_cast<const char**>(texts), 2);
            }
            const std::string name = fuzz::ToFirstZero(key);
            if (added == 0 && kind != fuzz::ARRAY_ENTRY && name != "quenby_tiles_sync_event") {
                columns.push_back({name, fuzz::ToFirstZero(value)});
            }
        }
    }
    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;
    ~Bundle() {
        if (bundle != nullptr) {
            bundle_free(bundle);
        }
    }

    bool Empty() const { return bundle == nullptr || columns.empty(); }

    _bundle_t* bundle;
    fuzz::Columns columns;
};

void Same(int library, int twin, const char* what) {
    if (library != twin) {
        std::fprintf(stderr, "the library answers %d, the twin %d\n", library, twin);
    }
    Require(library == twin, what);
}

void SameText(const std::string& library, const std::string& model, const char* what) {
    if (library != model) {
        std::fprintf(stderr, "library: [%s]\nmodel:   [%s]\n", library.c_str(), model.c_str());
    }
    Require(library == model, what);
}

class Requests {
public:
    Requests() : m_connection("", ":memory:", 6), m_sleepsBefore(g_sleeps) {
        Require(m_connection.OpenOperation() == 0, "no connection");
        fuzz::Prepare(m_connection.m_pDB, m_budget);
        g_lines.clear();
    }

    // False when the two have grown too large to go on.
    bool Go(fuzz::Input& input) {
        const int operation = input.Below(fuzz::SQL_OPERATIONS);
        switch (operation) {
            case fuzz::INSERT:
                Insert(input);
                break;
            case fuzz::UPDATE:
            case fuzz::UPDATE_BOUND:
                Update(input, operation == fuzz::UPDATE_BOUND);
                break;
            case fuzz::DELETE:
            case fuzz::DELETE_BOUND:
                Delete(input, operation == fuzz::DELETE_BOUND);
                break;
            case fuzz::SELECT:
            case fuzz::SELECT_BOUND:
                Select(input, operation == fuzz::SELECT_BOUND);
                break;
            case fuzz::BUILD_INSERT:
                BuildInsert(input);
                break;
            case fuzz::BUILD_UPDATE:
                BuildUpdate(input);
                break;
            case fuzz::EXECUTE:
                Execute(input);
                break;
            case fuzz::PREPARE:
                PrepareOnly(input);
                break;
            default:
                Texts(input);
                break;
        }
        Same(g_sleeps - m_sleepsBefore, m_twin.sleeps, "another number of pauses");
        Require(m_connection.GetLastInsertRowID() == sqlite3_last_insert_rowid(m_twin.db), "another row id");
        Same(sqlite3_total_changes(m_connection.m_pDB), sqlite3_total_changes(m_twin.db),
             "another number of changes");
        return m_budget > 0;
    }

    void CompareDatabases() {
        SameText(fuzz::Dump(m_connection.m_pDB, m_budget), fuzz::Dump(m_twin.db, m_twin.budget),
                 "the database holds something else");
    }

private:
    // The last statement that the library told of; a line ends at the first zero byte.
    void WantLogged(const std::string& statement) {
        Require(g_lines.size() == 1, "not one statement is told");
        SameText(g_lines.back(), fuzz::ToFirstZero(statement), "another statement is told");
        g_lines.clear();
    }

    void Insert(fuzz::Input& input);
    void Update(fuzz::Input& input, bool bound);
    void Delete(fuzz::Input& input, bool bound);
    void Select(fuzz::Input& input, bool bound);
    void BuildInsert(fuzz::Input& input);
    void BuildUpdate(fuzz::Input& input);
    void Execute(fuzz::Input& input);
    void PrepareOnly(fuzz::Input& input);
    void Texts(fuzz::Input& input);
    void CompareRows(ISQLiteCursor& cursor, sqlite3_stmt* statement, bool preload);

    // The cursor that is held is released before its connection.
    long long m_budget = fuzz::STEP_BUDGET;
    OpenConnection m_connection;
    Twin m_twin;
    std::shared_ptr<ISQLiteCursor> m_held;
    int m_sleepsBefore;
};

void Requests::Insert(fuzz::Input& input) {
    const std::string table = Choose(input, fuzz::TABLES);
    const Bundle bundle(input);
    const int conflict = input.Below(6);
    const int result = m_connection.InsertWithOnConflict(table, bundle.bundle, conflict);
    if (bundle.Empty()) {
        Same(result, -22, "an insert without columns");
        return;
    }
    const std::string statement = fuzz::InsertText(table, bundle.columns, conflict, true);
    WantLogged(statement);
    Same(result, fuzz::Mapped(m_twin.Write(statement, fuzz::ValuesOf(bundle.columns), -1)),
         "an insert answers otherwise");
}

void Requests::Update(fuzz::Input& input, bool bound) {
    const std::string table = Choose(input, fuzz::TABLES);
    const Bundle bundle(input);
    const std::string where = Choose(input, fuzz::WHERES);
    const auto arguments = bound ? ChooseArguments(input) : std::vector<std::string>();
    const int conflict = input.Below(6);
    const int result =
        bound ? m_connection.UpdateWithOnConflict(table, bundle.bundle, where, arguments, conflict)
              : m_connection.UpdateWithOnConflict(table, bundle.bundle, where, conflict);
    if (bundle.Empty()) {
        Same(result, -22, "an update without columns");
        return;
    }
    const std::string statement = fuzz::UpdateText(table, bundle.columns, where, conflict, bound);
    WantLogged(statement);
    if (bound) {
        auto merged = fuzz::ValuesOf(bundle.columns);
        merged.insert(merged.end(), arguments.begin(), arguments.end());
        Same(result, m_twin.Write(statement, merged, -22), "an update with arguments answers otherwise");
    } else {
        Same(result, fuzz::Mapped(m_twin.Execute(statement)), "an update answers otherwise");
    }
}

void Requests::Delete(fuzz::Input& input, bool bound) {
    const std::string table = Choose(input, fuzz::TABLES);
    const std::string where = Choose(input, fuzz::WHERES);
    const std::string statement = "DELETE FROM " + table + (where.empty() ? "" : " WHERE " + where);
    if (bound) {
        const auto arguments = ChooseArguments(input);
        const int result = m_connection.DeleteRequest(table, where, arguments);
        Same(result, m_twin.Write(statement, arguments, -22), "a delete with arguments answers otherwise");
    } else {
        const int result = m_connection.DeleteRequest(table, where);
        Same(result, fuzz::Mapped(m_twin.Execute(statement)), "a delete answers otherwise");
    }
    WantLogged(statement);
}

void Requests::Select(fuzz::Input& input, bool bound) {
    const std::string table = Choose(input, fuzz::TABLES);
    std::vector<std::string> columns(static_cast<std::size_t>(input.Below(4)));
    for (std::string& column : columns) {
        column = Choose(input, fuzz::COLUMNS);
    }
    const std::string where = Choose(input, fuzz::WHERES);
    const auto arguments = bound ? ChooseArguments(input) : std::vector<std::string>();
    const std::string order = Choose(input, fuzz::ORDERS);
    const int walked = input.Below(fuzz::WALKS);
    const bool preload = walked == fuzz::PRELOAD;
    const std::string statement = fuzz::SelectText(table, columns, where, order);
    const auto cursor = bound
                            ? m_connection.SelectRequest(table, columns, where, arguments, order, "", preload)
                            : m_connection.SelectRequest(table, columns, where, order, preload);
    WantLogged(statement);
    sqlite3_stmt* twin = nullptr;
    const int code = m_twin.Bind(statement, arguments, twin);
    Require((cursor != nullptr) == (code == SQLITE_OK), "a cursor is there, or is not");
    if (!cursor) {
        sqlite3_finalize(twin);
        return;
    }
    if (walked == fuzz::HOLD) {
        // Stays on its first row, under the requests that follow.
        const int moved = cursor->MoveNextStep();
        const int stepped = m_twin.StepAsCursor(twin);
        Same(moved, stepped == SQLITE_ROW ? 0 : stepped == SQLITE_DONE ? -34 : stepped, "a first move");
        m_held = cursor;
        m_twin.Hold(twin);
        return;
    }
    CompareRows(*cursor, twin, preload);
    sqlite3_finalize(twin);
}

void Requests::CompareRows(ISQLiteCursor& cursor, sqlite3_stmt* statement, bool preload) {
    std::vector<std::string> rows;
    long long bytes = 0;
    int end = 0;
    // A preload has ended before the first comparison, so the twin steps to its end first, too.
    const auto step = [&] {
        end = m_twin.StepAsCursor(statement);
        if (end == SQLITE_ROW) {
            rows.push_back(fuzz::ShowRow(statement, bytes));
        }
        return end == SQLITE_ROW;
    };
    while (preload && step()) {
    }
    // Rows of a larger result would be evicted.
    if (bytes > CSQLiteCursor::MAX_DB_CACHE_SIZE) {
        return;
    }
    for (std::size_t i = 0;; ++i) {
        const int moved = cursor.MoveNextStep();
        const bool there = preload ? i < rows.size() : step();
        if (bytes > CSQLiteCursor::MAX_DB_CACHE_SIZE) {
            return;
        }
        if (!there) {
            Same(moved, preload ? -22 : end == SQLITE_DONE ? -34 : end, "a walk ends otherwise");
            return;
        }
        Same(moved, 0, "a walk ends too early");
        SameText(fuzz::ShowRow(cursor), rows[i], "a row is another one");
    }
}

void Requests::BuildInsert(fuzz::Input& input) {
    const std::string table = Choose(input, fuzz::TABLES);
    const Bundle bundle(input);
    const int conflict = input.Below(6);
    std::vector<std::string> arguments = {"left over"};
    const std::string bare = m_connection.CreateInsertStatement(table, bundle.bundle, conflict);
    const std::string bound =
        m_connection.CreateInsertStatementWithWildcard(table, bundle.bundle, conflict, arguments);
    const bool empty = bundle.Empty();
    SameText(bare, empty ? "" : fuzz::InsertText(table, bundle.columns, conflict, false), "an insert's text");
    SameText(bound, empty ? "" : fuzz::InsertText(table, bundle.columns, conflict, true),
             "an insert's bound text");
    Require(arguments == fuzz::ValuesOf(bundle.columns), "an insert's arguments");
    // What the callback collects: one entry a column, by the addresses of keys and values.
    std::map<const char*, const char*> map;
    bundle_foreach(bundle.bundle, CVantryConnection::ConvertBundleToMap, &map);
    Require(map.size() == bundle.columns.size(), "a bundle's columns");
    auto column = bundle.columns.begin();
    for (const auto& entry : map) {
        Require(column->name == entry.first && column->value == entry.second, "a bundle's column");
        ++column;
    }
    g_lines.clear();
}

void Requests::BuildUpdate(fuzz::Input& input) {
    const std::string table = Choose(input, fuzz::TABLES);
    const Bundle bundle(input);
    const std::string where = Choose(input, fuzz::WHERES);
    const auto given = ChooseArguments(input);
    const int conflict = input.Below(6);
    auto arguments = given;
    const std::string bare = m_connection.CreateUpdateStatement(table, bundle.bundle, where, conflict);
    const std::string bound =
        m_connection.CreateUpdateStatementWithWildcard(table, bundle.bundle, where, conflict, arguments);
    const bool empty = bundle.Empty();
    SameText(bare, empty ? "" : fuzz::UpdateText(table, bundle.columns, where, conflict, false),
             "an update's text");
    SameText(bound, empty ? "" : fuzz::UpdateText(table, bundle.columns, where, conflict, true),
             "an update's bound text");
    auto merged = fuzz::ValuesOf(bundle.columns);
    merged.insert(merged.end(), given.begin(), given.end());
    Require(arguments == (empty ? given : merged), "an update's arguments");
    g_lines.clear();
}

void Requests::Execute(fuzz::Input& input) {
    const std::string statement = Choose(input, fuzz::STATEMENTS);
    std::string error = "kept";
    const int result = m_connection.ExcuteSQL(statement, error);
    Same(result, fuzz::Mapped(m_twin.Execute(statement)), "a statement answers otherwise");
    SameText(error, result == 0 ? "kept" : sqlite3_errmsg(m_twin.db), "a statement's message");
}

void Requests::PrepareOnly(fuzz::Input& input) {
    const std::string statement = Choose(input, fuzz::STATEMENTS);
    const auto arguments = ChooseArguments(input);
    std::string error;
    sqlite3_stmt* prepared = nullptr;
    const char* tail = nullptr;
    const char* twinTail = nullptr;
    sqlite3_stmt* twin = nullptr;
    Same(m_connection.PrepareCMD(statement, &prepared, &tail, error),
         fuzz::Mapped(m_twin.Prepare(statement, twin, &twinTail)), "a preparation answers otherwise");
    Require((prepared != nullptr) == (twin != nullptr), "a statement is there, or is not");
    Require(tail == nullptr || tail - statement.c_str() == twinTail - statement.c_str(),
            "a tail is another one");
    Same(m_connection.FinalizeStatement(prepared, error), prepared == nullptr ? -22 : 0, "a finalisation");
    sqlite3_finalize(twin);
    Same(m_connection.PrepareBindStatement(&prepared, statement, arguments, error),
         fuzz::Mapped(m_twin.Bind(statement, arguments, twin)), "a binding answers otherwise");
    sqlite3_finalize(prepared);
    sqlite3_finalize(twin);
}

void Requests::Texts(fuzz::Input& input) {
    const std::string text = Choose(input, fuzz::VALUES);
    const std::string from = Choose(input, fuzz::VALUES);
    const std::string to = Choose(input, fuzz::VALUES);
    SameText(CVantryConnection::ToBindText(text), fuzz::BoundText(text), "a bound text");
    SameText(CContentHelper::SQLReplace(text, from, to), fuzz::Replaced(text, from, to), "a replacement");
    SameText(CContentHelper::ToSQLFormat(text), fuzz::Replaced(text, "'", "''"), "a text for SQL");
    const std::string uri = "quenby://" + text + from;
    std::string last;
    for (const char each : uri) {
        last = each == '/' ? "" : last + each;
    }
    SameText(CContentHelper::GetTableNameFromUri(uri), last, "a table's name");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr int MOST_REQUESTS = 40;
    fuzz::Input input(data, size);
    Requests requests;
    for (int request = 0; request < MOST_REQUESTS && !input.Ended() && requests.Go(input); ++request) {
    }
    requests.CompareDatabases();
    return 0;
}

#include <dlog.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cmath>
#include <cstdarg>
#include <memory>
#include <vector>

#include "CursorModel.h"
#include "CursorMoves.h"
#include "Input.h"
#include "SharedQueryObject.h"
#include "VantryConnection.h"

// Walks a cursor in an order that the input chooses, beside a model that keeps every row in a vector. After each move
// the two must tell the same: the result, the place, the counts, and every value of the row.

using fuzz::Require;

namespace {

int g_sleeps = 0;

}  // namespace

// Formats what the library logs, so that a bad argument is noticed, and drops it.
extern "C" int __dlog_print(log_id_t, int, const char*, const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
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

class Object : public CSharedQueryObject {
public:
    using CSharedQueryObject::m_buffer;
};

// What the select is answered from. The model has a copy; at the end of each operation both must have used up as
// many faults.
fuzz::Source g_source;

// show(i) is true for a row that is there, or fails.
void Show(sqlite3_context* context, int, sqlite3_value** arguments) {
    const auto row = static_cast<std::size_t>(sqlite3_value_int(arguments[0]));
    if (row < g_source.visible && g_source.faults > 0) {
        --g_source.faults;
        sqlite3_result_error(context, "a fault", -1);
        sqlite3_result_error_code(context, g_source.faultCode);
        return;
    }
    sqlite3_result_int(context, row < g_source.visible ? 1 : 0);
}

// value(i, c) is the value of a row in a column.
void GiveValue(sqlite3_context* context, int, sqlite3_value** arguments) {
    const auto row = static_cast<std::size_t>(sqlite3_value_int(arguments[0]));
    const auto& value = (*g_source.rows[row])[static_cast<std::size_t>(sqlite3_value_int(arguments[1]))];
    const int size = static_cast<int>(value.bytes.size());
    std::int64_t integer = 0;
    double real = 0;
    switch (value.type) {
        case SQLITE_INTEGER:
            std::memcpy(&integer, value.bytes.data(), sizeof integer);
            sqlite3_result_int64(context, integer);
            break;
        case SQLITE_FLOAT:
            std::memcpy(&real, value.bytes.data(), sizeof real);
            sqlite3_result_double(context, real);
            break;
        case SQLITE_TEXT:
            sqlite3_result_text(context, value.bytes.data(), size, SQLITE_TRANSIENT);
            break;
        case SQLITE_BLOB:
            sqlite3_result_blob(context, value.bytes.data(), size, SQLITE_TRANSIENT);
            break;
        default:
            sqlite3_result_null(context);
            break;
    }
}

OpenConnection& Connection() {
    static OpenConnection* const connection = [] {
        auto* const made = new OpenConnection("", ":memory:", 6);
        std::string error;
        Require(made->OpenOperation() == 0, "no connection");
        sqlite3_create_function(made->m_pDB, "show", 1, SQLITE_UTF8, nullptr, Show, nullptr, nullptr);
        sqlite3_create_function(made->m_pDB, "value", 2, SQLITE_UTF8, nullptr, GiveValue, nullptr, nullptr);
        Require(made->ExcuteSQL("CREATE TABLE places (i INTEGER PRIMARY KEY);"
                                "WITH RECURSIVE c(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM c LIMIT " +
                                    std::to_string(fuzz::MOST_ROWS) + ") INSERT INTO places SELECT i FROM c",
                                error) == 0,
                "no table");
        return made;
    }();
    return *connection;
}

fuzz::Value ReadValue(fuzz::Input& input, int piece, long long& budget) {
    fuzz::Value value;
    switch (input.Below(fuzz::VALUE_KINDS)) {
        case fuzz::SMALL_INTEGER:
            value = {SQLITE_INTEGER, fuzz::BytesOf(static_cast<std::int64_t>(input.Byte()))};
            break;
        case fuzz::INTEGER:
            value = {SQLITE_INTEGER, fuzz::BytesOf(input.Number(8))};
            break;
        case fuzz::DOUBLE: {
            double real = 0;
            const std::uint64_t bits = input.Number(8);
            std::memcpy(&real, &bits, sizeof real);
            // SQLite has no such number, and makes it null.
            if (!std::isnan(real)) {
                value = {SQLITE_FLOAT, fuzz::BytesOf(real)};
            }
            break;
        }
        case fuzz::TEXT:
            value = {SQLITE_TEXT, input.Text()};
            break;
        case fuzz::BLOB:
            value = {SQLITE_BLOB, input.Text()};
            break;
        case fuzz::LARGE_TEXT:
            value = {SQLITE_TEXT, std::string(static_cast<std::size_t>(input.Byte() * piece), 'x')};
            break;
        default:
            break;
    }
    budget -= static_cast<long long>(value.bytes.size());
    return budget < 0 ? fuzz::Value() : value;
}

void ReadFaults(fuzz::Input& input, fuzz::Source& source) {
    source.faults = input.Below(70);
    source.faultCode = fuzz::FAULT_CODES[input.Below(fuzz::FAULT_CODE_COUNT)];
}

fuzz::Source ReadSource(fuzz::Input& input, int piece) {
    long long budget = 3 * fuzz::CursorModel::CACHE_LIMIT / 2;
    fuzz::Source source;
    const int columns = 1 + input.Below(fuzz::MOST_COLUMNS);
    for (int column = 0; column < columns; ++column) {
        source.names.push_back(fuzz::ToFirstZero(input.Text()));
    }
    const int rows = input.Below(fuzz::MOST_ROWS + 1);
    for (int row = 0; row < rows; ++row) {
        fuzz::Row values;
        for (int column = 0; column < columns; ++column) {
            values.push_back(ReadValue(input, piece, budget));
        }
        source.rows.push_back(std::make_shared<const fuzz::Row>(std::move(values)));
    }
    source.visible = source.rows.size();
    ReadFaults(input, source);
    return source;
}

// The library's own select on the source.
std::shared_ptr<CSQLiteCursor> Select(bool preload) {
    std::vector<std::string> projection;
    for (std::size_t column = 0; column < g_source.names.size(); ++column) {
        std::string name;
        for (const char each : g_source.names[column]) {
            name += each == '"' ? "\"\"" : std::string(1, each);
        }
        projection.push_back("value(i, " + std::to_string(column) + ") AS \"" + name + "\"");
    }
    return std::dynamic_pointer_cast<CSQLiteCursor>(
        Connection().SelectRequest("places", projection, "show(i)", "", preload));
}

// The cursor and its model, and the comparison.
class Walk {
public:
    Walk(const fuzz::Source& source, int mode) : m_copy(source), m_model(m_copy) {
        g_source = source;
        m_cursor = Select(mode != fuzz::LIVE);
        Require(m_cursor != nullptr, "no cursor");
        if (mode != fuzz::LIVE) {
            while (m_model.MoveNext() == 0) {
            }
            m_model.Reset();
            m_model.Finalize();
        }
        Compare();
        if (mode == fuzz::FETCHED) {
            HandOver(false);
            Compare();
        }
    }

    // False when the walk has grown too long.
    bool Go(fuzz::Input& input) {
        Move(input);
        Compare();
        return m_model.bytesSeen < 8 * fuzz::CursorModel::CACHE_LIMIT;
    }

private:
    void Move(fuzz::Input& input);
    void HandOver(bool throughMemory);
    void Compare();
    void CompareColumn(int column);
    void CompareNames();

    void Same(int cursor, int model) {
        if (cursor != model) {
            std::fprintf(stderr, "the cursor answers %d, the model %d\n", cursor, model);
        }
        Require(cursor == model, "a result is another one than the model's");
    }

    fuzz::Source m_copy;
    fuzz::CursorModel m_model;
    std::shared_ptr<CSQLiteCursor> m_cursor;
    int m_sleepsBefore = g_sleeps;
};

void Walk::Move(fuzz::Input& input) {
    switch (input.Below(fuzz::CURSOR_OPERATIONS)) {
        case fuzz::MOVE_NEXT:
            Same(m_cursor->MoveNextStep(), m_model.MoveNext());
            break;
        case fuzz::MOVE_PREVIOUS:
            Same(m_cursor->MovePreviousStep(), m_model.MovePrevious());
            break;
        case fuzz::MOVE_FIRST:
            Same(m_cursor->MoveFirstStep(), m_model.MoveFirst());
            break;
        case fuzz::MOVE_LAST:
            if (m_model.MoveLastReturns()) {
                Same(m_cursor->MoveLastStep(), m_model.MoveLast());
            }
            break;
        case fuzz::RESET_STEP:
            Same(m_cursor->ResetStep(), m_model.Reset());
            break;
        case fuzz::FINALIZE:
            Same(m_cursor->FinalizeSQLStatement(), m_model.Finalize());
            break;
        case fuzz::SEE_ALL:
            if (m_model.hasStatement && m_model.hasCache) {
                Same(m_cursor->CreateCacheTillEnd(), m_model.SeeAll());
            }
            break;
        case fuzz::ADD_ROW:
            Same(m_cursor->AddRowCache(false), m_model.AddRow(false));
            break;
        case fuzz::EVICT:
            Same(m_cursor->ForceGetCacheSize() ? 1 : 0, m_model.Evict() ? 1 : 0);
            break;
        case fuzz::SHOW_ROWS:
            g_source.visible =
                static_cast<std::size_t>(input.Below(static_cast<int>(g_source.rows.size()) + 1));
            m_copy.visible = g_source.visible;
            break;
        case fuzz::FAULTS:
            ReadFaults(input, g_source);
            m_copy.faults = g_source.faults;
            m_copy.faultCode = g_source.faultCode;
            break;
        case fuzz::BOUND: {
            const int more = m_model.SetBound(static_cast<long long>(input.Number(2)));
            if (m_model.hasCache) {
                m_cursor->GetCusorCache()->cacheSize += more;
            }
            break;
        }
        case fuzz::REFILL: {
            CDbRow* row = nullptr;
            int number = input.Byte();
            if (!m_model.rows.empty()) {
                number %= m_model.RowCount();
                row = *std::next(m_cursor->GetCusorCache()->rows.begin(), number);
            }
            Same(m_cursor->UpdateRowCache(row, number), row != nullptr ? m_model.Refill() : -14);
            break;
        }
        case fuzz::HAND_OVER:
            HandOver(input.Below(2) == 1);
            break;
        case fuzz::READ_BLOB: {
            const int column = input.Below(fuzz::MOST_COLUMNS + 2) - 1;
            const int size = input.Byte() - 2;
            std::vector<char> buffer(static_cast<std::size_t>(size > 0 ? size : 0), '#');
            const auto* const row = m_model.Current();
            int expected = 0;
            const fuzz::Value* value = nullptr;
            if (row == nullptr) {
                expected = -14;
            } else if (!row->cached || column < 0 || column >= static_cast<int>(row->values->size()) ||
                       size < 1) {
                expected = -22;
            } else {
                value = &(*row->values)[static_cast<std::size_t>(column)];
                expected = value->type != SQLITE_BLOB                     ? -22
                           : size < static_cast<int>(value->bytes.size()) ? -105
                                                                          : 0;
            }
            std::vector<char> wanted = buffer;
            if (expected == 0) {
                std::copy(value->bytes.begin(), value->bytes.end(), wanted.begin());
            }
            Same(m_cursor->GetBlobData(column, size > 0 ? buffer.data() : nullptr, size), expected);
            Require(buffer == wanted, "a blob arrives otherwise");
            break;
        }
        case fuzz::FIND_NAME: {
            const std::string name = input.Text();
            int expected = -1;
            if (!m_model.names.empty() && !name.empty()) {
                expected = 0;
                while (expected < static_cast<int>(m_model.names.size()) &&
                       m_model.names[static_cast<std::size_t>(expected)] != name) {
                    ++expected;
                }
            }
            Same(m_cursor->GetColumnIndex(name), expected);
            break;
        }
        default:
            for (int result = 0; result == 0 && m_model.bytesSeen < 8 * fuzz::CursorModel::CACHE_LIMIT;) {
                result = m_model.MoveNext();
                Same(m_cursor->MoveNextStep(), result);
            }
            break;
    }
}

// Sends the cursor to another process, which is this one, and goes on with what arrives.
void Walk::HandOver(bool throughMemory) {
    // Rows without names are read as names: such a cursor is not handed over.
    if (!m_model.hasCache || (m_model.names.empty() && !m_model.rows.empty())) {
        return;
    }
    Object object;
    Require(object.SerializeCursorData(m_cursor) == 0, "a cursor cannot be written");
    Require(object.m_buffer.size() == m_model.BlockBytes(), "a block has another length");
    std::shared_ptr<ISQLiteCursor> arrived;
    if (throughMemory) {
        std::string name;
        int size = 0;
        const int stored =
            ISharedQueryObject::StoreCursor(m_cursor, "fuzz" + std::to_string(getpid()), name, size);
        // How much memory a process may lock is the system's business.
        constexpr std::size_t SURE_BYTES = 60000;
        constexpr std::size_t MOST_BYTES = 2098171;
        if (stored != 0) {
            Require(stored == -14 && name.empty() && size == 0, "a failed store tells something else");
            Require(m_model.BlockBytes() > SURE_BYTES, "a small result cannot be stored");
            return;
        }
        Require(m_model.BlockBytes() <= MOST_BYTES, "a result is stored that is too large");
        Require(size == static_cast<int>(m_model.BlockBytes()) + 4, "an object has another size");
        arrived = ISharedQueryObject::GetCursor(name, size);
        Require(!ISharedQueryObject::GetCursor(name, size), "a result is fetched twice");
    } else {
        arrived = CSharedQueryObject::DeserializeCursorData(object.m_buffer.data(),
                                                            static_cast<int>(object.m_buffer.size()));
    }
    m_cursor = std::dynamic_pointer_cast<CSQLiteCursor>(arrived);
    Require(m_cursor != nullptr, "a cursor does not arrive");
    m_model.HandOver();
}

void Walk::CompareColumn(int column) {
    const auto* const row = m_model.Current();
    const fuzz::Value* value = nullptr;
    int wrong = -14;
    if (row != nullptr) {
        wrong = -22;
        if (row->cached && column >= 0 && column < static_cast<int>(row->values->size())) {
            value = &(*row->values)[static_cast<std::size_t>(column)];
        }
    }
    const auto wants = [&](int type) { return value != nullptr && value->type == type; };
    int number = 77;
    long long longNumber = 77;
    double real = 77;
    std::string text = "kept";
    Same(m_cursor->GetIntegerData(column, number), wants(SQLITE_INTEGER) ? 0 : wrong);
    Same(m_cursor->GetInteger64Data(column, longNumber), wants(SQLITE_INTEGER) ? 0 : wrong);
    Same(m_cursor->GetDoubleData(column, real), wants(SQLITE_FLOAT) ? 0 : wrong);
    Same(m_cursor->GetStringData(column, text), wants(SQLITE_TEXT) ? 0 : wrong);
    const std::string expectedLong = wants(SQLITE_INTEGER) ? value->bytes : fuzz::BytesOf(77LL);
    Require(fuzz::BytesOf(longNumber) == expectedLong, "an integer is another one");
    Require(fuzz::BytesOf(number) == expectedLong.substr(0, sizeof number), "a cut integer is another one");
    Require(fuzz::BytesOf(real) == (wants(SQLITE_FLOAT) ? value->bytes : fuzz::BytesOf(77.0)),
            "a floating-point number is another one");
    Require(text == (wants(SQLITE_TEXT) ? fuzz::ToFirstZero(value->bytes) : "kept"), "a text is another one");
    if (wants(SQLITE_BLOB) && !value->bytes.empty()) {
        std::string blob(value->bytes.size(), '#');
        Same(m_cursor->GetBlobData(column, blob.data(), static_cast<int>(blob.size())), 0);
        Require(blob == value->bytes, "a blob is another one");
    }
    Same(m_cursor->GetColumnSize(column), value != nullptr ? static_cast<int>(value->bytes.size()) : 0);
    // By SQLite's type, from integer to null.
    static const int types[] = {6, 0, 2, 3, 4, 5};
    Same(m_cursor->GetColumnType(column), types[value != nullptr ? value->type : 0]);
}

void Walk::CompareNames() {
    const int count = static_cast<int>(m_model.names.size());
    for (int column = -1; column <= count; ++column) {
        const bool known = m_model.hasCache && column >= 0 && column < count;
        Require(m_cursor->GetColumnName(column) ==
                    (known ? m_model.names[static_cast<std::size_t>(column)] : std::string()),
                "a column has another name");
    }
}

void Walk::Compare() {
    Require(m_copy.faults == g_source.faults, "a step too many or too few");
    Same(g_sleeps - m_sleepsBefore, m_model.sleeps);
    Same(m_cursor->GetCurrentRowIndex(), m_model.index);
    Same(m_cursor->GetNumbersOfRows(), m_model.RowCount());
    Same(m_cursor->IsEmpty() ? 1 : 0, m_model.RowCount() == 0 ? 1 : 0);
    Same(m_cursor->GetColumnCount(), m_model.columnCount);
    const auto* const cache = m_cursor->GetCusorCache();
    Require((cache != nullptr) == m_model.hasCache, "a cache is there, or is not");
    if (cache != nullptr) {
        Same(m_cursor->GetCurrentCacheSize(), static_cast<int>(m_model.cacheSize));
        Require(m_cursor->IsCachesFull() == (m_model.cacheSize > fuzz::CursorModel::CACHE_LIMIT),
                "a cache is full, or is not");
        auto row = cache->rows.begin();
        for (const auto& expected : m_model.rows) {
            Require((*row)->isCached == expected.cached, "a row is cached, or is not");
            Same((*row)->size, static_cast<int>(expected.counted));
            ++row;
        }
    }
    CompareNames();
    for (int column = -1; column <= static_cast<int>(m_copy.names.size()); ++column) {
        CompareColumn(column);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr int MOST_MOVES = 150;
    fuzz::Input input(data, size);
    const int mode = input.Byte();
    {
        // Large values are slow: few inputs have them.
        Walk walk(ReadSource(input, mode >= fuzz::LARGE_MODES ? fuzz::LARGE_PIECE : 1),
                  mode % fuzz::CURSOR_MODES);
        for (int move = 0; move < MOST_MOVES && !input.Ended() && walk.Go(input); ++move) {
        }
    }
    Require(sqlite3_next_stmt(Connection().m_pDB, nullptr) == nullptr, "a statement stays behind");
    return 0;
}

#ifndef VANTRY_EXTRAS_H
#define VANTRY_EXTRAS_H

#include <sqlite3.h>

#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "SQLiteCursor.h"
#include "TilesModel.h"
#include "VantryConnection.h"
#include "VantryExport.h"

/// @file
/// Companions of the classes: what callers would otherwise write again and again, out of the public
/// operations alone. Everything stands in this header, and is compiled into the program that includes it.
///
/// Memory: nothing here throws, but for the value that a CMaybe is given or gives by copy. Exceptions and
/// RTTI may be switched off; a shortage inside the C++ library then ends the program, as it does anywhere
/// else in it.
///
/// Threads: one thread uses an object at a time.

/// @cond
// The platform's bundle, declared ahead as its own header declares it.
// NOLINTBEGIN(readability-redundant-declaration): that header may come before this one, after it, or not at all
extern "C" {
VANTRY_API _bundle_t* bundle_create(void);
VANTRY_API int bundle_free(_bundle_t* b);
VANTRY_API int bundle_add_str(_bundle_t* b, const char* key, const char* text);
VANTRY_API void bundle_foreach(_bundle_t* b, void (*iterator)(const char*, const int, const keyval_t*, void*),
                               void* user_data);
VANTRY_API int bundle_keyval_get_basic_val(keyval_t* value, void** data, std::size_t* size);
}
// NOLINTEND(readability-redundant-declaration)

#if defined(__cpp_exceptions) || defined(__EXCEPTIONS)
#define VANTRY_EXTRAS_TRY try
#define VANTRY_EXTRAS_CATCH catch (const std::exception&)
#else
#define VANTRY_EXTRAS_TRY if (true)
#define VANTRY_EXTRAS_CATCH else
#endif

namespace vantry {
namespace extras {

// The result codes that are made here. The library's are told in VantryConnection.h and SQLiteCursor.h.
enum : int {
    CODE_OK = 0,
    CODE_NO_MEMORY = -12,
    CODE_NOT_ACTIVE = -14,
    CODE_BUSY = -16,
    CODE_INVALID = -22,
    CODE_END = -34
};

// What GetColumnType() tells.
enum : int { TYPE_BLOB = 4, TYPE_NULL = 5 };

// Whether a type is an integer that is meant as a number.
template <typename T>
struct IsInteger
    : std::integral_constant<bool, std::is_integral<T>::value && !std::is_same<T, bool>::value &&
                                       !std::is_same<T, char>::value && !std::is_same<T, wchar_t>::value &&
                                       !std::is_same<T, char16_t>::value &&
                                       !std::is_same<T, char32_t>::value> {};

// A value as the text that is bound for it. The text is the caller's own, or written into the object; it ends
// in a zero byte.
class CValueText {
public:
    explicit CValueText(const char* text) { SetText(text, text != nullptr ? std::strlen(text) : 0); }
    explicit CValueText(const std::string& text) {
        SetText(text.c_str(), text.size());
        // Texts of bundles end at their first zero byte: half a value would be stored.
        if (text.find('\0') != std::string::npos) {
            m_result = CODE_INVALID;
        }
    }
    explicit CValueText(std::nullptr_t /*null*/) {}
    template <typename T, typename std::enable_if<std::is_same<T, bool>::value, int>::type = 0>
    explicit CValueText(T value) {
        SetText(value ? "1" : "0", 1);
    }
    template <typename T, typename std::enable_if<IsInteger<T>::value, int>::type = 0>
    explicit CValueText(T value) {
        WriteInteger(value, std::is_signed<T>());
    }
    template <typename T, typename std::enable_if<
                              std::is_same<T, double>::value || std::is_same<T, float>::value, int>::type = 0>
    explicit CValueText(T value) {
        WriteDouble(static_cast<double>(value));
    }
    CValueText(const CValueText&) = delete;
    CValueText& operator=(const CValueText&) = delete;

    // Null for a null value.
    const char* Text() const { return m_text; }
    std::size_t Length() const { return m_length; }
    // 0, or why there is no text that stands for the value.
    int Result() const { return m_result; }

private:
    static const std::size_t SIZE = 40;

    void SetText(const char* text, std::size_t length) {
        m_text = text;
        m_length = length;
    }

    void WriteDigits(unsigned long long magnitude, bool negative) {
        char* digit = m_buffer + SIZE - 1;
        *digit = '\0';
        do {
            *--digit = static_cast<char>('0' + static_cast<int>(magnitude % 10));
            magnitude /= 10;
        } while (magnitude != 0);
        if (negative) {
            *--digit = '-';
        }
        SetText(digit, static_cast<std::size_t>(m_buffer + SIZE - 1 - digit));
    }

    void WriteInteger(long long value, std::true_type /*isSigned*/) {
        const auto bits = static_cast<unsigned long long>(value);
        WriteDigits(value < 0 ? 0 - bits : bits, value < 0);
    }

    void WriteInteger(unsigned long long value, std::false_type /*isSigned*/) {
        WriteDigits(value, false);
        // SQLite would make a rounded floating-point number of it.
        if (value > static_cast<unsigned long long>(LLONG_MAX)) {
            m_result = CODE_INVALID;
        }
    }

    // Always 17 digits: they tell any two numbers apart, and SQLite, which rounds on its way, reads some
    // shorter texts as the number beside.
    void WriteDouble(double value) {
        if (value != value) {
            m_result = CODE_INVALID;  // SQLite has no such number
            return;
        }
        if (value > (std::numeric_limits<double>::max)() || value < std::numeric_limits<double>::lowest()) {
            // The words for it are no numbers to SQLite; a number that is too great is infinite.
            value > 0 ? SetText("9e999", 5) : SetText("-9e999", 6);
            return;
        }
        char written[SIZE];
        std::snprintf(written, sizeof written, "%.17g", value);
        MakeClassic(written);
    }

    // Copies a number that was written in the process's locale: whatever its decimal point is, it becomes
    // ".". A number without one receives one, so that it stays a floating-point number where text is kept.
    void MakeClassic(const char* written) {
        char* out = m_buffer;
        bool isWhole = true;
        for (bool inPoint = false; *written != '\0'; ++written) {
            const bool known = std::strchr("0123456789+-e", *written) != nullptr;
            if (known) {
                *out++ = *written;
                isWhole = isWhole && *written != 'e';
            } else if (!inPoint) {
                *out++ = '.';
                isWhole = false;
            }
            inPoint = !known;
        }
        if (isWhole) {
            *out++ = '.';
            *out++ = '0';
        }
        *out = '\0';
        SetText(m_buffer, static_cast<std::size_t>(out - m_buffer));
    }

    const char* m_text = nullptr;
    std::size_t m_length = 0;
    int m_result = CODE_OK;
    char m_buffer[SIZE] = {};
};

// How a value of one type is read from a cursor: Read() gives the getter's code.
template <typename T, typename Enable = void>
struct CReader {
    static_assert(!std::is_same<T, T>::value,
                  "Get<T>(): T is an integer type, bool, double, std::string or "
                  "std::vector<unsigned char>");
};

template <typename T>
struct CReader<T, typename std::enable_if<IsInteger<T>::value>::type> {
    static int Read(ISQLiteCursor& cursor, int column, T& value) {
        long long wide = 0;
        const int result = cursor.GetInteger64Data(column, wide);
        if (result != CODE_OK) {
            return result;
        }
        value = static_cast<T>(wide);
        // What does not come back the same, or changes its sign, did not fit.
        const bool fits = static_cast<long long>(value) == wide && (std::is_signed<T>::value || wide >= 0);
        return fits ? CODE_OK : CODE_INVALID;
    }
};

template <>
struct CReader<bool> {
    static int Read(ISQLiteCursor& cursor, int column, bool& value) {
        long long number = 0;
        const int result = cursor.GetInteger64Data(column, number);
        value = number != 0;
        return result;
    }
};

template <>
struct CReader<double> {
    static int Read(ISQLiteCursor& cursor, int column, double& value) {
        return cursor.GetDoubleData(column, value);
    }
};

template <>
struct CReader<std::string> {
    static int Read(ISQLiteCursor& cursor, int column, std::string& value) {
        return cursor.GetStringData(column, value);
    }
};

template <>
struct CReader<std::vector<unsigned char>> {
    static int Read(ISQLiteCursor& cursor, int column, std::vector<unsigned char>& value) {
        const int size = cursor.GetColumnType(column) == TYPE_BLOB ? cursor.GetColumnSize(column) : 0;
        VANTRY_EXTRAS_TRY {
            // A buffer without bytes is refused, even for an empty blob.
            value.resize(static_cast<std::size_t>(size > 0 ? size : 1));
        }
        VANTRY_EXTRAS_CATCH { return CODE_NO_MEMORY; }
        const int result = cursor.GetBlobData(column, value.data(), static_cast<int>(value.size()));
        if (result != CODE_OK || size == 0) {
            value.clear();
        }
        return result;
    }
};

// The position of a named column, or one that every getter refuses.
inline int FindColumn(ISQLiteCursor& cursor, const char* name) {
    VANTRY_EXTRAS_TRY { return cursor.GetColumnIndex(name != nullptr ? name : ""); }
    VANTRY_EXTRAS_CATCH { return -1; }
}

}  // namespace extras
}  // namespace vantry
/// @endcond

// ---- Reading ------------------------------------------------------------------------------------------

/// A value, or the code that tells why there is none.
///
/// The test for a value is of the object, not of what it holds: a CMaybe<bool> with false in it is true.
template <typename T>
class CMaybe {
public:
    /// No value, with the code -22.
    CMaybe() : m_value(), m_result(vantry::extras::CODE_INVALID) {}
    /// A value.
    ///
    /// @param value  moved in.
    explicit CMaybe(T value) : m_value(std::move(value)), m_result(vantry::extras::CODE_OK) {}
    /// No value.
    ///
    /// @param result  why there is none; 0 counts as -22.
    /// @return the object without a value.
    static CMaybe None(int result) {
        CMaybe none;
        none.m_result = result != vantry::extras::CODE_OK ? result : none.m_result;
        return none;
    }

    /// Tells whether there is a value.
    ///
    /// @return true when there is one.
    bool HasValue() const { return m_result == vantry::extras::CODE_OK; }
    /// Tells whether there is a value.
    explicit operator bool() const { return HasValue(); }
    /// Gives the value.
    ///
    /// @return the value, owned by this object; T() when there is none.
    const T& Value() const& { return m_value; }
    /// Gives the value of a temporary away.
    ///
    /// @return the value; T() when there is none.
    T Value() && { return std::move(m_value); }
    /// Gives the value, or another one.
    ///
    /// @param other  what is given when there is none.
    /// @return the value, or `other`.
    T ValueOr(T other) const& { return HasValue() ? m_value : std::move(other); }
    /// Gives the value of a temporary away, or another one.
    ///
    /// @param other  what is given when there is none.
    /// @return the value, or `other`.
    T ValueOr(T other) && { return HasValue() ? std::move(m_value) : std::move(other); }
    /// Tells why there is no value.
    ///
    /// @return 0 when there is one, else the code.
    int Result() const { return m_result; }

private:
    T m_value;
    int m_result;
};

/// The row on which a cursor stands. It is a view: good until the cursor moves or is released.
///
/// Columns are counted from 0, or named; of equal names the first counts.
class CRow {
public:
    /// The row on which a cursor stands now.
    ///
    /// @param cursor  borrowed for the row's life.
    explicit CRow(ISQLiteCursor& cursor) : m_pCursor(&cursor) {}

    /// Reads a value. Nothing is converted: an integer is no double, a number no text.
    ///
    /// T is an integer type (but no character type), bool (an integer that is not 0), double, std::string (up
    /// to the text's first zero byte) or std::vector<unsigned char> (a blob).
    ///
    /// @param column  the column, from 0.
    /// @return the value, or none with the code of the cursor's getter: -22 for null, for a value of another
    ///         type, for an integer that T cannot hold, and for a column that does not exist (the log tells
    ///         that one); -12 when memory ran out here, -14 when it did as the row was read, or when the
    ///         cursor stands on no row; 6 for a column that is missing.
    template <typename T>
    CMaybe<T> Get(int column) const {
        T value = T();
        const int result = vantry::extras::CReader<T>::Read(*m_pCursor, column, value);
        return result == vantry::extras::CODE_OK ? CMaybe<T>(std::move(value)) : CMaybe<T>::None(result);
    }
    /// Reads a value of a named column.
    ///
    /// @param name  the column's exact name.
    /// @return as Get() by position.
    template <typename T>
    CMaybe<T> Get(const char* name) const {
        return Get<T>(vantry::extras::FindColumn(*m_pCursor, name));
    }
    /// Reads a value of a named column.
    ///
    /// @param name  the column's exact name.
    /// @return as Get() by position.
    template <typename T>
    CMaybe<T> Get(const std::string& name) const {
        return Get<T>(name.c_str());
    }

    /// Tells whether a value is null.
    ///
    /// @param column  the column, from 0.
    /// @return true for null; false also for a column that does not exist.
    bool IsNull(int column) const { return m_pCursor->GetColumnType(column) == vantry::extras::TYPE_NULL; }
    /// Tells whether a value of a named column is null.
    ///
    /// @param name  the column's exact name.
    /// @return true for null; false also for a column that does not exist.
    bool IsNull(const char* name) const { return IsNull(vantry::extras::FindColumn(*m_pCursor, name)); }
    /// Tells whether a value of a named column is null.
    ///
    /// @param name  the column's exact name.
    /// @return true for null; false also for a column that does not exist.
    bool IsNull(const std::string& name) const { return IsNull(name.c_str()); }

    /// Gives the cursor, for everything else that it can tell of the row.
    ///
    /// @return the cursor, borrowed.
    ISQLiteCursor& Cursor() const { return *m_pCursor; }

private:
    ISQLiteCursor* m_pCursor;
};

/// The rows of a cursor, from where it stands to its end, for a range-based for.
///
///     CRows rows(connection.SelectRequest("films", {}, "", "", false));
///     for (auto row : rows)
///         Show(row.Get<std::string>("title").ValueOr("(no title)"));
///     if (!rows.IsAtEnd())
///         ...  // not all of them; Result() tells why
///
/// Works for cursors with a live statement, for preloaded ones and for fetched ones. The one move that is
/// made is ISQLiteCursor::MoveNextStep(), which always returns; after a failure, the end included, no other
/// is made: so a live statement is not started over. A loop that was left early goes on with the next row
/// when it is begun again.
///
/// Ownership: shares the cursor. One with a live statement must be gone before its connection is closed, and
/// so must this object.
///
/// Threads: no lock; it waits as the cursor's moves do.
class CRows {
public:
    /// Visits the rows one after the other.
    class iterator {
    public:
        /// @cond
        using iterator_category = std::input_iterator_tag;
        using value_type = CRow;
        using difference_type = std::ptrdiff_t;
        using pointer = const CRow*;
        using reference = CRow;

        explicit iterator(CRows* pRows) : m_pRows(pRows) {}
        CRow operator*() const { return CRow(*m_pRows->m_pCursor); }
        iterator& operator++() {
            m_pRows->Step();
            return *this;
        }
        void operator++(int) { m_pRows->Step(); }
        bool operator==(const iterator& other) const { return IsEnd() == other.IsEnd(); }
        bool operator!=(const iterator& other) const { return !(*this == other); }
        /// @endcond

    private:
        bool IsEnd() const { return m_pRows == nullptr || m_pRows->m_result != vantry::extras::CODE_OK; }

        CRows* m_pRows;
    };

    /// The rows from where a cursor stands.
    ///
    /// @param cursor  what a request answered; an empty one, of a request that failed, has no rows and the
    ///                result -14.
    explicit CRows(std::shared_ptr<ISQLiteCursor> cursor)
        : m_pCursor(std::move(cursor)),
          m_result(m_pCursor ? vantry::extras::CODE_OK : vantry::extras::CODE_NOT_ACTIVE) {}
    CRows(const CRows&) = delete;
    CRows& operator=(const CRows&) = delete;

    /// Moves onto the next row.
    ///
    /// @return the place of that row, or of the end.
    iterator begin() {
        Step();
        return iterator(this);
    }
    /// Gives the end.
    ///
    /// @return the place behind the last row.
    iterator end() { return iterator(nullptr); }

    /// Tells the code that ended the rows, and 0 before that.
    ///
    /// Kept: after -22 it cannot be told whether a preload had met an error; where it matters, ask for a live
    /// statement. A preloaded result above CSQLiteCursor::MAX_DB_CACHE_SIZE bytes fails at its first move.
    ///
    /// @return -34 at the end of a live statement: these were all the rows; -22 at the end of a cursor
    ///         without a statement: these were all that it holds; -14 without a cursor; else the failure of
    ///         MoveNextStep(): there may be more rows.
    int Result() const { return m_result; }

    /// Tells whether the cursor has no more rows.
    ///
    /// @return true at its end; false when the loop was left, a move failed, or there is no cursor.
    bool IsAtEnd() const {
        return m_pCursor &&
               (m_result == vantry::extras::CODE_END || m_result == vantry::extras::CODE_INVALID);
    }

private:
    void Step() {
        if (m_result == vantry::extras::CODE_OK) {
            m_result = m_pCursor->MoveNextStep();
        }
    }

    std::shared_ptr<ISQLiteCursor> m_pCursor;
    int m_result;
};

// ---- Writing ------------------------------------------------------------------------------------------

/// A bundle and its release, filled with values of a program's own types: columns for the requests that bind
/// them.
///
///     CBundle film;
///     film.Put("title", title);
///     film.Put("year", 1926);
///     connection.InsertRequest("films", film.Get());
///
/// What is put is what is read again from a column of the value's type, INTEGER, REAL or TEXT. The requests
/// bind texts, so a column without a type keeps the text. Meant for InsertRequest(), InsertWithOnConflict()
/// and the UpdateRequest() and UpdateWithOnConflict() with arguments (an empty list will do); not for the
/// updates without arguments and the builders that write values bare.
class CBundle {
public:
    /// An empty bundle.
    CBundle() = default;
    CBundle(const CBundle&) = delete;
    CBundle& operator=(const CBundle&) = delete;
    /// Takes the columns and the result of another one.
    ///
    /// @param other  empty afterwards.
    CBundle(CBundle&& other) noexcept : m_pBundle(other.m_pBundle), m_result(other.m_result) {
        other.m_pBundle = nullptr;
        other.m_result = vantry::extras::CODE_OK;
    }
    /// Takes the columns and the result of another one, in the place of its own.
    ///
    /// @param other  empty afterwards.
    /// @return this object.
    CBundle& operator=(CBundle&& other) noexcept {
        std::swap(m_pBundle, other.m_pBundle);
        std::swap(m_result, other.m_result);
        if (this != &other) {
            other.Clear();
        }
        return *this;
    }
    /// Releases the bundle.
    ~CBundle() { Clear(); }

    /// Puts a column; one that is there already keeps its place and receives the new value.
    ///
    /// @param key    the column's name, copied.
    /// @param value  copied, in the form that binds back to it:
    ///               - a text (const char*, std::string) as it stands, but one that begins and ends with a
    ///                 single quote in a pair of quotes more, which the requests take off again. A text that
    ///                 looks like a number stays a text; the column's type decides;
    ///               - an integer in decimal digits; a bool as 1 or 0. Character types are no integers;
    ///               - a double (or float) in 17 significant digits, with a point whatever the process's
    ///                 locale; an infinite one as 9e999 or -9e999, which SQLite reads as infinite. SQLite
    ///                 reads the text: exactly where the processor computes in more than 64 bits, elsewhere
    ///                 the last digit may be another one.
    /// @return 0; -22 for an empty or null key, a null text (leave a column out for null), a text or key with
    ///         a zero byte in it, an unsigned integer above 9223372036854775807 and a double that is no
    ///         number; -12 when memory ran out; else the platform's code. After a failure the bundle is given
    ///         out no more (see Get()).
    template <typename T>
    int Put(const char* key, const T& value) {
        const vantry::extras::CValueText text(value);
        if (key == nullptr || *key == '\0' || text.Text() == nullptr) {
            return Fail(vantry::extras::CODE_INVALID);
        }
        return text.Result() != vantry::extras::CODE_OK ? Fail(text.Result())
                                                        : Quote(key, text.Text(), text.Length());
    }
    /// Puts a column, as Put() with a plain key does.
    ///
    /// @param key    the column's name, copied.
    /// @param value  copied.
    /// @return as there.
    template <typename T>
    int Put(const std::string& key, const T& value) {
        return Put(std::strlen(key.c_str()) == key.size() ? key.c_str() : nullptr, value);
    }

    /// Gives the bundle, owned by this object and good until the next Put(), Clear() or move.
    ///
    /// @return null before the first Put() and after a Put() that failed: a request answers -22 to it, rather
    ///         than to write a row that lacks a column.
    _bundle_t* Get() const { return m_result == vantry::extras::CODE_OK ? m_pBundle : nullptr; }

    /// Tells whether every Put() succeeded.
    ///
    /// @return 0, or the code of the first that failed.
    int Result() const { return m_result; }

    /// Makes the bundle empty, its result 0.
    void Clear() {
        if (m_pBundle != nullptr) {
            bundle_free(m_pBundle);
        }
        m_pBundle = nullptr;
        m_result = vantry::extras::CODE_OK;
    }

private:
    // What a copy of a bundle with one value replaced goes through.
    struct Replacement {
        _bundle_t* pTarget;
        const char* key;
        const char* text;
        bool found;
        int result;
    };

    static void CopyEntry(const char* key, const int /*type*/, const keyval_t* value, void* userData) {
        Replacement& replacement = *static_cast<Replacement*>(userData);
        const bool same = std::strcmp(key, replacement.key) == 0;
        replacement.found = replacement.found || same;
        void* text = nullptr;
        std::size_t size = 0;
        // The platform's reader takes the entry without const, and does not change it.
        bundle_keyval_get_basic_val(const_cast<keyval_t*>(value), &text, &size);
        if (replacement.result == vantry::extras::CODE_OK) {
            replacement.result = bundle_add_str(replacement.pTarget, key,
                                                same ? replacement.text : static_cast<const char*>(text));
        }
    }

    int Fail(int result) {
        if (m_result == vantry::extras::CODE_OK) {
            m_result = result;
        }
        return result;
    }

    int Quote(const char* key, const char* text, std::size_t length) {
        if (length == 0 || text[0] != '\'' || text[length - 1] != '\'') {
            return Add(key, text);
        }
        const std::unique_ptr<char[]> quoted(new (std::nothrow) char[length + 3]);
        if (!quoted) {
            return Fail(vantry::extras::CODE_NO_MEMORY);
        }
        quoted[0] = '\'';
        std::memcpy(quoted.get() + 1, text, length);
        quoted[length + 1] = '\'';
        quoted[length + 2] = '\0';
        return Add(key, quoted.get());
    }

    int Add(const char* key, const char* text) {
        if (m_pBundle == nullptr) {
            m_pBundle = bundle_create();
        }
        if (m_pBundle == nullptr) {
            return Fail(vantry::extras::CODE_NO_MEMORY);
        }
        const int result = bundle_add_str(m_pBundle, key, text);
        return result == vantry::extras::CODE_OK ? result : Replace(key, text, result);
    }

    // A bundle refuses a key that it has, with a code that is the platform's own; nothing is relied upon that
    // would change or remove an entry.
    int Replace(const char* key, const char* text, int refusal) {
        Replacement replacement = {bundle_create(), key, text, false, vantry::extras::CODE_OK};
        if (replacement.pTarget == nullptr) {
            return Fail(vantry::extras::CODE_NO_MEMORY);
        }
        bundle_foreach(m_pBundle, &CBundle::CopyEntry, &replacement);
        if (!replacement.found || replacement.result != vantry::extras::CODE_OK) {
            bundle_free(replacement.pTarget);
            return Fail(replacement.found ? replacement.result : refusal);
        }
        bundle_free(m_pBundle);
        m_pBundle = replacement.pTarget;
        return vantry::extras::CODE_OK;
    }

    _bundle_t* m_pBundle = nullptr;
    int m_result = vantry::extras::CODE_OK;
};

/// A transaction that is rolled back unless it was committed.
///
///     CTransactionScope transaction(connection);
///     if (transaction.Result() != 0 || !WriteAll(connection))
///         return false;  // rolled back
///     return transaction.Commit() == 0;
///
/// Scopes do not nest: one inside another, or inside any transaction of its connection, does not begin
/// (0xC0000000), and leaves that transaction alone.
///
/// Ownership: borrows the connection, which must outlive it.
///
/// Threads: each of begin, commit and rollback takes the connection's lock, and waits as ExcuteSQL() does. A
/// transaction is the connection's, not the thread's: callers that share a connection between threads
/// serialise the whole of it.
///
/// Left to the caller: SQLite itself ends a transaction after some failures (no space, input or output,
/// memory, and a conflict under the algorithm "rollback"); requests made after that are transactions of their
/// own. Stop at the first request that failed, or ask IsActive().
class CTransactionScope {
public:
    /// Begins a transaction; Result() tells whether it began.
    ///
    /// @param connection  borrowed.
    /// @param exclusive   true to keep readers out as well; false to keep out writers only.
    explicit CTransactionScope(CVantryConnection& connection, bool exclusive = false)
        : m_pConnection(&connection) {
        Begin(exclusive ? "BEGIN EXCLUSIVE" : "BEGIN IMMEDIATE");
    }
    CTransactionScope(const CTransactionScope&) = delete;
    CTransactionScope& operator=(const CTransactionScope&) = delete;
    /// Rolls back what was not committed; memory does not matter to it.
    ~CTransactionScope() {
        Rollback();
        ReleaseSpare();
    }

    /// Tells whether the transaction began.
    ///
    /// @return 0; -22 for a connection without a handle, -16 when the database stayed busy, -12 when memory
    ///         ran out, else the mapped code. After a CBulkInsert met the end of its transaction (see there),
    ///         the code of that.
    int Result() const { return m_result; }

    /// Commits.
    ///
    /// @return 0; -16 when the database stayed busy (a reader is in the way), or another mapped code: the
    ///         transaction is open still, and Commit() may be called again, or the scope left. 0xC0000000
    ///         also when SQLite had rolled it back by itself. After it ended: Result() where that is a
    ///         failure, else -22.
    int Commit() {
        if (!m_active) {
            return Ended();
        }
        const int result = Run("COMMIT");
        m_active = result != vantry::extras::CODE_OK;
        if (!m_active) {
            ReleaseSpare();
        }
        return result;
    }

    /// Rolls back now.
    ///
    /// @return 0, also when memory does not suffice for the statement and one that was kept for this rolled
    ///         back; or the mapped code, 0xC0000000 when SQLite had rolled it back by itself: it is over in
    ///         any case. After it ended, as Commit().
    int Rollback() {
        if (!m_active) {
            return Ended();
        }
        m_active = false;
        int result = Run("ROLLBACK");
        if (result == vantry::extras::CODE_NO_MEMORY && HasSpare() && sqlite3_step(m_pSpare) == SQLITE_DONE) {
            result = vantry::extras::CODE_OK;
        }
        ReleaseSpare();
        return result;
    }

    /// Tells whether the transaction is open, asking SQLite itself.
    ///
    /// @return true while it is.
    bool IsActive() const { return m_active && HasSpare() && sqlite3_get_autocommit(m_pDB) == 0; }

    /// Gives SQLite's message of the last begin, commit or rollback that failed.
    ///
    /// @return the text, owned by this object; empty when none failed.
    const std::string& Error() const { return m_error; }

private:
    friend class CBulkInsert;
    struct NotBegun {};

    CTransactionScope(CVantryConnection& connection, NotBegun /*tag*/) : m_pConnection(&connection) {}

    // The handle, as classes derived from the connection see it.
    struct Reach : CVantryConnection {
        static sqlite3* Handle(CVantryConnection& connection) { return connection.*(&Reach::m_pDB); }
    };

    // Without memory SQLite prepares nothing, and steps what was prepared before: a scope that is left then would
    // leave the transaction open, and all later writes in it.
    void Begin(const char* sql) {
        m_result = m_pConnection->PrepareCMD("ROLLBACK", &m_pSpare, nullptr, m_error);
        if (m_result != vantry::extras::CODE_OK) {
            return;
        }
        m_pDB = sqlite3_db_handle(m_pSpare);
        m_result = Run(sql);
        m_active = m_result == vantry::extras::CODE_OK;
        if (!m_active) {
            ReleaseSpare();
        }
    }

    // False where the connection was closed meanwhile, which finalised the statement.
    bool HasSpare() const {
        if (m_pSpare == nullptr || Reach::Handle(*m_pConnection) != m_pDB) {
            return false;
        }
        sqlite3_stmt* pStmt = sqlite3_next_stmt(m_pDB, nullptr);
        while (pStmt != nullptr && pStmt != m_pSpare) {
            pStmt = sqlite3_next_stmt(m_pDB, pStmt);
        }
        return pStmt != nullptr;
    }

    void ReleaseSpare() {
        if (HasSpare()) {
            sqlite3_finalize(m_pSpare);
        }
        m_pSpare = nullptr;
    }

    // The words are short enough to be kept without an allocation.
    int Run(const char* sql) { return m_pConnection->ExcuteSQL(sql, m_error); }

    int Ended() const {
        return m_result != vantry::extras::CODE_OK ? m_result : vantry::extras::CODE_INVALID;
    }

    // SQLite rolled back by itself.
    void EndBy(int result) {
        m_active = false;
        m_result = result;
    }

    CVantryConnection* m_pConnection;
    sqlite3* m_pDB = nullptr;
    sqlite3_stmt* m_pSpare = nullptr;
    bool m_active = false;
    int m_result = vantry::extras::CODE_OK;
    std::string m_error;
};

/// Inserts many rows into one table through one statement, in one transaction.
///
///     CBulkInsert films(connection, "films", {"title", "year"});
///     for (const Film& film : all) {
///         if (films.Insert(film.title, film.year) != 0)
///             return false;  // rolled back: all of them or none
///     }
///     return films.Commit() == 0;
///
/// What stands in the table afterwards is what CBundle::Put() and InsertWithOnConflict() would have stored,
/// value by value and type by type: values are bound as texts, and the column's type makes of them what it
/// does. A bundle is not made, the statement is prepared once, and there is no log line a row.
///
/// A row that fails is not written, and the transaction stays open: the rows before it are kept, more may
/// follow, and Commit() keeps them all. But where SQLite has rolled the whole transaction back (no space,
/// input or output, memory, a conflict under the algorithm "rollback") it is over: Result() tells the code,
/// Insert() and Commit() answer it from then on, and nothing is ever written outside of the transaction.
///
/// Ownership: borrows the connection, or a scope, which must outlive it, and owns a statement: leave it
/// before the connection is closed.
///
/// Threads: begin and commit as CTransactionScope; Insert() takes no lock, and waits as a cursor's move does.
class CBulkInsert {
public:
    /// Begins a transaction of its own, rolled back when this object is left without a commit. Result() tells
    /// whether it can insert.
    ///
    /// @param connection  borrowed.
    /// @param table     taken as it stands, as the requests do; so are the columns.
    /// @param columns   their order is that of the values of a row. TilesModel::EVENT_TILES_SYNC_KEY is never
    ///                  a column.
    /// @param conflict  0 none, 1 rollback, 2 abort, 3 fail, 4 ignore, 5 replace.
    CBulkInsert(CVantryConnection& connection, const std::string& table,
                const std::vector<std::string>& columns, int conflict = 0)
        : m_own(connection, CTransactionScope::NotBegun()), m_pScope(&m_own) {
        m_result = CheckArguments(columns, conflict);
        if (m_result != vantry::extras::CODE_OK) {
            return;
        }
        m_own.Begin("BEGIN IMMEDIATE");
        Prepare(table, columns, conflict);
    }

    /// Inserts within a transaction of the caller's, for several tables in one, say. Leaving this object
    /// changes nothing there; Commit() and Rollback() are the scope's.
    ///
    /// @param scope     borrowed.
    /// @param table     as above.
    /// @param columns   as above.
    /// @param conflict  as above.
    CBulkInsert(CTransactionScope& scope, const std::string& table, const std::vector<std::string>& columns,
                int conflict = 0)
        : m_own(*scope.m_pConnection, CTransactionScope::NotBegun()), m_pScope(&scope) {
        m_result = CheckArguments(columns, conflict);
        if (m_result == vantry::extras::CODE_OK) {
            Prepare(table, columns, conflict);
        }
    }

    CBulkInsert(const CBulkInsert&) = delete;
    CBulkInsert& operator=(const CBulkInsert&) = delete;
    /// Releases the statement, and rolls back its own transaction if that was not committed.
    ~CBulkInsert() = default;

    /// Tells whether rows can be inserted.
    ///
    /// @return 0; -22 for a list of columns that is empty or has the reserved key in it, for a conflict
    ///         number outside 0 to 5, and for a scope that is over; the result of the begin (see
    ///         CTransactionScope); the mapped code of a statement that could not be prepared (0xC0000000: no
    ///         such table or column); -12 when memory ran out; once SQLite has rolled the transaction back,
    ///         the code of the failure.
    int Result() const {
        if (m_result != vantry::extras::CODE_OK) {
            return m_result;
        }
        return m_pScope->m_active ? vantry::extras::CODE_OK : m_pScope->Ended();
    }

    /// Inserts a row.
    ///
    /// The values are one a column, in the columns' order: what CBundle::Put() takes, and nullptr (or a null
    /// const char*) for null.
    ///
    /// @param first   the first value, borrowed for the call.
    /// @param others  the others, borrowed for the call.
    /// @return 0, for a row that was ignored too; -22 for a number of values that is not that of the columns,
    ///         and for a value that CBundle::Put() refuses; else as InsertWithOnConflict() answers for its
    ///         step: 0xC0000000 for a violated constraint and a full database, -16 when it stayed busy or
    ///         locked, the mapped code of any other failure. A value that could not be bound fails the row,
    ///         and is not written as null. Without a transaction, Result().
    template <typename First, typename... Others>
    int Insert(const First& first, const Others&... others) {
        const int ready = CheckReady();
        if (ready != vantry::extras::CODE_OK) {
            return ready;
        }
        if (1 + sizeof...(others) != m_columnCount) {
            return Forget(vantry::extras::CODE_INVALID);
        }
        m_rowResult = vantry::extras::CODE_OK;
        return BindAndStep(1, first, others...);
    }

    /// Sets one value of the next row, for rows whose columns are known only when the program runs; copied.
    ///
    /// @param column  from 0, in the columns' order.
    /// @param value   as for Insert().
    /// @return 0; -22 for a column that does not exist and a value that CBundle::Put() refuses, -12 when
    ///         memory ran out, 0xC0000000 for a text longer than SQLite takes: Insert() then answers the same
    ///         and writes no row. Without a transaction, Result().
    template <typename Value>
    int Set(std::size_t column, const Value& value) {
        const int ready = CheckReady();
        if (ready != vantry::extras::CODE_OK) {
            return ready;
        }
        const vantry::extras::CValueText text(value);
        const int result = column < m_columnCount ? Bind(static_cast<int>(column) + 1, text, SQLITE_TRANSIENT)
                                                  : static_cast<int>(vantry::extras::CODE_INVALID);
        if (m_rowResult == vantry::extras::CODE_OK) {
            m_rowResult = result;
        }
        return result;
    }

    /// Inserts the row whose values were set; the others are null. The next row begins without values.
    ///
    /// @return as Insert() with values.
    int Insert() {
        const int ready = CheckReady();
        if (ready != vantry::extras::CODE_OK) {
            return ready;
        }
        return m_rowResult != vantry::extras::CODE_OK ? Forget(m_rowResult) : Step();
    }

    /// Commits.
    ///
    /// @return as CTransactionScope::Commit(), so that it may be called again; else Result().
    int Commit() { return m_result != vantry::extras::CODE_OK ? m_result : m_pScope->Commit(); }

    /// Rolls back now.
    ///
    /// @return as CTransactionScope::Rollback().
    int Rollback() { return m_pScope->Rollback(); }

private:
    static int CheckArguments(const std::vector<std::string>& columns, int conflict) {
        const bool known = conflict >= 0 && conflict <= 5;
        for (const std::string& column : columns) {
            if (column == TilesModel::EVENT_TILES_SYNC_KEY) {
                return vantry::extras::CODE_INVALID;
            }
        }
        return known && !columns.empty() ? vantry::extras::CODE_OK : vantry::extras::CODE_INVALID;
    }

    void Prepare(const std::string& table, const std::vector<std::string>& columns, int conflict) {
        if (!m_pScope->m_active) {
            m_result = m_pScope->Ended();
            return;
        }
        sqlite3_stmt* pStmt = nullptr;
        VANTRY_EXTRAS_TRY {
            std::string error;
            m_result = m_pScope->m_pConnection->PrepareCMD(WriteSql(table, columns, conflict), &pStmt,
                                                           nullptr, error);
        }
        VANTRY_EXTRAS_CATCH { m_result = vantry::extras::CODE_NO_MEMORY; }
        if (m_result != vantry::extras::CODE_OK) {
            return;
        }
        m_columnCount = columns.size();
        m_pStmt = pStmt;
        m_pDB = sqlite3_db_handle(pStmt);
        m_pCursor.reset(new (std::nothrow) CSQLiteCursor(m_pDB, pStmt));
        if (!m_pCursor) {
            sqlite3_finalize(pStmt);
            m_result = vantry::extras::CODE_NO_MEMORY;
        }
    }

    static std::string WriteSql(const std::string& table, const std::vector<std::string>& columns,
                                int conflict) {
        std::string sql = "INSERT" + CVantryConnection::CONFLICT_VALUES[conflict] + "INTO " + table;
        const char* separator = " (";
        for (const std::string& column : columns) {
            sql.append(separator).append(column);
            separator = ", ";
        }
        separator = ") VALUES (";
        for (std::size_t i = 0; i < columns.size(); ++i) {
            sql.append(separator).append("?");
            separator = ", ";
        }
        return sql.append(")");
    }

    int CheckReady() {
        // A request of the caller's own may have met the failure that ended the transaction.
        if (m_result == vantry::extras::CODE_OK && m_pScope->m_active && sqlite3_get_autocommit(m_pDB) != 0) {
            m_pScope->EndBy(CVantryConnection::ConvertSQLiteErrorToVantryError(SQLITE_ERROR));
        }
        return Result();
    }

    int Bind(int index, const vantry::extras::CValueText& text, sqlite3_destructor_type destructor) {
        if (text.Result() != vantry::extras::CODE_OK) {
            return text.Result();
        }
        const int length = text.Length() < INT_MAX ? static_cast<int>(text.Length()) : INT_MAX;
        return CVantryConnection::ConvertSQLiteErrorToVantryError(
            sqlite3_bind_text(m_pStmt, index, text.Text(), length, destructor));
    }

    // The texts of the values live until the row is written, and need no copy.
    template <typename First, typename... Others>
    int BindAndStep(int index, const First& first, const Others&... others) {
        const vantry::extras::CValueText text(first);
        const int result = Bind(index, text, SQLITE_STATIC);
        return result != vantry::extras::CODE_OK ? Forget(result) : BindAndStep(index + 1, others...);
    }
    int BindAndStep(int /*index*/) { return Step(); }

    // The cursor steps: waiting for a lock is its own, as everywhere. It has no rows, so that each of its
    // moves is a step, and the end of the statement is success.
    int Step() {
        const int moved = m_pCursor->MoveNextStep();
        sqlite3_reset(m_pStmt);
        if (moved == vantry::extras::CODE_END) {
            return Forget(vantry::extras::CODE_OK);
        }
        const int result = moved > 0 ? CVantryConnection::ConvertSQLiteErrorToVantryError(moved) : moved;
        if (sqlite3_get_autocommit(m_pDB) != 0) {
            m_pScope->EndBy(result);
        }
        return Forget(result);
    }

    int Forget(int result) {
        sqlite3_clear_bindings(m_pStmt);
        m_rowResult = vantry::extras::CODE_OK;
        return result;
    }

    // Gone last, after the statement.
    CTransactionScope m_own;
    CTransactionScope* m_pScope;
    std::unique_ptr<CSQLiteCursor> m_pCursor;
    sqlite3_stmt* m_pStmt = nullptr;
    sqlite3* m_pDB = nullptr;
    std::size_t m_columnCount = 0;
    int m_result = vantry::extras::CODE_OK;
    int m_rowResult = vantry::extras::CODE_OK;
};

#undef VANTRY_EXTRAS_TRY
#undef VANTRY_EXTRAS_CATCH

#endif

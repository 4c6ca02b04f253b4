#pragma once

#include <sqlite3.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

// A cursor as docs/kept-behaviour.md and the header describe it, in the plainest form: every row that was ever seen
// stands in a vector.

namespace fuzz {

// A value as a cursor holds it: numbers in 8 bytes.
struct Value {
    int type = SQLITE_NULL;
    std::string bytes;
};
using Row = std::vector<Value>;

// What the select yields, and what goes wrong while it is stepped.
struct Source {
    std::vector<std::string> names;
    std::vector<std::shared_ptr<const Row>> rows;
    // The rows that a step finds now.
    std::size_t visible = 0;
    // So many of the next rows are refused, with this code.
    int faults = 0;
    int faultCode = SQLITE_ERROR;
};

// One prepared select.
class StatementModel {
public:
    explicit StatementModel(Source& source) : m_source(source) {}

    // 100 with a row, 101 at the end, else an error; after the latter two the next step starts anew.
    int Step() {
        m_error = SQLITE_OK;
        if (m_next >= m_source.visible) {
            m_next = 0;
            return SQLITE_DONE;
        }
        if (m_source.faults > 0) {
            --m_source.faults;
            m_next = 0;
            m_error = m_source.faultCode;
            return m_error;
        }
        m_row = m_next++;
        return SQLITE_ROW;
    }

    // Answers with the error of the last step, once.
    int Reset() {
        const int error = m_error;
        m_next = 0;
        m_error = SQLITE_OK;
        return error;
    }

    const std::shared_ptr<const Row>& Current() const { return m_source.rows[m_row]; }

private:
    Source& m_source;
    std::size_t m_next = 0;
    std::size_t m_row = 0;
    int m_error = SQLITE_OK;
};

class CursorModel {
public:
    static constexpr long long CACHE_LIMIT = 2097152;

    struct SeenRow {
        // Kept when the row is evicted: the writer of shared results still has it.
        std::shared_ptr<const Row> values;
        bool cached = true;
        long long counted = 0;
    };

    explicit CursorModel(Source& source) : m_source(source), m_statement(source) {}

    // Sets the bytes that the cache may hold from now on, by counting more of them. Tells how many more.
    int SetBound(long long bound) {
        if (!hasCache) {
            return 0;
        }
        const long long more = m_bound - bound;
        cacheSize += more;
        m_bound = bound;
        return static_cast<int>(more);
    }

    int MoveNext() {
        if (!hasCache) {
            if (!hasStatement) {
                return -14;
            }
            hasCache = true;
            cacheSize = 0;
            m_bound = CACHE_LIMIT;
            columnCount = static_cast<int>(m_source.names.size());
            return AddRow(true);
        }
        const int next = index + 1;
        if (next < RowCount()) {
            return StandOn(next);
        }
        return hasStatement ? AddRow(false) : -22;
    }

    int MovePrevious() {
        if (!hasCache) {
            return -14;
        }
        return index < 1 ? -22 : StandOn(index - 1);
    }

    int MoveFirst() {
        if (!hasCache) {
            return MoveNext();
        }
        if (index == 0) {
            return 0;
        }
        if (!rows.empty()) {
            current = 0;
            return StandOn(0);
        }
        hasCache = false;
        names.clear();
        current = -1;
        index = -1;
        endIndex = 0;
        if (hasStatement) {
            m_statement.Reset();
        }
        return MoveNext();
    }

    // Whether MoveLast() comes to an end.
    bool MoveLastReturns() const {
        if (hasStatement) {
            return true;
        }
        if (!hasCache || endIndex == 0) {
            return false;
        }
        return index == endIndex - 1 || (index < 0 && endIndex == 1 && !rows.empty() && rows[0].cached);
    }

    int MoveLast() {
        if (!hasCache) {
            MoveNext();
            SeeAll();
            return MoveNext();
        }
        if (endIndex > 0 && index == endIndex - 1) {
            return 0;
        }
        int result = 0;
        if (index < 0 && !rows.empty()) {
            result = StandOn(0);
        }
        if (endIndex > 0 && index == endIndex - 1) {
            return 0;
        }
        SeeAll();
        return result;
    }

    int Reset() {
        if (hasCache) {
            current = -1;
            index = -1;
            return 0;
        }
        return hasStatement ? m_statement.Reset() : -14;
    }

    int Finalize() {
        const int result = hasStatement ? m_statement.Reset() : 0;
        hasStatement = false;
        return result;
    }

    // Never comes to an end without a statement.
    int SeeAll() {
        while (AddRow(false) != -34) {
        }
        return 0;
    }

    int AddRow(bool recordNames) {
        if (!hasStatement || !hasCache) {
            return -14;
        }
        int code = m_statement.Step();
        for (int pause = 0; pause < 30 && IsBusy(code); ++pause) {
            ++sleeps;
            code = m_statement.Step();
        }
        if (code == SQLITE_DONE) {
            if (index >= 0) {
                endIndex = index + 1;
            }
            return -34;
        }
        if (code != SQLITE_ROW) {
            return code;
        }
        SeenRow row;
        row.values = m_statement.Current();
        row.counted = CountBytes(*row.values);
        if (recordNames) {
            names = m_source.names;
            for (const std::string& name : names) {
                cacheSize += static_cast<long long>(name.size());
            }
        }
        cacheSize += row.counted;
        Evict();
        bytesSeen += row.counted;
        rows.push_back(row);
        current = RowCount() - 1;
        // From wherever the cursor stood, which need not be the end of the list.
        ++index;
        return 0;
    }

    // Fills an evicted row again: which fails, as soon as the statement has a row to show.
    int Refill() {
        if (!hasStatement || !hasCache) {
            return -14;
        }
        int code = m_statement.Reset();
        if (IsBusy(code)) {
            // The reset that answers so has reset the statement all the same.
            ++sleeps;
            code = m_statement.Reset();
        }
        if (code != SQLITE_OK) {
            return code;
        }
        code = m_statement.Step();
        for (int pause = 1; pause <= 30 && IsBusy(code); ++pause) {
            ++sleeps;
            if (pause < 30) {
                code = m_statement.Step();
            }
        }
        return code;
    }

    bool Evict() {
        if (!hasCache || cacheSize <= CACHE_LIMIT) {
            return false;
        }
        for (SeenRow& row : rows) {
            if (cacheSize <= CACHE_LIMIT) {
                break;
            }
            if (row.cached) {
                cacheSize -= row.counted;
                row.cached = false;
                row.counted = 0;
            }
        }
        return true;
    }

    // The length of the block in which the result is handed over.
    std::size_t BlockBytes() const {
        std::size_t bytes = 8;
        for (const std::string& name : names) {
            bytes += 4 + name.size() + 1;
        }
        for (const SeenRow& row : rows) {
            for (const Value& value : *row.values) {
                const bool endsInZero = value.type == SQLITE_TEXT || value.type == SQLITE_BLOB;
                bytes += 8 + value.bytes.size() + (endsInZero ? 1 : 0);
            }
        }
        return bytes;
    }

    // The cursor becomes what arrives when it is handed over: the rows up to the end that was seen.
    void HandOver() {
        hasStatement = false;
        rows.resize(static_cast<std::size_t>(std::min(endIndex, RowCount())));
        for (SeenRow& row : rows) {
            row.cached = true;
            row.counted = CountBytes(*row.values);
        }
        cacheSize = 0;
        m_bound = CACHE_LIMIT;
        current = -1;
        index = -1;
    }

    // The row that the getters read; null when there is none.
    const SeenRow* Current() const {
        return hasCache && current >= 0 ? &rows[static_cast<std::size_t>(current)] : nullptr;
    }
    int RowCount() const { return static_cast<int>(rows.size()); }

    std::vector<SeenRow> rows;
    std::vector<std::string> names;
    bool hasStatement = true;
    bool hasCache = false;
    int columnCount = 0;
    // What the cursor tells of its place, and the row that it reads: not always the same one.
    int index = -1;
    int current = -1;
    // The number of rows as the last end that was seen told it; 0 before.
    int endIndex = 0;
    long long cacheSize = 0;
    long long bytesSeen = 0;
    int sleeps = 0;

private:
    static long long CountBytes(const Row& row) {
        long long bytes = 0;
        for (const Value& value : row) {
            bytes += static_cast<long long>(value.bytes.size());
        }
        return bytes;
    }

    static bool IsBusy(int code) { return code == SQLITE_BUSY || code == SQLITE_LOCKED; }

    int StandOn(int position) {
        if (!rows[static_cast<std::size_t>(position)].cached) {
            return Refill();
        }
        index = position;
        current = position;
        return 0;
    }

    Source& m_source;
    StatementModel m_statement;
    long long m_bound = CACHE_LIMIT;
};

}  // namespace fuzz

#include "Rows.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <utility>

#include "Command.h"
#include "Terminal.h"
#include "Text.h"

const std::vector<std::string> FORMAT_NAMES = {"table", "csv", "json", "lines"};

Format FormatByName(const std::string& name) {
    const auto found = std::find(FORMAT_NAMES.begin(), FORMAT_NAMES.end(), name);
    return static_cast<Format>(found - FORMAT_NAMES.begin());
}

namespace {

constexpr const char* TYPE_NAMES[] = {"", "integer", "real", "text", "blob", "null"};

// The shortest digits that read back as the same number.
std::string RealText(double number) {
    std::array<char, 40> text{};
    for (const int digits : {15, 16, 17}) {
        std::snprintf(text.data(), text.size(), "%.*g", digits, number);
        if (std::strtod(text.data(), nullptr) == number) {
            break;
        }
    }
    std::string real = text.data();
    if (real == "inf" || real == "-inf") {
        // What SQLite itself writes: a number too great for its type.
        return real[0] == '-' ? "-9e999" : "9e999";
    }
    return real.find_first_of(".e") == std::string::npos ? real + ".0" : real;
}

void Put(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

// ---- A table ------------------------------------------------------------------------------------------

class CTable : public IRowWriter {
public:
    CTable(std::vector<Column> columns, bool withTypes)
        : m_columns(std::move(columns)), m_withTypes(withTypes) {}

    void Write(Row row) override {
        std::vector<std::string> texts;
        texts.reserve(row.size());
        for (std::size_t i = 0; i < row.size(); ++i) {
            texts.push_back(Shown(row[i]));
            m_numeric.resize(row.size(), true);
            m_numeric[i] = m_numeric[i] && (row[i].type == SQLITE_INTEGER || row[i].type == SQLITE_FLOAT ||
                                            row[i].type == SQLITE_NULL);
        }
        if (m_widths.empty()) {
            for (const std::string& text : texts) {
                m_heldBytes += text.size();
            }
            m_held.push_back(std::move(texts));
            if (m_held.size() >= HELD_ROWS || m_heldBytes >= HELD_BYTES) {
                Flush();
            }
        } else {
            PutRow(texts);
        }
    }

    std::string End() override {
        if (m_widths.empty()) {
            Flush();
        }
        const std::size_t hidden = m_columns.size() - m_widths.size();
        return hidden == 0 ? ""
                           : Count(hidden, "more column") + " did not fit: see --columns, and --format lines";
    }

private:
    static constexpr std::size_t HELD_ROWS = 1000;
    static constexpr std::size_t HELD_BYTES = 1048576;
    static constexpr int GAP = 2;
    // What a column is narrowed to before the last ones are left out.
    static constexpr int LEAST = 8;
    // No value is worth more on any terminal.
    static constexpr std::size_t SHOWN_BYTES = 4096;

    static std::string Shown(const Cell& cell) {
        switch (cell.type) {
            case SQLITE_NULL:
                return "NULL";
            case SQLITE_BLOB:
                return "x'" + Hex(std::string_view(cell.bytes).substr(0, SHOWN_BYTES / 2)) + "'";
            default:
                return Visible(std::string_view(cell.bytes).substr(0, SHOWN_BYTES));
        }
    }

    // Gives each column what it needs, and takes from the widest when that is too much.
    void Measure() {
        std::vector<int> wanted;
        for (std::size_t i = 0; i < m_columns.size(); ++i) {
            int width = std::max(1, DisplayWidth(Visible(m_columns[i].name)));
            if (m_withTypes) {
                width = std::max(width, DisplayWidth(Visible(m_columns[i].type)));
            }
            for (const auto& row : m_held) {
                width = std::max(width, DisplayWidth(row[i]));
            }
            wanted.push_back(width);
        }
        int least = 0;
        std::size_t shown = 0;
        const int room = TerminalWidth();
        for (; shown < wanted.size(); ++shown) {
            const int narrowed = m_columns[shown].whole ? wanted[shown] : std::min(wanted[shown], LEAST);
            const int more = narrowed + (shown > 0 ? GAP : 0);
            if (shown > 0 && least + more > room) {
                break;
            }
            least += more;
        }
        wanted.resize(shown);
        int excess = GAP * (static_cast<int>(shown) - 1) - room;
        for (const int width : wanted) {
            excess += width;
        }
        for (; excess > 0; --excess) {
            std::size_t widest = shown;
            for (std::size_t i = 0; i < shown; ++i) {
                const bool wider = widest == shown || wanted[i] > wanted[widest];
                widest = wider && wanted[i] > 1 && !m_columns[i].whole ? i : widest;
            }
            if (widest == shown) {
                break;
            }
            --wanted[widest];
        }
        m_widths = std::move(wanted);
    }

    void Flush() {
        Measure();
        m_numeric.resize(m_columns.size(), false);
        std::vector<std::string> names, types;
        std::string rule;
        for (std::size_t i = 0; i < m_widths.size(); ++i) {
            names.push_back(Visible(m_columns[i].name));
            types.push_back(Visible(m_columns[i].type));
            for (int width = i > 0 ? -GAP : 0; width < m_widths[i]; ++width) {
                rule += width < 0 ? " " : "─";
            }
        }
        Put(Bold(Line(names)) + "\n");
        if (m_withTypes) {
            Put(Dim(Line(types)) + "\n");
        }
        Put(Dim(rule) + "\n");
        for (const auto& row : m_held) {
            PutRow(row);
        }
        m_held.clear();
    }

    void PutRow(const std::vector<std::string>& texts) const { Put(Line(texts) + "\n"); }

    std::string Line(const std::vector<std::string>& texts) const {
        std::string line;
        for (std::size_t i = 0; i < m_widths.size(); ++i) {
            line += i > 0 ? std::string(GAP, ' ') : "";
            line += Fit(texts[i], m_widths[i], m_numeric[i] ? Side::Right : Side::Left);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        return line;
    }

    std::vector<Column> m_columns;
    bool m_withTypes;
    std::vector<bool> m_numeric;
    std::vector<int> m_widths;
    std::vector<std::vector<std::string>> m_held;
    std::size_t m_heldBytes = 0;
};

// ---- For programs -------------------------------------------------------------------------------------

// Null is nothing, an empty text is "".
class CCsv : public IRowWriter {
public:
    explicit CCsv(const std::vector<Column>& columns) {
        Row names;
        for (const Column& column : columns) {
            names.push_back(Cell::Text(column.name));
        }
        PutLine(names);
    }

    void Write(Row row) override { PutLine(row); }
    std::string End() override { return {}; }

private:
    static void PutLine(const Row& row) {
        std::string line;
        const char* separator = "";
        for (const Cell& cell : row) {
            line += separator;
            separator = ",";
            if (cell.type == SQLITE_BLOB) {
                line += "X'" + Hex(cell.bytes) + "'";
            } else if (cell.type == SQLITE_TEXT &&
                       (cell.bytes.empty() || cell.bytes.find_first_of(",\"\r\n ") != std::string::npos)) {
                line += '"';
                for (const char character : cell.bytes) {
                    line += character == '"' ? "\"\"" : std::string(1, character);
                }
                line += '"';
            } else {
                line += cell.bytes;
            }
        }
        Put(line + "\n");
    }
};

// An array of objects, one a line. A name that is met again gets a number, since an object has each once.
class CJson : public IRowWriter {
public:
    explicit CJson(const std::vector<Column>& columns) {
        std::set<std::string> used;
        for (const Column& column : columns) {
            std::string name = column.name;
            for (int again = 2; !used.insert(name).second; ++again) {
                name = column.name + ":" + std::to_string(again);
            }
            m_names.push_back(JsonText(name));
        }
        Put("[");
    }

    void Write(Row row) override {
        std::string line = m_first ? "\n{" : ",\n{";
        m_first = false;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += (i > 0 ? ", " : "") + m_names[i] + ": ";
            switch (row[i].type) {
                case SQLITE_INTEGER:
                case SQLITE_FLOAT:
                    line += row[i].bytes;
                    break;
                case SQLITE_TEXT:
                    line += JsonText(row[i].bytes);
                    break;
                case SQLITE_BLOB:
                    line += "{\"blob\": \"" + Hex(row[i].bytes) + "\"}";
                    break;
                default:
                    line += "null";
                    break;
            }
        }
        Put(line + "}");
    }

    std::string End() override {
        Put(m_first ? "]\n" : "\n]\n");
        return {};
    }

private:
    std::vector<std::string> m_names;
    bool m_first = true;
};

// "name = value", a line each, and an empty line between rows.
class CLines : public IRowWriter {
public:
    explicit CLines(const std::vector<Column>& columns) {
        int width = 0;
        for (const Column& column : columns) {
            width = std::max(width, DisplayWidth(Visible(column.name)));
        }
        for (const Column& column : columns) {
            m_names.push_back(Fit(Visible(column.name), width, Side::Right));
        }
    }

    void Write(Row row) override {
        std::string text = m_first ? "" : "\n";
        m_first = false;
        for (std::size_t i = 0; i < row.size(); ++i) {
            text += Bold(m_names[i]) + " = ";
            if (row[i].type == SQLITE_NULL) {
                text += "NULL";
            } else if (row[i].type == SQLITE_BLOB) {
                text += "x'" + Hex(row[i].bytes) + "'";
            } else {
                text += Visible(row[i].bytes);
            }
            text += "\n";
        }
        Put(text);
    }

    std::string End() override { return {}; }

private:
    std::vector<std::string> m_names;
    bool m_first = true;
};

}  // namespace

Row ReadRow(CSQLiteCursor& cursor) {
    Row row;
    const CSQLiteCursorCache* const cache = cursor.GetCusorCache();
    if (cache == nullptr || cache->currentRow == nullptr) {
        return row;
    }
    row.reserve(cache->currentRow->columns.size());
    for (const CDbColumn* column : cache->currentRow->columns) {
        Cell cell;
        if (column != nullptr && column->type != SQLITE_NULL) {
            if (column->value == nullptr) {
                throw CFailure("a value is larger than the memory that is left");
            }
            cell.type = column->type;
            long long integer = 0;
            double real = 0;
            if (column->type == SQLITE_INTEGER) {
                std::memcpy(&integer, column->value, sizeof integer);
                cell.bytes = std::to_string(integer);
            } else if (column->type == SQLITE_FLOAT) {
                std::memcpy(&real, column->value, sizeof real);
                cell.bytes = RealText(real);
            } else {
                cell.bytes.assign(column->value, static_cast<std::size_t>(column->size));
            }
        }
        row.push_back(std::move(cell));
    }
    return row;
}

std::unique_ptr<IRowWriter> IRowWriter::Make(Format format, std::vector<Column> columns, bool withTypes) {
    switch (format) {
        case Format::Csv:
            return std::make_unique<CCsv>(columns);
        case Format::Json:
            return std::make_unique<CJson>(columns);
        case Format::Lines:
            return std::make_unique<CLines>(columns);
        case Format::Table:
        default:
            return std::make_unique<CTable>(std::move(columns), withTypes);
    }
}

void WriteTrailer(Format format, const std::string& line) {
    std::fflush(stdout);
    if (format == Format::Table && IsTerminal(STDOUT_FILENO)) {
        Put(Dim(line) + "\n");
    } else {
        std::fprintf(stderr, "%s\n", line.c_str());
    }
}

void CTypeCount::Add(const Row& row) {
    m_counts.resize(row.size(), std::vector<std::uint64_t>(TYPES, 0));
    for (std::size_t i = 0; i < row.size(); ++i) {
        // A cell that came through shared memory may have any type.
        const bool known = row[i].type >= SQLITE_INTEGER && row[i].type <= SQLITE_NULL;
        ++m_counts[i][static_cast<std::size_t>(known ? row[i].type : 0)];
    }
}

std::vector<std::string> CTypeCount::Lines(const std::vector<Column>& columns) const {
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < columns.size() && i < m_counts.size(); ++i) {
        std::vector<std::string> parts;
        for (std::size_t type = 1; type < TYPES; ++type) {
            if (m_counts[i][type] > 0) {
                parts.push_back(std::string(TYPE_NAMES[type]) + " " + Grouped(m_counts[i][type]));
            }
        }
        lines.push_back(Visible(columns[i].name) + ": " + Join(parts, ", "));
    }
    return lines;
}

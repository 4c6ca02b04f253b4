// Rows into an empty table in one transaction, by InsertRequest() and by CBulkInsert: times, interleaved, in one run;
// or one of the ways under callgrind.
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <utility>

#include "Tables.h"
#include "VantryExtras.h"

namespace {

using bench::Column;
using bench::Fail;
using bench::Insert;
using bench::Table;
using bench::Value;

void Expect(int result, const char* what) {
    if (result != 0) {
        Fail(std::string(what) + ": " + std::to_string(result));
    }
}

// A row's columns and texts into a bundle; nulls are left out.
void Fill(CBundle& row, const Insert& insert) {
    for (std::size_t i = 0; i < insert.columns.size(); ++i) {
        row.Put(insert.columns[i]->name, insert.values[i]);
    }
    Expect(row.Result(), "Put");
}

// The rows of a table in every form that a way takes; made before anything is measured.
struct Rows {
    explicit Rows(const Table& rowsOf) : table(rowsOf) {
        for (const Column& column : table.Columns()) {
            columns.push_back(column.name);
        }
        for (std::size_t row = 0; row < Table::PATTERN; ++row) {
            bundles.emplace_back();
            Fill(bundles.back(), table.InsertOf(row));
            texts.emplace_back();
            for (const Column& column : table.Columns()) {
                texts.back().push_back(nullptr);
                const Insert& insert = table.InsertOf(row);
                for (std::size_t i = 0; i < insert.columns.size(); ++i) {
                    if (insert.columns[i]->name == column.name) {
                        texts.back().back() = insert.values[i].c_str();
                    }
                }
            }
        }
    }

    const Table& table;
    std::vector<std::string> columns;
    std::vector<CBundle> bundles;
    std::vector<std::vector<const char*>> texts;
};

void ByRequest(CVantryConnection& connection, const Rows& rows, std::size_t count) {
    CTransactionScope transaction(connection);
    for (std::size_t row = 0; row < count; ++row) {
        Expect(connection.InsertRequest(rows.table.Name(), rows.bundles[row % Table::PATTERN].Get()),
               "InsertRequest");
    }
    Expect(transaction.Commit(), "Commit");
}

// As a caller does it whose values come in from elsewhere.
void ByRequestAndBundle(CVantryConnection& connection, const Rows& rows, std::size_t count) {
    CTransactionScope transaction(connection);
    for (std::size_t row = 0; row < count; ++row) {
        CBundle made;
        Fill(made, rows.table.InsertOf(row));
        Expect(connection.InsertRequest(rows.table.Name(), made.Get()), "InsertRequest");
    }
    Expect(transaction.Commit(), "Commit");
}

template <std::size_t... Position>
int InsertTexts(CBulkInsert& bulk, const std::vector<const char*>& texts,
                std::index_sequence<Position...> /*all*/) {
    return bulk.Insert(texts[Position]...);
}

void ByBulk(CVantryConnection& connection, const Rows& rows, std::size_t count) {
    CBulkInsert bulk(connection, rows.table.Name(), rows.columns);
    for (std::size_t row = 0; row < count; ++row) {
        const auto& texts = rows.texts[row % Table::PATTERN];
        Expect(texts.size() == 3 ? InsertTexts(bulk, texts, std::make_index_sequence<3>())
                                 : InsertTexts(bulk, texts, std::make_index_sequence<26>()),
               "Insert");
    }
    Expect(bulk.Commit(), "Commit");
}

void ByBulkAndSet(CVantryConnection& connection, const Rows& rows, std::size_t count) {
    CBulkInsert bulk(connection, rows.table.Name(), rows.columns);
    for (std::size_t row = 0; row < count; ++row) {
        const auto& texts = rows.texts[row % Table::PATTERN];
        for (std::size_t i = 0; i < texts.size(); ++i) {
            bulk.Set(i, texts[i]);
        }
        Expect(bulk.Insert(), "Insert");
    }
    Expect(bulk.Commit(), "Commit");
}

struct Way {
    const char* name;
    void (*run)(CVantryConnection&, const Rows&, std::size_t);
};
const Way WAYS[] = {{"request", ByRequest},
                    {"bundle-and-request", ByRequestAndBundle},
                    {"bulk", ByBulk},
                    {"bulk-by-set", ByBulkAndSet}};

double ProcessorSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Seconds of the processor that one way takes for `count` rows in a new file.
double Run(const Way& way, const Rows& rows, std::size_t count, const std::string& path, bool counting) {
    bench::MakeFile(path, rows.table, 0);
    const std::size_t name = path.rfind('/') + 1;
    double seconds = 0;
    {
        CVantryConnection connection(path.substr(0, name), path.substr(name), 2);
        Expect(connection.OpenOperation(), "OpenOperation");
        const double start = ProcessorSeconds();
        if (counting) {
            CALLGRIND_TOGGLE_COLLECT;
        }
        way.run(connection, rows, count);
        if (counting) {
            CALLGRIND_TOGGLE_COLLECT;
        }
        seconds = ProcessorSeconds() - start;
    }
    std::size_t found = 0;
    if (bench::SumOfFile(path, rows.table, found) != rows.table.SumOfAll(0, count) || found != count) {
        Fail(std::string(way.name) + ": other rows are stored than were given");
    }
    std::remove(path.c_str());
    return seconds;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Writes a line a way: name, table, nanoseconds a row, and the median of the ratios to the first way.
void Time(std::size_t repetitions, std::size_t count, const std::string& path) {
    for (const Table* table : {&Table::Wide(), &Table::Narrow()}) {
        const Rows rows(*table);
        std::map<std::string, std::vector<double>> seconds, ratios;
        for (std::size_t repetition = 0; repetition < repetitions; ++repetition) {
            // The ways take turns, and each repetition begins with another one.
            std::map<std::string, double> turn;
            for (std::size_t i = 0; i < std::size(WAYS); ++i) {
                const Way& way = WAYS[(i + repetition) % std::size(WAYS)];
                turn[way.name] = Run(way, rows, count, path, false);
            }
            for (const Way& way : WAYS) {
                seconds[way.name].push_back(turn[way.name]);
                ratios[way.name].push_back(turn[way.name] / turn[WAYS[0].name]);
            }
        }
        for (const Way& way : WAYS) {
            std::printf("%s\t%s\t%.0f\t%.3f\n", table->IsWide() ? "wide" : "narrow", way.name,
                        Median(seconds[way.name]) / static_cast<double>(count) * 1e9,
                        Median(ratios[way.name]));
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::strcmp(argv[1], "time") == 0) {
        Time(std::strtoul(argv[2], nullptr, 10), std::strtoul(argv[3], nullptr, 10), argv[4]);
        return 0;
    }
    if (argc == 6 && std::strcmp(argv[1], "count") == 0) {
        const Rows rows(std::strcmp(argv[3], "wide") == 0 ? Table::Wide() : Table::Narrow());
        for (const Way& way : WAYS) {
            if (std::strcmp(way.name, argv[2]) == 0) {
                // What happens once a process is no part of the count.
                Run(way, rows, 10, argv[5], false);
                Run(way, rows, std::strtoul(argv[4], nullptr, 10), argv[5], true);
                return 0;
            }
        }
    }
    std::fprintf(stderr,
                 "Usage: %s time REPETITIONS ROWS FILE\n"
                 "       %s count request|bundle-and-request|bulk|bulk-by-set wide|narrow ROWS FILE\n",
                 argv[0], argv[0]);
    return 2;
}

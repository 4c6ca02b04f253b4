#ifndef VANTRY_BENCHMARKS_ROWS_IN_MEMORY_H
#define VANTRY_BENCHMARKS_ROWS_IN_MEMORY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Tables.h"

namespace bench {

using Blob = std::vector<unsigned char>;
using Cell = std::variant<std::monostate, std::int64_t, double, std::string, Blob>;
using Rows = std::vector<std::vector<Cell>>;

inline std::int64_t ForwardOver(const Rows& rows, bool wide) {
    Sum sum;
    std::int64_t integer = 0;
    double real = 0;
    std::string text;
    for (const auto& row : rows) {
        integer = std::get<std::int64_t>(row[INTEGER_COLUMN]);
        sum.Add(integer);
        text = std::get<std::string>(row[TEXT_COLUMN]);
        sum.Add(std::string_view(text));
        if (wide) {
            real = std::get<double>(row[REAL_COLUMN]);
            sum.Add(real);
            text = std::get<std::string>(row[SECOND_TEXT_COLUMN]);
            sum.Add(std::string_view(text));
        } else {
            integer = std::get<std::int64_t>(row[SECOND_INTEGER_COLUMN]);
            sum.Add(integer);
        }
    }
    return sum.Total();
}

inline std::int64_t BackwardOver(const Rows& rows) {
    Sum sum;
    for (auto row = rows.rbegin(); row != rows.rend(); ++row) {
        sum.Add(std::get<std::int64_t>((*row)[INTEGER_COLUMN]));
    }
    return sum.Total();
}

inline std::int64_t SumOf(const Rows& rows) {
    Sum sum;
    for (const auto& row : rows) {
        for (const Cell& cell : row) {
            if (const auto* integer = std::get_if<std::int64_t>(&cell)) {
                sum.Add(*integer);
            } else if (const auto* real = std::get_if<double>(&cell)) {
                sum.Add(*real);
            } else if (const auto* text = std::get_if<std::string>(&cell)) {
                sum.Add(std::string_view(*text));
            } else if (const auto* blob = std::get_if<Blob>(&cell)) {
                sum.Add(std::string_view(reinterpret_cast<const char*>(blob->data()), blob->size()));
            }
        }
    }
    return sum.Total();
}

}  // namespace bench

#endif

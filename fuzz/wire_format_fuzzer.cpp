#include <dlog.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "SharedQueryObject.h"

// Feeds the reader of shared results with bytes of any kind. Whatever it makes of them must be a cursor that can be
// walked and asked in every way, and that arrives at a next process as it is.

// Formats what the library logs, so that a bad argument is noticed, and drops it.
extern "C" int __dlog_print(log_id_t, int, const char*, const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return length;
}

namespace {

class Object : public CSharedQueryObject {
public:
    using CSharedQueryObject::m_buffer;
};

void Require(bool good, const char* what) {
    if (!good) {
        std::fprintf(stderr, "%s\n", what);
        std::abort();
    }
}

// Reads from memory that ends where the bytes end.
std::shared_ptr<ISQLiteCursor> Read(const std::uint8_t* data, std::size_t size) {
    const std::unique_ptr<char[]> exact(new char[size]);
    std::copy(data, data + size, exact.get());
    return CSharedQueryObject::DeserializeCursorData(exact.get(), static_cast<int>(size));
}

std::vector<char> Write(const std::shared_ptr<ISQLiteCursor>& cursor) {
    Object object;
    Require(object.SerializeCursorData(cursor) == 0, "a rebuilt cursor cannot be written");
    return object.m_buffer;
}

void AskFor(ISQLiteCursor& cursor, int column) {
    int number = 0;
    long long longNumber = 0;
    double realNumber = 0;
    std::string text;
    const int size = cursor.GetColumnSize(column);
    std::vector<char> blob(static_cast<std::size_t>(std::max(size, 1)));
    cursor.GetIntegerData(column, number);
    cursor.GetInteger64Data(column, longNumber);
    cursor.GetDoubleData(column, realNumber);
    cursor.GetBlobData(column, blob.data(), static_cast<int>(blob.size()));
    cursor.GetColumnType(column);
    if (cursor.GetStringData(column, text) == 0) {
        // A text whose last byte is not the zero that belongs there shows it.
        Require(text.size() <= static_cast<std::size_t>(size) + 1, "a text is longer than its column");
    }
}

void Visit(ISQLiteCursor& cursor) {
    constexpr int MOST_COLUMNS = 16;
    const int columns = std::clamp(cursor.GetColumnCount(), 0, MOST_COLUMNS);
    for (int column = -1; column <= columns; ++column) {
        cursor.GetColumnIndex(cursor.GetColumnName(column));
    }
    int rows = 0;
    while (cursor.MoveNextStep() == 0) {
        for (int column = -1; column <= columns; ++column) {
            AskFor(cursor, column);
        }
        ++rows;
    }
    Require(rows == cursor.GetNumbersOfRows(), "a row cannot be reached");
    while (cursor.GetCurrentRowIndex() > 0) {
        Require(cursor.MovePreviousStep() == 0, "a cursor cannot go back");
        AskFor(cursor, 0);
    }
    cursor.MoveFirstStep();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto cursor = Read(data, size);
    if (!cursor) {
        Require(size < 4, "a block of 4 bytes or more gives no cursor");
        return 0;
    }
    const std::vector<char> block = Write(cursor);
    // A name without its zero byte gets one, and a missing row count is written.
    Require(block.size() <= size + size / 4 + 4, "a rebuilt cursor is longer than what it was built from");
    const auto again = Read(reinterpret_cast<const std::uint8_t*>(block.data()), block.size());
    Require(again && Write(again) == block, "a rebuilt cursor does not arrive as it is");
    Visit(*cursor);
    return 0;
}

#ifndef VANTRY_SRC_LOG_H
#define VANTRY_SRC_LOG_H

#include <dlog.h>

#include <cstddef>
#include <type_traits>

namespace vantry {

constexpr const char* LOG_TAG_NAME = "vantry";

// Where a line is logged from. A helper that logs for an operation takes the operation's place, so that the
// line names what the caller called.
struct LogPlace {
    const char* file;
    const char* function;
    int line;
};

constexpr std::size_t DirectoryLength(const char* path) {
    std::size_t length = 0;
    for (std::size_t i = 0; path[i] != '\0'; ++i) {
        length = path[i] == '/' ? i + 1 : length;
    }
    return length;
}

}  // namespace vantry

#define VANTRY_FILE \
    (&__FILE__[std::integral_constant<std::size_t, ::vantry::DirectoryLength(__FILE__)>::value])
// The operation that stands round it; an operation by its name, for what it shares with others.
#define VANTRY_HERE (::vantry::LogPlace{VANTRY_FILE, __func__, __LINE__})
#define VANTRY_PLACE(function) (::vantry::LogPlace{VANTRY_FILE, function, __LINE__})

// The one place that writes a line.
#define VANTRY_LOGF_TAGGED(tag, place, priority, format, ...)                                        \
    static_cast<void>(__dlog_print(LOG_ID_MAIN, priority, tag, "%s: %s(%d) > " format, (place).file, \
                                   (place).function, (place).line, __VA_ARGS__))

#define VANTRY_LOGF_AT(place, priority, format, ...) \
    VANTRY_LOGF_TAGGED(::vantry::LOG_TAG_NAME, place, priority, format, __VA_ARGS__)
#define VANTRY_LOG_AT(place, priority, text) VANTRY_LOGF_AT(place, priority, "%s", text)

// A line of the operation that stands round it: from a format with arguments, and from a plain text.
#define VANTRY_LOGF(priority, format, ...) VANTRY_LOGF_AT(VANTRY_HERE, priority, format, __VA_ARGS__)
#define VANTRY_LOG(priority, text) VANTRY_LOG_AT(VANTRY_HERE, priority, text)

#endif

#include "dlog.h"

#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

namespace {

constexpr std::array<char, 9> kLetters = {'?', '?', 'V', 'D', 'I', 'W', 'E', 'F', 'S'};

char LetterOf(int priority) {
    if (priority < 0 || static_cast<std::size_t>(priority) >= kLetters.size()) {
        return '?';
    }
    return kLetters[static_cast<std::size_t>(priority)];
}

int LevelFromEnvironment() {
    const char* setting = std::getenv("DLOG_LEVEL");  // NOLINT(concurrency-mt-unsafe): read once, never set
    if (setting == nullptr || setting[0] == '\0') {
        return DLOG_INFO;
    }
    if (std::isdigit(static_cast<unsigned char>(setting[0])) != 0) {
        return static_cast<int>(std::strtol(setting, nullptr, 10));
    }
    const char letter = static_cast<char>(std::toupper(static_cast<unsigned char>(setting[0])));
    for (int priority = DLOG_VERBOSE; priority <= DLOG_SILENT; ++priority) {
        if (LetterOf(priority) == letter) {
            return priority;
        }
    }
    return DLOG_INFO;
}

bool IsControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

// Writes `c` as it shall stand in the line; returns the bytes used, four at most.
std::size_t PutEscaped(char* out, char c) {
    if (!IsControl(c)) {
        *out = c;
        return 1;
    }
    static const char* const kHex = "0123456789abcdef";
    out[0] = '\\';
    switch (c) {
        case '\n':
            out[1] = 'n';
            return 2;
        case '\t':
            out[1] = 't';
            return 2;
        case '\r':
            out[1] = 'r';
            return 2;
        default:
            out[1] = 'x';
            out[2] = kHex[(static_cast<unsigned char>(c) >> 4U) & 0xfU];
            out[3] = kHex[static_cast<unsigned char>(c) & 0xfU];
            return 4;
    }
}

}  // namespace

extern "C" int __dlog_print(log_id_t /*log_id*/, int priority, const char* tag, const char* format, ...) {
    static const int level = LevelFromEnvironment();
    if (priority < level || level == DLOG_SILENT) {
        return 0;
    }
    const int savedErrno = errno;
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it loses sight of the list at va_copy
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);

    char head[128];
    const int headLength = std::snprintf(head, sizeof head, "%c/%.80s(%ld): ", LetterOf(priority),
                                         tag != nullptr ? tag : "(null)", static_cast<long>(getpid()));
    int written = -1;
    if (length >= 0 && headLength > 0) {
        const auto headSize = static_cast<std::size_t>(headLength);
        const auto textSize = static_cast<std::size_t>(length);
        // The text is formatted into the buffer's end and escaped towards its front: one allocation.
        const std::unique_ptr<char[]> line(new (std::nothrow) char[headSize + 5 * textSize + 2]);
        if (line) {
            char* const text = line.get() + headSize + 4 * textSize + 1;
            static_cast<void>(std::vsnprintf(text, textSize + 1, format, again));
            std::size_t used = 0;
            for (std::size_t i = 0; i < headSize; ++i) {
                used += IsControl(head[i]) ? 0 : PutEscaped(line.get() + used, head[i]);
            }
            for (std::size_t i = 0; i < textSize; ++i) {
                used += PutEscaped(line.get() + used, text[i]);
            }
            line[used++] = '\n';
            written = static_cast<int>(write(STDERR_FILENO, line.get(), used));
        }
    }
    va_end(again);
    errno = savedErrno;
    return written;
}

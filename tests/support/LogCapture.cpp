#include "LogCapture.h"

#include <dlog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>

#include "TestSide.h"

namespace {

std::mutex g_mutex;
bool g_active = false;
std::vector<support::LogLine>& Captured() {
    static std::vector<support::LogLine> lines;
    return lines;
}

char Letter(int priority) {
    switch (priority) {
        case DLOG_DEBUG:
            return 'D';
        case DLOG_INFO:
            return 'I';
        case DLOG_ERROR:
            return 'E';
        default:
            return '?';
    }
}

// Takes "file: function(line) > text" apart; leaves everything in `text` when the line has another form.
support::LogLine Parse(int priority, const char* tag, const std::string& whole) {
    support::LogLine line;
    line.priority = priority;
    line.hasTag = tag != nullptr;
    line.tag = tag != nullptr ? tag : "";
    line.text = whole;
    const auto colon = whole.find(": ");
    const auto open = whole.find('(', colon);
    const auto close = whole.find(") > ", open);
    if (colon == std::string::npos || open == std::string::npos || close == std::string::npos) {
        return line;
    }
    line.file = whole.substr(0, colon);
    line.function = whole.substr(colon + 2, open - colon - 2);
    line.line = std::atoi(whole.substr(open + 1, close - open - 1).c_str());
    line.text = whole.substr(close + 4);
    return line;
}

std::string Show(const support::LogLine& line) {
    static const std::set<std::string> files = {"VantryConnection.cpp", "SQLiteCursor.cpp",
                                                "SharedQueryObject.cpp", "ContentHelper.cpp", "TilesDAO.cpp"};
    std::string shown;
    if (files.count(line.file) == 0 || line.line < 1 || (line.hasTag && line.tag != "vantry")) {
        shown = "BAD PREFIX [" + line.tag + "] " + line.file + " ";
    }
    if (!line.hasTag) {
        shown += "(null tag) ";
    }
    return shown + Letter(line.priority) + " " + line.function + " > " + line.text;
}

}  // namespace

extern "C" int __dlog_print(log_id_t log_id, int priority, const char* tag, const char* format, ...) {
    const support::TestSide here;
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length < 0) {
        return -1;
    }
    const std::lock_guard<std::mutex> guard(g_mutex);
    if (g_active) {
        auto line = Parse(priority, tag, std::string(text, static_cast<std::size_t>(length)));
        if (log_id != LOG_ID_MAIN) {
            line.file = "(not the main buffer)";
        }
        Captured().push_back(std::move(line));
    }
    std::free(text);
    return length;
}

namespace support {

LogCapture::LogCapture() {
    const std::lock_guard<std::mutex> guard(g_mutex);
    Captured().clear();
    g_active = true;
}

LogCapture::~LogCapture() {
    const std::lock_guard<std::mutex> guard(g_mutex);
    g_active = false;
}

std::vector<LogLine> LogCapture::Records() const {
    const std::lock_guard<std::mutex> guard(g_mutex);
    return Captured();
}

std::vector<std::string> LogCapture::Lines() const {
    std::vector<std::string> shown;
    for (const auto& line : Records()) {
        shown.push_back(Show(line));
    }
    return shown;
}

std::vector<std::string> LogCapture::Lines(char priority) const {
    std::vector<std::string> shown;
    for (const auto& line : Records()) {
        if (Letter(line.priority) == priority) {
            shown.push_back(Show(line));
        }
    }
    return shown;
}

int LogCapture::Count(const std::string& line) const {
    const auto lines = Lines();
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

void LogCapture::Clear() {
    const std::lock_guard<std::mutex> guard(g_mutex);
    Captured().clear();
}

}  // namespace support

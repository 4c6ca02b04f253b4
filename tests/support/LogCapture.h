#pragma once

#include <string>
#include <vector>

namespace support {

struct LogLine {
    int priority = 0;
    bool hasTag = false;
    std::string tag;
    std::string file;
    std::string function;
    int line = 0;
    std::string text;
};

// Records what the library logs while it lives. Without one, lines are dropped.
//
// Lines are compared in the form "I OpenOperation > text": the priority's letter (D, I or E), the function field and
// the message. Tag and file are checked as the lines come in: a line of another tag than "vantry", or of another
// file than the ones the library has, reads "BAD PREFIX ..." instead.
class LogCapture {
public:
    LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture();

    // Everything logged since the beginning or the last Clear().
    std::vector<std::string> Lines() const;
    // The lines of one priority letter.
    std::vector<std::string> Lines(char priority) const;
    std::vector<LogLine> Records() const;
    // How often a line of that form was logged.
    int Count(const std::string& line) const;
    void Clear();
};

}  // namespace support

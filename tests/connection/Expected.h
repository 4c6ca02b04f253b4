#pragma once

#include <string>
#include <vector>

constexpr int UNKNOWN_ERROR = -1073741824;

using Lines = std::vector<std::string>;

// The lines of a call that was retried `count` times.
inline Lines RetryLines(const std::string& function, const std::string& call, int count) {
    Lines lines;
    for (int attempt = 1; attempt <= count; ++attempt) {
        lines.push_back("I " + function + " > [" + call +
                        "] SQLITE3 busy or locked - Retrying : " + std::to_string(attempt) + " attempts;");
    }
    return lines;
}

// The line of a call that succeeded after retries.
inline std::string RetriedLine(const std::string& function, int count) {
    return "I " + function + " > Executing single query succeeded after: " + std::to_string(count) +
           " attempts;";
}

inline Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

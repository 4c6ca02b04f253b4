#ifndef VANTRY_TOOLS_TERMINAL_H
#define VANTRY_TOOLS_TERMINAL_H

#include <sqlite3.h>

#include <chrono>
#include <string>

// The columns of standard output's terminal; 80 where there is none.
int TerminalWidth();
bool IsTerminal(int descriptor);
// Whether standard output shows attributes.
bool IsColoured();

// Attributes round a text, on a terminal that shows them.
std::string Bold(const std::string& text);
std::string Dim(const std::string& text);
std::string Accent(const std::string& text);

// Says on standard error, on a terminal only, that something is still going on after two seconds.
class CProgress {
public:
    // `what` for instance "reading".
    explicit CProgress(std::string what);
    CProgress(const CProgress&) = delete;
    CProgress& operator=(const CProgress&) = delete;
    ~CProgress();

    // SQLite calls back while it works, so that a long sort is seen too. `db` must outlive the progress.
    void Watch(sqlite3* db);
    void Tick();
    // One row more.
    void AddRow() {
        ++m_rows;
        if (m_rows % 256 == 0) {
            Tick();
        }
    }
    // Takes the line away: something else is about to be written.
    void Clear();

private:
    using Clock = std::chrono::steady_clock;

    std::string m_what;
    bool m_onTerminal;
    bool m_shown = false;
    unsigned long long m_rows = 0;
    Clock::time_point m_start = Clock::now();
    Clock::time_point m_last = m_start;
    sqlite3* m_db = nullptr;
};

#endif

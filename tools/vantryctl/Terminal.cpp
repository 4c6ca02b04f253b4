#include "Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "Text.h"

namespace {

constexpr int DEFAULT_WIDTH = 80;
// Below that no table can be drawn; a terminal that says so knows no better.
constexpr int LEAST_WIDTH = 20;
constexpr auto SILENCE = std::chrono::seconds(2);
constexpr auto PAUSE = std::chrono::milliseconds(250);
// SQLite's instructions between two callbacks: some milliseconds.
constexpr int INSTRUCTIONS = 100000;

std::string Styled(const char* style, const std::string& text) {
    return IsColoured() ? style + text + "\033[0m" : text;
}

}  // namespace

int TerminalWidth() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col < LEAST_WIDTH ? LEAST_WIDTH : size.ws_col;
    }
    return DEFAULT_WIDTH;
}

bool IsTerminal(int descriptor) { return isatty(descriptor) != 0; }

bool IsColoured() {
    static const bool coloured = [] {
        const char* const terminal = std::getenv("TERM");
        return IsTerminal(STDOUT_FILENO) && std::getenv("NO_COLOR") == nullptr && terminal != nullptr &&
               std::strcmp(terminal, "dumb") != 0;
    }();
    return coloured;
}

std::string Bold(const std::string& text) { return Styled("\033[1m", text); }

std::string Dim(const std::string& text) { return Styled("\033[2m", text); }

std::string Accent(const std::string& text) { return Styled("\033[1;36m", text); }

CProgress::CProgress(std::string what) : m_what(std::move(what)), m_onTerminal(IsTerminal(STDERR_FILENO)) {}

CProgress::~CProgress() {
    if (m_db != nullptr) {
        sqlite3_progress_handler(m_db, 0, nullptr, nullptr);
    }
    Clear();
}

void CProgress::Watch(sqlite3* db) {
    m_db = db;
    sqlite3_progress_handler(
        db, INSTRUCTIONS,
        [](void* self) {
            static_cast<CProgress*>(self)->Tick();
            return 0;
        },
        this);
}

void CProgress::Tick() {
    if (!m_onTerminal) {
        return;
    }
    const auto now = Clock::now();
    if (now - m_start < SILENCE || now - m_last < PAUSE) {
        return;
    }
    m_last = now;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - m_start).count();
    const std::string rows = m_rows > 0 ? Count(m_rows, "row") + ", " : "";
    std::fprintf(stderr, "\r\033[K%s ... %s%lld s", m_what.c_str(), rows.c_str(),
                 static_cast<long long>(seconds));
    std::fflush(stderr);
    m_shown = true;
}

void CProgress::Clear() {
    if (m_shown) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
        m_shown = false;
    }
}

#include "Screen.h"

#include <wchar.h>

#include <cstdio>
#include <cwchar>

namespace {

const char* const BOLD = "\033[1m";
const char* const DIM = "\033[2m";
const char* const ACCENT = "\033[1;36m";
const char* const PLAIN = "\033[0m";

constexpr int TITLE_COLUMNS = 34;
constexpr int SUBTITLE_COLUMNS = 38;
constexpr int NUMBER_COLUMNS = 6;

std::string Repeat(const char* text, int times) {
    std::string repeated;
    for (int i = 0; i < times; ++i) {
        repeated += text;
    }
    return repeated;
}

}  // namespace

std::string Fit(const std::string& text, int columns) {
    std::string fitted;
    int used = 0;
    // Where the text ends when an ellipsis has to follow.
    std::size_t cut = 0;
    int cutUsed = 0;
    std::mbstate_t state{};
    for (std::size_t at = 0; at < text.size();) {
        wchar_t wide = 0;
        const std::size_t length = std::mbrtowc(&wide, text.data() + at, text.size() - at, &state);
        if (length == 0 || length > text.size()) {
            break;
        }
        const int width = wcwidth(wide);
        if (width >= 0) {
            if (used + width > columns) {
                fitted.resize(cut);
                return fitted + "…" + std::string(static_cast<std::size_t>(columns - cutUsed - 1), ' ');
            }
            fitted.append(text, at, length);
            used += width;
            if (used < columns) {
                cut = fitted.size();
                cutUsed = used;
            }
        }
        at += length;
    }
    return fitted + std::string(static_cast<std::size_t>(columns - used), ' ');
}

std::string Screen::Styled(const char* style, const std::string& text) const {
    return m_coloured ? style + text + PLAIN : text;
}

void Screen::Accelerator(const std::string& title, bool enabled) const {
    const std::string shown = enabled ? title : title + " (off)";
    std::printf("\n%s\n", Styled(ACCENT, "▌ " + shown).c_str());
    std::printf("%s\n", Styled(DIM, Repeat("─", m_width)).c_str());
}

void Screen::Section(const std::string& title, const std::vector<Tile>& tiles, std::size_t shown) const {
    std::printf("\n  %s\n", Styled(BOLD, title + " (" + std::to_string(tiles.size()) + ")").c_str());
    const int rest = m_width - NUMBER_COLUMNS - TITLE_COLUMNS - SUBTITLE_COLUMNS - 4;
    for (std::size_t i = 0; i < tiles.size() && i < shown; ++i) {
        std::printf("  %3zu  %s  %s", i + 1, Fit(tiles[i].title, TITLE_COLUMNS).c_str(),
                    Fit(tiles[i].subtitle, SUBTITLE_COLUMNS).c_str());
        if (rest >= 20) {
            std::printf("  %s", Styled(DIM, Fit(tiles[i].address, rest)).c_str());
        }
        std::printf("\n");
    }
    if (tiles.size() > shown) {
        std::printf("  %s\n",
                    Styled(DIM, "     … and " + std::to_string(tiles.size() - shown) + " more").c_str());
    }
}

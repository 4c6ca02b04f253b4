#pragma once

#include <string>
#include <vector>

// Draws the home screen as text, for a terminal or a pipe.
class Screen {
public:
    // `width` in columns; `coloured` for a terminal that shows attributes.
    Screen(int width, bool coloured) : m_width(width), m_coloured(coloured) {}

    struct Tile {
        std::string title, subtitle, address;
    };

    void Accelerator(const std::string& title, bool enabled) const;
    // Draws the first `shown` of the tiles.
    void Section(const std::string& title, const std::vector<Tile>& tiles, std::size_t shown) const;

private:
    std::string Styled(const char* style, const std::string& text) const;

    int m_width;
    bool m_coloured;
};

// A text cut or filled to that many columns of a terminal.
std::string Fit(const std::string& text, int columns);

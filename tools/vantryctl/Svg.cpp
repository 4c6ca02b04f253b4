// The home screen as a picture. Tiles have no image on the engineer's machine, so each is given a poster that follows
// from its title, the same at every drawing.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "HomeScreen.h"
#include "Text.h"
#include "TilesModel.h"

namespace {

constexpr int WIDTH = 1920;
constexpr int HEIGHT = 1080;
constexpr int MARGIN = 96;
constexpr int FIRST_ROW = 366;
constexpr int ROW_PITCH = 386;
constexpr int POSTER_HEIGHT = 252;
constexpr int GAP = 28;
constexpr double FOCUS_SCALE = 1.06;

constexpr const char* SANS = "Inter, 'Noto Sans', 'Helvetica Neue', Arial, 'DejaVu Sans', sans-serif";
constexpr const char* SERIF = "Georgia, 'Noto Serif', 'Times New Roman', 'DejaVu Serif', serif";

constexpr const char* BRIGHT = "#f1f4f9";
constexpr const char* QUIET = "#9aa4b6";
constexpr const char* FAINT = "#626c7e";
constexpr const char* ACCENT = "#e3bd7a";

struct Palette {
    const char* top;
    const char* bottom;
    const char* motif;
};
constexpr std::array<Palette, 10> PALETTES = {{{"#35496b", "#151d2e", "#8aa8dc"},
                                               {"#4b3a5c", "#1d1627", "#b596d2"},
                                               {"#5a4632", "#221911", "#ddb27c"},
                                               {"#2b554d", "#112420", "#84c7b4"},
                                               {"#5a353d", "#241418", "#d8929e"},
                                               {"#385260", "#152128", "#91c1d8"},
                                               {"#4e5233", "#1e2013", "#c2c87f"},
                                               {"#42494e", "#181c1f", "#b2c0c7"},
                                               {"#5e402d", "#26180f", "#e5a074"},
                                               {"#2e3d62", "#111829", "#95a8e4"}}};

// ---- Pieces of a document -----------------------------------------------------------------------------

std::string Number(double value) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f", value);
    std::string number = text.data();
    if (number.size() > 2 && number.compare(number.size() - 2, 2, ".0") == 0) {
        number.resize(number.size() - 2);
    }
    return number == "-0" ? "0" : number;
}

class CTag {
public:
    explicit CTag(const std::string& name) : m_text("<" + name) {}
    CTag& Set(const char* name, const std::string& value) {
        m_text.append(" ").append(name).append("=\"").append(XmlText(value)).append("\"");
        return *this;
    }
    CTag& Set(const char* name, double value) { return Set(name, Number(value)); }
    std::string Empty() const { return m_text + "/>\n"; }
    std::string Around(const std::string& inside) const {
        return m_text + ">" + inside + "</" + m_text.substr(1, m_text.find(' ') - 1) + ">\n";
    }

private:
    std::string m_text;
};

// About how wide a text is; a little more rather than less, since nobody knows which font is there.
double TextWidth(std::string_view text, double size) {
    double width = 0;
    while (!text.empty()) {
        const char32_t code = TakeCharacter(text).code;
        const std::string_view narrow = "iljtfrI.,:;'!|()[] ";
        const std::string_view wide = "mwMW@%";
        if (code >= 0x2e80) {
            width += 1.0;
        } else if (code < 0x80 && narrow.find(static_cast<char>(code)) != std::string_view::npos) {
            width += 0.36;
        } else if (code < 0x80 && wide.find(static_cast<char>(code)) != std::string_view::npos) {
            width += 0.92;
        } else if (code >= 'A' && code <= 'Z') {
            width += 0.7;
        } else {
            width += 0.6;
        }
    }
    return width * size;
}

std::string CutTo(std::string_view text, double size, double width) {
    if (TextWidth(text, size) <= width) {
        return std::string(text);
    }
    std::string cut;
    const double room = width - size * 0.9;
    while (!text.empty()) {
        const Character character = TakeCharacter(text);
        if (TextWidth(cut + std::string(character.bytes), size) > room) {
            break;
        }
        cut += character.bytes;
    }
    cut.erase(cut.find_last_not_of(" ,·:") + 1);
    return cut + "…";
}

// A subtitle of several parts, "1926 · 79 min · Buster Keaton", loses whole ones first.
std::string CutParts(std::string text, double size, double width) {
    const std::string separator = " · ";
    std::size_t last = 0;
    while (TextWidth(text, size) > width && (last = text.rfind(separator)) != std::string::npos) {
        text.resize(last);
    }
    return CutTo(text, size, width);
}

// The lines of a text, broken at its blanks; the last one is cut.
std::vector<std::string> Wrap(const std::string& text, double size, double width, std::size_t most) {
    std::vector<std::string> lines(1);
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t end = std::min(text.find(' ', at), text.size());
        const std::string word = text.substr(at, end - at);
        const std::string longer = lines.back().empty() ? word : lines.back() + " " + word;
        if (lines.back().empty() || TextWidth(longer, size) <= width || lines.size() == most) {
            lines.back() = longer;
        } else {
            lines.push_back(word);
        }
        at = end + 1;
    }
    for (std::string& line : lines) {
        line = CutTo(line, size, width);
    }
    return lines;
}

struct Style {
    double size = 0;
    const char* fill = "";
    int weight = 400;
    const char* family = SANS;
    double spacing = 0;
};

std::string DrawLine(double x, double y, const std::string& text, const Style& style) {
    CTag tag("text");
    tag.Set("x", x)
        .Set("y", y)
        .Set("font-family", style.family)
        .Set("font-size", style.size)
        .Set("fill", style.fill);
    if (style.weight != 400) {
        tag.Set("font-weight", style.weight);
    }
    if (style.spacing != 0) {
        tag.Set("letter-spacing", style.spacing);
    }
    return tag.Around(XmlText(Visible(text)));
}

std::string Rectangle(double x, double y, double width, double height, const std::string& fill,
                      double radius = 0) {
    CTag tag("rect");
    tag.Set("x", x).Set("y", y).Set("width", width).Set("height", height).Set("fill", fill);
    if (radius > 0) {
        tag.Set("rx", radius);
    }
    return tag.Empty();
}

// ---- Posters ------------------------------------------------------------------------------------------

// Numbers that follow from a text, one after the other.
class CDice {
public:
    explicit CDice(std::string_view text) {
        for (const char character : text) {
            m_state = (m_state ^ static_cast<unsigned char>(character)) * 1099511628211ULL;
        }
    }
    unsigned Next(unsigned below) {
        m_state = m_state * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<unsigned>((m_state >> 33U) % below);
    }
    double Share() { return Next(1000) / 1000.0; }

private:
    std::uint64_t m_state = 14695981039346656037ULL;
};

std::string Polygon(const std::vector<std::array<double, 2>>& points, const char* fill, const char* opacity) {
    std::string list;
    for (const auto& point : points) {
        list += (list.empty() ? "" : " ") + Number(point[0]) + "," + Number(point[1]);
    }
    return CTag("polygon").Set("points", list).Set("fill", fill).Set("fill-opacity", opacity).Empty();
}

std::string Circle(double x, double y, double radius, const char* fill, const char* opacity) {
    return CTag("circle")
        .Set("cx", x)
        .Set("cy", y)
        .Set("r", radius)
        .Set("fill", fill)
        .Set("fill-opacity", opacity)
        .Empty();
}

std::string Ring(double x, double y, double radius, double width, const char* stroke, const char* opacity) {
    return CTag("circle")
        .Set("cx", x)
        .Set("cy", y)
        .Set("r", radius)
        .Set("fill", "none")
        .Set("stroke", stroke)
        .Set("stroke-width", width)
        .Set("stroke-opacity", opacity)
        .Empty();
}

std::string Sun(CDice& dice, double w, double h, const char* colour) {
    const double x = w * (0.3 + 0.4 * dice.Share());
    std::string art = Circle(x, h * 0.34, w * 0.24, colour, "0.85");
    for (int i = 0; i < 5; ++i) {
        art += CTag("rect")
                   .Set("x", 0)
                   .Set("y", h * (0.42 + 0.055 * i))
                   .Set("width", w)
                   .Set("height", h * 0.008 * (i + 1))
                   .Set("fill", "#0b0f16")
                   .Set("fill-opacity", "0.45")
                   .Empty();
    }
    return art;
}

std::string Beams(CDice& dice, double w, double h, const char* colour) {
    const double aim = w * (0.35 + 0.3 * dice.Share());
    return Polygon({{0, 0}, {w * 0.1, 0}, {aim + w * 0.22, h * 0.62}, {aim - w * 0.22, h * 0.62}}, colour,
                   "0.28") +
           Polygon({{w, 0}, {w * 0.9, 0}, {aim - w * 0.22, h * 0.62}, {aim + w * 0.22, h * 0.62}}, colour,
                   "0.28") +
           CTag("ellipse")
               .Set("cx", aim)
               .Set("cy", h * 0.62)
               .Set("rx", w * 0.25)
               .Set("ry", h * 0.035)
               .Set("fill", colour)
               .Set("fill-opacity", "0.75")
               .Empty();
}

std::string Mountains(CDice& dice, double w, double h, const char* colour) {
    const double peak = w * (0.25 + 0.5 * dice.Share());
    return Circle(w * (0.2 + 0.6 * dice.Share()), h * 0.2, w * 0.08, colour, "0.8") +
           Polygon({{-w * 0.2, h * 0.7}, {peak, h * 0.28}, {w * 1.2, h * 0.7}}, colour, "0.3") +
           Polygon({{-w * 0.1, h * 0.75}, {w - peak, h * 0.42}, {w * 1.1, h * 0.75}}, colour, "0.45");
}

std::string Waves(CDice& dice, double w, double h, const char* colour) {
    std::string art;
    for (int i = 0; i < 4; ++i) {
        const double y = h * (0.24 + 0.11 * i);
        const double lift = h * (0.04 + 0.05 * dice.Share());
        const std::string path = "M0 " + Number(y) + " C" + Number(w * 0.3) + " " + Number(y - lift) + " " +
                                 Number(w * 0.6) + " " + Number(y + lift) + " " + Number(w) + " " +
                                 Number(y - lift * 0.4) + " V" + Number(h) + " H0 Z";
        art += CTag("path").Set("d", path).Set("fill", colour).Set("fill-opacity", "0.18").Empty();
    }
    return art;
}

std::string Skyline(CDice& dice, double w, double h, const char* colour) {
    std::string art = Circle(w * 0.74, h * 0.2, w * 0.11, colour, "0.7");
    for (double x = 0; x < w;) {
        const double width = w * (0.09 + 0.1 * dice.Share());
        const double top = h * (0.3 + 0.28 * dice.Share());
        art += CTag("rect")
                   .Set("x", x)
                   .Set("y", top)
                   .Set("width", width)
                   .Set("height", h - top)
                   .Set("fill", colour)
                   .Set("fill-opacity", dice.Next(2) == 0 ? "0.3" : "0.42")
                   .Empty();
        x += width + w * 0.015;
    }
    return art;
}

std::string Reel(CDice& dice, double w, double h, const char* colour) {
    const double x = w * 0.5;
    const double y = h * 0.35;
    const double radius = w * 0.34;
    std::string art = Ring(x, y, radius, w * 0.035, colour, "0.7") + Circle(x, y, w * 0.05, colour, "0.8");
    // The holes of a film reel, by the corners of a hexagon.
    constexpr std::array<std::array<double, 2>, 6> CORNERS = {
        {{0, -1}, {0.866, -0.5}, {0.866, 0.5}, {0, 1}, {-0.866, 0.5}, {-0.866, -0.5}}};
    const unsigned open = dice.Next(6);
    for (std::size_t i = 0; i < CORNERS.size(); ++i) {
        art += Circle(x + CORNERS[i][0] * radius * 0.6, y + CORNERS[i][1] * radius * 0.6, w * 0.07, colour,
                      i == open ? "0.75" : "0.3");
    }
    return art;
}

std::string Arcs(CDice& dice, double w, double h, const char* colour) {
    std::string art;
    const double x = dice.Next(2) == 0 ? 0 : w;
    for (int i = 1; i <= 5; ++i) {
        art += Ring(x, h * 0.66, w * 0.2 * i, w * 0.055, colour, i % 2 == 0 ? "0.25" : "0.5");
    }
    return art;
}

std::string Stripes(CDice& dice, double w, double h, const char* colour) {
    std::string art;
    const double lean = w * (0.25 + 0.35 * dice.Share());
    for (int i = -1; i < 5; ++i) {
        const double x = w * 0.26 * i;
        art += Polygon({{x, 0}, {x + w * 0.1, 0}, {x + w * 0.1 + lean, h}, {x + lean, h}}, colour,
                       i % 2 == 0 ? "0.16" : "0.3");
    }
    return art + Circle(w * 0.5, h * 0.33, w * 0.2, colour, "0.8");
}

std::string Motif(const Tile& tile, double w, double h, Palette& palette) {
    CDice dice(tile.title);
    palette = PALETTES[dice.Next(PALETTES.size())];
    using Draw = std::string (*)(CDice&, double, double, const char*);
    constexpr std::array<Draw, 8> MOTIFS = {Sun, Beams, Mountains, Waves, Skyline, Reel, Arcs, Stripes};
    return MOTIFS[dice.Next(MOTIFS.size())](dice, w, h, palette.motif);
}

double PosterWidth(const Tile& tile) {
    namespace Ratio = TilesModel::Tiles::TileImageRatio;
    if (tile.ratio == Ratio::TILE_IMAGE_RATIO_1BY1) {
        return POSTER_HEIGHT;
    }
    if (tile.ratio == Ratio::TILE_IMAGE_RATIO_4BY3) {
        return POSTER_HEIGHT * 4.0 / 3;
    }
    if (tile.ratio == Ratio::TILE_IMAGE_RATIO_16BY9) {
        return POSTER_HEIGHT * 16.0 / 9;
    }
    return POSTER_HEIGHT * 2.0 / 3;
}

// The picture of a tile, its upper left corner at 0, 0. `id` is the document's only one of that name.
std::string Poster(const Tile& tile, const std::string& id) {
    const double w = PosterWidth(tile);
    const double h = POSTER_HEIGHT;
    Palette palette{};
    const std::string motif = Motif(tile, w, h, palette);
    std::string text = CTag("linearGradient")
                           .Set("id", "g" + id)
                           .Set("x2", "0")
                           .Set("y2", "1")
                           .Around(CTag("stop").Set("stop-color", palette.top).Empty() +
                                   CTag("stop").Set("offset", "1").Set("stop-color", palette.bottom).Empty());
    text += CTag("clipPath").Set("id", "c" + id).Around(Rectangle(0, 0, w, h, "#000", 10));
    std::string inside =
        Rectangle(0, 0, w, h, "url(#g" + id + ")") + motif + Rectangle(0, 0, w, h, "url(#shade)");
    constexpr double SIZE = 19;
    const std::vector<std::string> lines = Wrap(tile.title, SIZE, w - 24, 4);
    double y = h - 18 - (static_cast<double>(lines.size()) - 1) * (SIZE + 4);
    for (const std::string& line : lines) {
        inside += DrawLine(12, y, line, {SIZE, "#ffffff", 700, SERIF});
        y += SIZE + 4;
    }
    return text + CTag("g").Set("clip-path", "url(#c" + id + ")").Around("\n" + inside);
}

std::string DrawTile(const Tile& tile, double x, double y, bool focused, const std::string& id) {
    const double w = PosterWidth(tile);
    std::string poster = Poster(tile, id);
    if (focused) {
        // The glow behind it by a blur of its own: few programs draw a shadow in one step.
        const CTag frame = CTag("rect")
                               .Set("x", -5)
                               .Set("y", -5)
                               .Set("width", w + 10)
                               .Set("height", POSTER_HEIGHT + 10)
                               .Set("rx", 14);
        poster =
            CTag(frame).Set("fill", "#000").Set("fill-opacity", "0.7").Set("filter", "url(#blur)").Empty() +
            CTag(frame).Set("fill", BRIGHT).Empty() + poster;
    }
    const double shift = focused ? (FOCUS_SCALE - 1) / 2 : 0;
    std::string place = "translate(" + Number(x - w * shift) + " " + Number(y - POSTER_HEIGHT * shift) + ")";
    if (focused) {
        place += " scale(1.06)";
    }
    std::string text = CTag("title").Around(XmlText(Visible(tile.title)));
    text += CTag("g").Set("transform", place).Around("\n" + poster);
    double below = y + POSTER_HEIGHT + (focused ? 14 : 10);
    if (tile.progress >= 0) {
        text += Rectangle(x, below, w, 5, "#2a3242", 2.5);
        text += Rectangle(x, below, std::max(5.0, w * tile.progress), 5, ACCENT, 2.5);
        below += 8;
    }
    text += DrawLine(x, below + 22, CutTo(tile.title, 18, w + 8),
                     {18, focused ? BRIGHT : "#d5dbe6", focused ? 700 : 400});
    text += DrawLine(x, below + 45, CutParts(tile.subtitle, 14.5, w + 8),
                     {14.5, focused ? "#b4bdcc" : "#7f899b"});
    return CTag("g").Around("\n" + text);
}

// ---- The page -----------------------------------------------------------------------------------------

std::string DrawTabs(const HomeScreen& screen, std::size_t selected) {
    std::string text;
    double x = MARGIN;
    for (std::size_t i = 0; i < screen.size() && x < WIDTH - MARGIN; ++i) {
        const bool here = i == selected;
        const std::string title = CutTo(screen[i].title, 26, 460);
        text += DrawLine(x, 84, title,
                         {26,
                          here                ? BRIGHT
                          : screen[i].enabled ? QUIET
                                              : FAINT,
                          here ? 700 : 400});
        if (here) {
            text += Rectangle(x, 102, 44, 5, ACCENT, 2.5);
        }
        x += TextWidth(title, 26) + 60;
    }
    return text;
}

std::string DrawHero(const Section& section, const Tile& tile) {
    Palette palette{};
    const double size = 760;
    const std::string art = Motif(tile, size, size * 0.9, palette);
    std::string text = CTag("g")
                           .Set("mask", "url(#behind)")
                           .Around(CTag("g")
                                       .Set("transform", "translate(1160 -60)")
                                       .Set("opacity", "0.55")
                                       .Around("\n" +
                                               CTag("rect")
                                                   .Set("width", size)
                                                   .Set("height", size * 0.75)
                                                   .Set("fill", palette.top)
                                                   .Empty() +
                                               art));
    std::string label;
    for (std::string_view rest = section.title; !rest.empty();) {
        const Character character = TakeCharacter(rest);
        label += character.code >= 'a' && character.code <= 'z'
                     ? std::string(1, static_cast<char>(character.code - 32))
                     : std::string(character.bytes);
    }
    text += DrawLine(MARGIN, 174, CutTo(label, 22, 900), {18, ACCENT, 700, SANS, 2.5});
    text += DrawLine(MARGIN - 2, 236, CutTo(tile.title, 56, 1300), {54, BRIGHT, 700, SERIF});
    text += DrawLine(MARGIN, 278, CutTo(tile.subtitle, 25, 1200), {24, QUIET});
    return text;
}

std::string DrawRow(const Section& section, int y, bool first, const std::string& id) {
    namespace Mode = TilesModel::Sections::SectionTitleDisplayMode;
    std::string text = CTag("title").Around(XmlText(Visible(section.title)));
    // A title for the ear only is still in the document.
    if (section.displayMode != Mode::SECTION_TITLE_DISPLAY_MODE_ACCESSIBILITY_ONLY) {
        const bool dim = section.displayMode == Mode::SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY && !first;
        const std::string title = CutTo(section.title, 26, 1400);
        text += DrawLine(MARGIN, y - 26, title, {25, dim ? FAINT : BRIGHT, 600});
        text +=
            DrawLine(MARGIN + TextWidth(title, 25) + 18, y - 26, Grouped(section.tiles.size()), {19, FAINT});
    }
    double x = MARGIN;
    for (std::size_t i = 0; i < section.tiles.size() && x < WIDTH; ++i) {
        const bool focused = first && i == 0;
        text += DrawTile(section.tiles[i], x, y, focused, id + "-" + std::to_string(i));
        x += PosterWidth(section.tiles[i]) + GAP;
    }
    return CTag("g").Around("\n" + text);
}

constexpr const char* DEFINITIONS = R"text(<defs>
<linearGradient id="ground" x2="0" y2="1"><stop stop-color="#131a27"/><stop offset="1" stop-color="#0a0d14"/></linearGradient>
<linearGradient id="shade" x2="0" y2="1"><stop offset=".45" stop-color="#05070b" stop-opacity="0"/>
<stop offset="1" stop-color="#05070b" stop-opacity=".82"/></linearGradient>
<linearGradient id="leftwards"><stop offset=".02" stop-color="#000"/><stop offset=".55" stop-color="#fff"/></linearGradient>
<linearGradient id="downwards" x2="0" y2="1"><stop offset=".2" stop-color="#000" stop-opacity="0"/>
<stop offset=".95" stop-color="#000"/></linearGradient>
<linearGradient id="rightwards"><stop offset=".91" stop-color="#fff"/><stop offset="1" stop-color="#555"/></linearGradient>
<mask id="behind"><rect x="1160" width="760" height="330" fill="url(#leftwards)"/>
<rect x="1160" width="760" height="331" fill="url(#downwards)"/></mask>
<mask id="edge"><rect width="1920" height="1080" fill="url(#rightwards)"/></mask>
<filter id="blur" x="-30%" y="-30%" width="160%" height="160%"><feGaussianBlur stdDeviation="14"/></filter>
</defs>
)text";

}  // namespace

std::string DrawSvg(const HomeScreen& screen, std::size_t selected) {
    const Accelerator& page = screen[selected];
    std::string rows;
    std::string hero;
    int y = FIRST_ROW;
    bool first = true;
    for (std::size_t i = 0; i < page.sections.size() && y < HEIGHT; ++i) {
        const Section& section = page.sections[i];
        if (section.tiles.empty()) {
            continue;
        }
        if (first) {
            hero = DrawHero(section, section.tiles[0]);
        }
        rows += DrawRow(section, y, first, std::to_string(i));
        first = false;
        y += ROW_PITCH;
    }
    std::string text = CTag("title").Around(XmlText("Home screen: " + Visible(page.title)));
    text += DEFINITIONS;
    text += Rectangle(0, 0, WIDTH, HEIGHT, "url(#ground)");
    text += hero + DrawTabs(screen, selected);
    text += rows.empty() ? DrawLine(MARGIN, 240, "No tiles", {40, QUIET}) : "";
    text += CTag("g").Set("mask", "url(#edge)").Around("\n" + rows);
    return CTag("svg")
        .Set("xmlns", "http://www.w3.org/2000/svg")
        .Set("viewBox", "0 0 1920 1080")
        .Set("role", "img")
        .Around("\n" + text);
}

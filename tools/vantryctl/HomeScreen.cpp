#include "HomeScreen.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "Command.h"
#include "Database.h"
#include "Terminal.h"
#include "Text.h"
#include "TilesModel.h"

namespace Accelerators = TilesModel::Accelerators;
namespace Sections = TilesModel::Sections;
namespace Tiles = TilesModel::Tiles;

namespace {

// A row by column names; what is null or not there is empty.
class CRecord {
public:
    CRecord(const std::vector<Column>& columns, Row row) : m_columns(columns), m_row(std::move(row)) {}

    const std::string& Text(const std::string& column) const {
        static const std::string none;
        for (std::size_t i = 0; i < m_columns.size() && i < m_row.size(); ++i) {
            if (m_columns[i].name == column) {
                return m_row[i].bytes;
            }
        }
        return none;
    }
    bool Has(const std::string& column) const { return !Text(column).empty(); }
    long long Number(const std::string& column) const {
        return std::strtoll(Text(column).c_str(), nullptr, 10);
    }

private:
    const std::vector<Column>& m_columns;
    Row m_row;
};

template <typename Visit>
void ForEach(CLook& look, const std::string& table, const std::string& where,
             const std::vector<std::string>& arguments, const std::string& order, Visit visit) {
    const auto cursor =
        look.Select(look.Connection().CreateSelectStatement(table, {}, where, order), arguments);
    const std::vector<Column> columns = cursor->Columns();
    int code = 0;
    while ((code = cursor->Step()) == 0) {
        visit(CRecord(columns, ReadRow(*cursor)));
    }
    if (code != RESULT_END) {
        throw CFailure("cannot read the table " + table + ": " + Visible(cursor->Failure(code)));
    }
}

Tile ReadTile(const CRecord& record, long long now) {
    Tile tile;
    tile.title = record.Text(Tiles::TILE_TITLE);
    tile.subtitle = record.Text(Tiles::TILE_SUBTITLE);
    tile.ratio = record.Text(Tiles::TILE_IMAGE_RATIO);
    if (record.Has(Tiles::TILE_DISPLAY_FROM) && record.Has(Tiles::TILE_DISPLAY_UNTIL)) {
        const auto from = static_cast<double>(record.Number(Tiles::TILE_DISPLAY_FROM));
        const auto until = static_cast<double>(record.Number(Tiles::TILE_DISPLAY_UNTIL));
        if (until > from) {
            tile.progress = std::clamp((static_cast<double>(now) - from) / (until - from), 0.0, 1.0);
        }
    }
    return tile;
}

bool IsDisplayed(const CRecord& record, long long now) {
    const bool begun =
        !record.Has(Tiles::TILE_DISPLAY_FROM) || record.Number(Tiles::TILE_DISPLAY_FROM) <= now;
    const bool over =
        record.Has(Tiles::TILE_DISPLAY_UNTIL) && record.Number(Tiles::TILE_DISPLAY_UNTIL) <= now;
    return begun && !over;
}

}  // namespace

HomeScreen LoadHomeScreen(const std::string& database, long long now) {
    CLook look(database);
    look.Require();
    HomeScreen screen;
    std::vector<std::string> acceleratorIds;
    ForEach(look, "accelerators", "", {}, TilesInternalModel::Accelerators::ACCELERATOR_POSITION,
            [&](const CRecord& record) {
                Accelerator accelerator;
                accelerator.title = record.Text(Accelerators::ACCELERATOR_TITLE);
                accelerator.enabled = record.Text(Accelerators::ACCELERATOR_ENABLED) !=
                                      Accelerators::AcceleratorStatus::DISABLED;
                screen.push_back(std::move(accelerator));
                acceleratorIds.push_back(record.Text(Accelerators::_ID));
            });
    for (std::size_t i = 0; i < screen.size(); ++i) {
        std::vector<std::string> sectionIds;
        ForEach(look, "sections", Sections::SECTION_ACCELERATOR_RAW_ID + " = ?", {acceleratorIds[i]},
                Sections::SECTION_POSITION, [&](const CRecord& record) {
                    screen[i].sections.push_back({record.Text(Sections::SECTION_TITLE),
                                                  record.Text(Sections::SECTION_TITLE_DISPLAY_MODE),
                                                  {}});
                    sectionIds.push_back(record.Text(Sections::_ID));
                });
        for (std::size_t j = 0; j < sectionIds.size(); ++j) {
            ForEach(look, "tiles", Tiles::TILE_SECTION_RAW_ID + " = ?", {sectionIds[j]}, Tiles::TILE_POSITION,
                    [&](const CRecord& record) {
                        if (IsDisplayed(record, now)) {
                            screen[i].sections[j].tiles.push_back(ReadTile(record, now));
                        }
                    });
        }
    }
    return screen;
}

// ---- For a terminal -----------------------------------------------------------------------------------

namespace {

constexpr int CARD = 24;
constexpr int GAP = 1;
constexpr int MARGIN = 2;
// The frame and a blank on either side.
constexpr int FRAME = 4;

std::string Repeat(const std::string& text, int times) {
    std::string repeated;
    for (int i = 0; i < times; ++i) {
        repeated += text;
    }
    return repeated;
}

std::string Bar(double progress, int columns) {
    const int done = static_cast<int>(std::lround(progress * columns));
    return Repeat("━", done) + Dim(Repeat("─", columns - done));
}

std::string DrawSection(const Section& section, int width) {
    using Mode = std::string;
    const Mode& mode = section.displayMode;
    std::string title = Visible(section.title);
    std::string how;
    if (mode == Sections::SectionTitleDisplayMode::SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY) {
        how = ", title shown when highlighted";
    } else if (mode == Sections::SectionTitleDisplayMode::SECTION_TITLE_DISPLAY_MODE_ACCESSIBILITY_ONLY) {
        how = ", title spoken only";
    }
    const std::size_t fitting = static_cast<std::size_t>(std::max(1, (width - MARGIN + GAP) / (CARD + GAP)));
    const std::size_t shown = std::min(fitting, section.tiles.size());
    const std::string about = Count(section.tiles.size(), "tile") + how;
    std::string text = "\n" + std::string(MARGIN, ' ') +
                       Bold(Cut(title, std::max(8, width - MARGIN - 2 - DisplayWidth(about)))) + "  " +
                       Dim(about) + "\n";
    const bool withProgress =
        std::any_of(section.tiles.begin(), section.tiles.begin() + static_cast<long>(shown),
                    [](const Tile& tile) { return tile.progress >= 0; });
    std::vector<std::string> lines(withProgress ? 5 : 4, std::string(MARGIN, ' '));
    for (std::size_t i = 0; i < shown; ++i) {
        const Tile& tile = section.tiles[i];
        const int inside = CARD - FRAME;
        const std::string gap = i > 0 ? " " : "";
        std::size_t line = 0;
        lines[line++] += gap + Dim("╭" + Repeat("─", CARD - 2) + "╮");
        lines[line++] += gap + Dim("│") + " " + Fit(Visible(tile.title), inside) + " " + Dim("│");
        lines[line++] += gap + Dim("│") + " " + Dim(Fit(Visible(tile.subtitle), inside)) + " " + Dim("│");
        if (withProgress) {
            lines[line++] += gap + Dim("│") + " " +
                             (tile.progress >= 0 ? Bar(tile.progress, inside)
                                                 : std::string(static_cast<std::size_t>(inside), ' ')) +
                             " " + Dim("│");
        }
        lines[line++] += gap + Dim("╰" + Repeat("─", CARD - 2) + "╯");
    }
    for (const std::string& line : lines) {
        text += shown > 0 ? line + "\n" : "";
    }
    return text;
}

}  // namespace

std::string DrawText(const HomeScreen& screen, int width) {
    std::string text;
    for (const Accelerator& accelerator : screen) {
        const std::string title = Visible(accelerator.title) + (accelerator.enabled ? "" : " (off)");
        text += (text.empty() ? "" : "\n") + Accent("▌ " + Cut(title, width - 2)) + "\n" +
                Dim(Repeat("─", width)) + "\n";
        for (const Section& section : accelerator.sections) {
            text += DrawSection(section, width);
        }
    }
    return text;
}

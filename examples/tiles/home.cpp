// The home screen: asks the provider by content URI, fetches the results it stored, and draws them.

#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "Channel.h"
#include "ContentHelper.h"
#include "Screen.h"
#include "SharedQueryObject.h"
#include "TilesModel.h"
#include "VantryExtras.h"

using nlohmann::json;
namespace Accelerators = TilesModel::Accelerators;
namespace Sections = TilesModel::Sections;
namespace Tiles = TilesModel::Tiles;

namespace {

const char* const USAGE =
    "Usage: tiles_home --socket PATH [--all]\n"
    "\n"
    "Draws the home screen from the results that a tiles_provider hands over.\n"
    "\n"
    "  --socket PATH  where the provider is\n"
    "  --all          every tile of a section, not only the first ones\n"
    "  --help         this text\n"
    "\n"
    "Exit codes: 0 everything worked, 1 something failed, 2 wrong use.\n";

struct Totals {
    int results = 0;
    int rows = 0;
    long long bytes = 0;
    double fetchMilliseconds = 0;
};

std::string Text(const CRow& row, const std::string& column) {
    return row.Get<std::string>(column).ValueOr("");
}

// A row id, in the form of an argument.
std::string RowId(const CRow& row, const std::string& column) {
    return CContentHelper::ToSQLFormat(row.Get<long long>(column).ValueOr(-1));
}

class Client {
public:
    explicit Client(Channel& channel) : m_channel(channel) {}

    // Asks for rows and fetches them. Throws std::runtime_error.
    std::shared_ptr<ISQLiteCursor> Query(const std::string& uri, const std::vector<std::string>& projection,
                                         const std::string& selection,
                                         const std::vector<std::string>& arguments,
                                         const std::string& order) {
        const json request = {{"uri", uri},
                              {"projection", projection},
                              {"selection", selection},
                              {"arguments", arguments},
                              {"order", order}};
        std::string line;
        if (!m_channel.Send(request.dump()) || !m_channel.Receive(line)) {
            throw std::runtime_error("the provider has gone");
        }
        const json answer = json::parse(line);
        if (answer.contains("error")) {
            throw std::runtime_error(uri + ": " + answer.at("error").get<std::string>());
        }
        const int size = answer.at("size");
        const auto start = std::chrono::steady_clock::now();
        auto cursor = ISharedQueryObject::GetCursor(answer.at("name"), size);
        const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
        if (!cursor) {
            throw std::runtime_error(uri + ": the stored result is not there");
        }
        ++m_totals.results;
        m_totals.bytes += size;
        m_totals.rows += cursor->GetNumbersOfRows();
        m_totals.fetchMilliseconds += taken.count();
        return cursor;
    }

    const Totals& Sums() const { return m_totals; }

private:
    Channel& m_channel;
    Totals m_totals;
};

// The tiles of a result, read forward; the way back must meet the same ones.
std::vector<Screen::Tile> ReadTiles(const std::shared_ptr<ISQLiteCursor>& cursor) {
    std::vector<Screen::Tile> tiles;
    const std::string scheme = "https://";
    for (auto row : CRows(cursor)) {
        std::string address = Text(row, Tiles::TILE_ACTION_DETAILS);
        if (address.compare(0, scheme.size(), scheme) == 0) {
            address.erase(0, scheme.size());
        }
        tiles.push_back({Text(row, Tiles::TILE_TITLE), Text(row, Tiles::TILE_SUBTITLE), address});
    }
    std::size_t met = tiles.empty() ? 0 : 1;
    while (cursor->MovePreviousStep() == 0) {
        ++met;
        if (Text(CRow(*cursor), Tiles::TILE_TITLE) != tiles[tiles.size() - met].title) {
            throw std::runtime_error("the way back met other tiles than the way there");
        }
    }
    if (met != tiles.size()) {
        throw std::runtime_error("the way back met another number of tiles than the way there");
    }
    return tiles;
}

void Draw(Client& client, const Screen& screen, std::size_t shown, std::size_t& tileCount) {
    CRows accelerators(
        client.Query(Accelerators::CONTENT_URI,
                     {Accelerators::_ID, Accelerators::ACCELERATOR_TITLE, Accelerators::ACCELERATOR_ENABLED},
                     "", {}, TilesInternalModel::Accelerators::ACCELERATOR_POSITION));
    for (auto accelerator : accelerators) {
        screen.Accelerator(Text(accelerator, Accelerators::ACCELERATOR_TITLE),
                           accelerator.Get<bool>(Accelerators::ACCELERATOR_ENABLED).ValueOr(false));
        CRows sections(client.Query(Sections::CONTENT_URI, {Sections::_ID, Sections::SECTION_TITLE},
                                    Sections::SECTION_ACCELERATOR_RAW_ID + "=?",
                                    {RowId(accelerator, Accelerators::_ID)}, Sections::SECTION_POSITION));
        for (auto section : sections) {
            const auto tiles =
                ReadTiles(client.Query(Tiles::CONTENT_URI, {}, Tiles::TILE_SECTION_RAW_ID + "=?",
                                       {RowId(section, Sections::_ID)}, Tiles::TILE_POSITION));
            tileCount += tiles.size();
            screen.Section(Text(section, Sections::SECTION_TITLE), tiles, shown);
        }
    }
}

int TerminalWidth() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    return 120;
}

}  // namespace

int main(int count, char** values) {
    std::string socket;
    std::size_t shown = 5;
    for (int i = 1; i < count; ++i) {
        if (std::strcmp(values[i], "--help") == 0) {
            std::fputs(USAGE, stdout);
            return 0;
        }
        if (std::strcmp(values[i], "--all") == 0) {
            shown = static_cast<std::size_t>(-1);
        } else if (std::strcmp(values[i], "--socket") == 0 && i + 1 < count) {
            socket = values[++i];
        } else {
            socket.clear();
            break;
        }
    }
    if (socket.empty()) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    // For the widths of characters only; texts stay UTF-8 as they are.
    std::setlocale(LC_CTYPE, "C.UTF-8");
    try {
        const auto start = std::chrono::steady_clock::now();
        Channel channel = Channel::Connect(socket, 60);
        Client client(channel);
        const bool coloured = isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr;
        const Screen screen(TerminalWidth(), coloured);
        std::size_t tiles = 0;
        Draw(client, screen, shown, tiles);
        if (tiles == 0) {
            throw std::runtime_error("the home screen has no tiles");
        }
        const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
        const Totals& totals = client.Sums();
        std::printf(
            "\nHome screen: %zu tiles, walked forward and backward, from %d results (%d rows, %lld bytes),\n"
            "fetched in %.2f ms; everything in %.1f ms.\n",
            tiles, totals.results, totals.rows, totals.bytes, totals.fetchMilliseconds, taken.count());
        std::fflush(stdout);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tiles_home: %s\n", error.what());
        return 1;
    }
}

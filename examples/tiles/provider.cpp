// The provider: owns the tiles database and answers the home screen's requests with stored results.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "Catalogue.h"
#include "Channel.h"
#include "SharedQueryObject.h"
#include "TilesDAO.h"
#include "TilesModel.h"
#include "TilesStore.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

const char* const USAGE =
    "Usage: tiles_provider --catalogue FILE --directory DIR --socket PATH\n"
    "\n"
    "Makes the tiles database of a home screen from a catalogue, backs it up, repairs a damaged copy, and "
    "answers\n"
    "the requests of one tiles_home over the socket.\n"
    "\n"
    "  --catalogue FILE  the content, as JSON\n"
    "  --directory DIR   where the database is made\n"
    "  --socket PATH     where tiles_home finds the provider\n"
    "  --help            this text\n"
    "\n"
    "Exit codes: 0 everything worked, 1 something failed, 2 wrong use.\n";

struct Options {
    std::string catalogue, directory, socket;
};

class Stopwatch {
public:
    double Milliseconds() const {
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - m_start).count();
    }

private:
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

void Say(const char* line) {
    std::puts(line);
    std::fflush(stdout);
}

template <typename... Arguments>
void Say(const char* format, Arguments... arguments) {
    std::printf(format, arguments...);
    Say("");
}

void Fill(TilesStore& store, const Catalogue& catalogue) {
    const Stopwatch watch;
    const TilesStore::Written written = store.Fill(catalogue);
    Say("  filled     %d rows inserted, %d updated, %d deleted in one transaction  (%.1f ms)",
        written.inserted, written.updated, written.deleted, watch.Milliseconds());
}

void BackUp(TilesStore& store) {
    const Stopwatch watch;
    store.BackUp();
    Say("  backed up  %ju KiB to %s%s, sound before and after  (%.1f ms)",
        static_cast<std::uintmax_t>(fs::file_size(store.File()) / 1024), TilesStore::NAME,
        CContentHelper::DB_BACKUP_POSTFIX.c_str(), watch.Milliseconds());
}

// Overwrites every page of the file but the first: what a failing flash part does.
void Damage(const std::string& file) {
    constexpr std::size_t PAGE = 4096;
    std::fstream bytes(file, std::ios::in | std::ios::out | std::ios::binary);
    const std::string rubbish(PAGE, '\xA5');
    for (std::uintmax_t offset = PAGE; offset + PAGE <= fs::file_size(file); offset += PAGE) {
        bytes.seekp(static_cast<std::streamoff>(offset));
        bytes.write(rubbish.data(), PAGE);
    }
    bytes.flush();
    if (!bytes) {
        throw std::runtime_error(file + " cannot be overwritten");
    }
}

// A copy of the database is damaged, found out, and repaired from its side file.
void DamageAndRestore(const TilesStore& store, const std::string& directory) {
    fs::create_directories(directory);
    for (const char* suffix : {"", CContentHelper::DB_BACKUP_POSTFIX.c_str()}) {
        fs::copy_file(store.File() + suffix, directory + TilesStore::NAME + suffix,
                      fs::copy_options::overwrite_existing);
    }
    TilesStore copy(directory);
    Damage(copy.File());

    const Stopwatch probing;
    Say("  damaged    a copy of it, on purpose; asking ten times whether it is sound ...");
    if (copy.ConnectDB() == nullptr || !copy.CheckDBCorruption()) {
        throw std::runtime_error("the damage was not found");
    }
    Say("  found out  the copy is corrupted  (%.1f ms)", probing.Milliseconds());

    const Stopwatch restoring;
    CVantryConnection side("", copy.File() + CContentHelper::DB_BACKUP_POSTFIX, 1);
    if (side.OpenOperation() != 0 || !side.IntegrityCheck()) {
        throw std::runtime_error("the side file is not sound, so nothing is restored from it");
    }
    side.CloseDB();
    // True means that the file was copied; whether it is sound is asked after the connection is open again.
    if (!copy.RestoreDB(CContentHelper::BACKUP_STAGE_FIRST) || !copy.Reconnect() ||
        copy.CheckDBCorruption()) {
        throw std::runtime_error("the restore failed");
    }
    std::vector<std::string> tables;
    if (!copy.CheckValidData("accelerators") || !copy.CheckValidTables(tables) || tables.size() != 3) {
        throw std::runtime_error("the restored copy lacks data");
    }
    Say("  restored   the copy from its side file: sound again, %zu tables with data  (%.1f ms)",
        tables.size(), restoring.Milliseconds());
}

// The device's own data-access object has a fixed path, which is made when this process may, and taken away again.
void ShowFixedPath(const TilesStore& store) {
    const fs::path place = CTilesDAO::TILES_DB_PATH;
    const fs::path file = place / CTilesDAO::TILES_DB_NAME;
    std::error_code error;
    if (fs::exists(file, error)) {
        Say("  CTilesDAO  left alone: there is a tiles database at its fixed path");
        return;
    }
    fs::path firstMade;
    for (fs::path path = place.parent_path(); !fs::exists(path, error); path = path.parent_path()) {
        firstMade = path;
    }
    if (!fs::create_directories(place, error) && error) {
        Say("  CTilesDAO  not shown: its fixed path %s cannot be made (%s)", place.c_str(),
            error.message().c_str());
        return;
    }
    const bool copied = fs::copy_file(store.File(), file, error);
    int tiles = -1;
    if (copied) {
        CTilesDAO dao("", "", 0);
        PT_CONSUMER_SELECT_IN_PARAM in;
        PT_CONSUMER_SELECT_OUT_PARAM out;
        in.uri = TilesModel::Tiles::CONTENT_URI;
        in.projection = {"count(*)"};
        if (dao.SelectQuery(in, out) && out.cursor && out.cursor->MoveNextStep() == 0) {
            out.cursor->GetIntegerData(0, tiles);
        }
    }
    fs::remove(file, error);
    if (!firstMade.empty()) {
        fs::remove_all(firstMade, error);
    }
    if (!copied || tiles < 1) {
        throw std::runtime_error("CTilesDAO did not answer from its fixed path");
    }
    Say("  CTilesDAO  counts %d tiles at its fixed path", tiles);
}

// Answers a request: a content URI and the clauses of a query, by the name and size of a stored result.
json Answer(TilesStore& store, const json& request, double& storeMilliseconds) {
    const std::string table = CContentHelper::GetTableNameFromUri(request.at("uri"));
    CVantryConnection* const connection = store.GetConnection();
    if (connection == nullptr) {
        return {{"error", "the database cannot be opened"}};
    }
    const auto cursor = connection->SelectRequest(
        table, request.at("projection").get<std::vector<std::string>>(), request.at("selection"),
        request.at("arguments").get<std::vector<std::string>>(), request.at("order"), "");
    if (!cursor) {
        return {{"error", "the query failed: " + table}};
    }
    // The number of rows is known to a cursor that has seen its end; this one has been preloaded.
    const Stopwatch watch;
    std::string name;
    int size = 0;
    const std::string key = "tiles" + CContentHelper::ToSQLFormat(static_cast<int>(getpid())) + "-";
    const int result = ISharedQueryObject::StoreCursor(cursor, key, name, size);
    storeMilliseconds += watch.Milliseconds();
    if (result != 0) {
        return {{"error", "the result cannot be stored: " + CContentHelper::ToSQLFormat(result)}};
    }
    return {{"name", name}, {"size", size}};
}

void Serve(TilesStore& store, const std::string& socket) {
    Channel channel = Channel::Serve(socket, 60, [] { Say("  waiting    for the home screen"); });
    std::string line;
    int answers = 0;
    long long bytes = 0;
    double storing = 0;
    while (channel.Receive(line)) {
        json answer;
        try {
            answer = Answer(store, json::parse(line), storing);
        } catch (const json::exception& error) {
            answer = {{"error", error.what()}};
        }
        if (answer.contains("size")) {
            ++answers;
            bytes += answer.at("size").get<int>();
        }
        // Nobody will fetch what nobody was told of.
        if (!channel.Send(answer.dump()) && answer.contains("name")) {
            ISharedQueryObject::GetCursor(answer.at("name"), answer.at("size"));
        }
    }
    Say("Provider: stored %d results of %lld bytes in %.2f ms.", answers, bytes, storing);
}

bool Parse(int count, char** values, Options& options) {
    for (int i = 1; i + 1 < count; i += 2) {
        if (std::strcmp(values[i], "--catalogue") == 0) {
            options.catalogue = values[i + 1];
        } else if (std::strcmp(values[i], "--directory") == 0) {
            options.directory = std::string(values[i + 1]) + "/";
        } else if (std::strcmp(values[i], "--socket") == 0) {
            options.socket = values[i + 1];
        } else {
            return false;
        }
    }
    return count % 2 == 1 && !options.catalogue.empty() && !options.directory.empty() &&
           !options.socket.empty();
}

}  // namespace

int main(int count, char** values) {
    if (count == 2 && std::strcmp(values[1], "--help") == 0) {
        std::fputs(USAGE, stdout);
        return 0;
    }
    Options options;
    if (!Parse(count, values, options)) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    try {
        const Catalogue catalogue = Catalogue::Load(options.catalogue);
        fs::create_directories(options.directory);
        TilesStore store(options.directory);
        Say("Provider: %zu accelerators, %zu sections and %zu tiles in the catalogue.",
            catalogue.accelerators.size(), catalogue.sections.size(), catalogue.tiles.size());
        Fill(store, catalogue);
        BackUp(store);
        DamageAndRestore(store, options.directory + "damaged/");
        ShowFixedPath(store);
        Serve(store, options.socket);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tiles_provider: %s\n", error.what());
        return 1;
    }
}

#pragma once

#include <functional>
#include <string>

namespace support {

// SQLite's default file system while it lives: maps one directory to another, tells what is asked of it, and
// passes everything on to the one that was the default before. One at a time; connections that were opened
// meanwhile must be closed before it goes.
class MappedVfs {
public:
    enum class Call { Open, Delete, Write, Sync };
    // Called before each call, with the file's path; any answer but SQLITE_OK is given in the call's place.
    using Observer = std::function<int(Call call, const std::string& path)>;

    // A path that begins with `from` is looked for under `to` instead; both end in a slash. An empty `from`
    // maps nothing.
    MappedVfs(const std::string& from, const std::string& to, Observer observer = {});
    explicit MappedVfs(Observer observer = {}) : MappedVfs("", "", std::move(observer)) {}
    MappedVfs(const MappedVfs&) = delete;
    MappedVfs& operator=(const MappedVfs&) = delete;
    ~MappedVfs();

    // Database files that are open now, and the most that were open at one time.
    int OpenFiles() const;
    int MostOpenFiles() const;
};

}  // namespace support

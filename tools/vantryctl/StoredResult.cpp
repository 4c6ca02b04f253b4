#include "StoredResult.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ByteIO.h"
#include "Command.h"
#include "Descriptor.h"
#include "Processes.h"
#include "SharedQueryObject.h"
#include "Text.h"

using vantry::ByteReader;

namespace {

// Where the C library keeps POSIX shared memory.
constexpr const char* DIRECTORY = "/dev/shm";
// What the library stores at most, its length word included.
constexpr std::size_t MAX_SIZE = 2098175;
constexpr std::size_t FIELD = 4;
constexpr int INTEGER = 1;
constexpr int REAL = 2;
constexpr int TEXT = 3;
constexpr int BLOB = 4;
constexpr int NUMBER_BYTES = 8;

// Neither follows a link nor waits for a pipe.
int OpenObject(const std::string& name) {
    return open((DIRECTORY + name).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
}

std::string OwnerName(uid_t user) {
    const passwd* const entry = getpwuid(user);
    return entry != nullptr ? entry->pw_name : std::to_string(user);
}

std::string KindOf(mode_t mode) {
    if (S_ISLNK(mode)) {
        return "a symbolic link";
    }
    if (S_ISDIR(mode)) {
        return "a directory";
    }
    if (S_ISFIFO(mode)) {
        return "a pipe";
    }
    return S_ISSOCK(mode) ? "a socket" : "a device";
}

// The last number in a key: a provider that may be restarted puts its process there.
long ProcessIn(const std::string& key) {
    const std::size_t last = key.find_last_of("0123456789");
    if (last == std::string::npos) {
        return 0;
    }
    const std::size_t before = key.find_last_not_of("0123456789", last);
    const std::size_t first = before == std::string::npos ? 0 : before + 1;
    // More digits than a process id has.
    return last - first < 9 ? std::strtol(key.c_str() + first, nullptr, 10) : 0;
}

// A process is gone, too, when its number has been given to another one since.
bool IsGone(long process, std::time_t written) {
    return process > 0 && (!IsAlive(process) || StartOf(process) > written + 1);
}

std::string ReadBytes(int descriptor, std::size_t size) {
    std::string bytes(size, '\0');
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = pread(descriptor, bytes.data() + done, size - done, static_cast<off_t>(done));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    bytes.resize(done);
    return bytes;
}

bool TakeInt(ByteReader& reader, std::int32_t& value) {
    if (!reader.Has(FIELD)) {
        return false;
    }
    value = reader.TakeInt();
    return true;
}

bool TakeName(ByteReader& reader, std::string& name) {
    std::int32_t length = 0;
    if (!TakeInt(reader, length) || length < 0 || !reader.Has(static_cast<std::size_t>(length))) {
        return false;
    }
    const auto size = static_cast<std::size_t>(length);
    const char* const bytes = reader.Take(size);
    name.assign(bytes, strnlen(bytes, size));
    return true;
}

bool TakeCell(ByteReader& reader) {
    std::int32_t type = 0;
    std::int32_t length = 0;
    if (!TakeInt(reader, type) || !TakeInt(reader, length) || length < 0) {
        return false;
    }
    const bool plausible = type == TEXT || type == BLOB      ? length >= 1
                           : type == INTEGER || type == REAL ? length == NUMBER_BYTES
                                                             : type >= TEXT;
    if (!plausible || !reader.Has(static_cast<std::size_t>(length))) {
        return false;
    }
    reader.Take(static_cast<std::size_t>(length));
    return true;
}

// Walks over the block as the library's reader does. Returns what is wrong with it; empty when nothing is.
std::string Walk(StoredResult& result) {
    ByteReader reader(result.block.data(), result.block.size());
    std::int32_t columns = 0;
    std::int32_t rows = 0;
    if (!TakeInt(reader, columns) || !TakeInt(reader, rows)) {
        return "it ends before its counts do";
    }
    if (columns < 0 || rows < 0) {
        return "its counts are negative";
    }
    result.columns = columns;
    result.rows = rows;
    // A result without rows has no names.
    if (rows == 0 && reader.Remaining() == 0) {
        return {};
    }
    for (std::int32_t i = 0; i < columns; ++i) {
        std::string name;
        if (!TakeName(reader, name)) {
            return "it says " + Count(static_cast<std::uint64_t>(columns), "column") + ", and the names of " +
                   Grouped(static_cast<std::uint64_t>(i)) + " are there";
        }
        result.columnNames.push_back(std::move(name));
    }
    if (rows == 0) {
        return "it was stored before its end was reached, so that no row can be fetched";
    }
    for (; result.wholeRows < rows; ++result.wholeRows) {
        if (columns == 0 || reader.Remaining() == 0) {
            break;
        }
        for (std::int32_t i = 0; i < columns; ++i) {
            if (!TakeCell(reader)) {
                return "it says " + Count(static_cast<std::uint64_t>(rows), "row") + ", and " +
                       Grouped(static_cast<std::uint64_t>(result.wholeRows)) + " are whole";
            }
        }
    }
    if (result.wholeRows < rows) {
        return "it says " + Count(static_cast<std::uint64_t>(rows), "row") + ", and " +
               Grouped(static_cast<std::uint64_t>(result.wholeRows)) + " are there";
    }
    return {};
}

// Reads the object's bytes. Returns what is wrong with them; empty when nothing is.
std::string Read(int descriptor, StoredResult& result) {
    const std::string bytes =
        ReadBytes(descriptor, result.size < MAX_SIZE ? static_cast<std::size_t>(result.size) : MAX_SIZE);
    if (bytes.size() < FIELD) {
        return result.size == 0 ? "it is empty" : "it is too short for a length word";
    }
    ByteReader reader(bytes.data(), bytes.size());
    const std::int32_t length = reader.TakeInt();
    const std::size_t there = bytes.size() - FIELD;
    if (length < 0) {
        return "its length word is negative";
    }
    result.block = bytes.substr(FIELD, static_cast<std::size_t>(length));
    std::string wrong = Walk(result);
    if (!wrong.empty()) {
        return wrong;
    }
    if (static_cast<std::size_t>(length) > there) {
        return "its length word says " + Bytes(static_cast<std::uint64_t>(length)) + ", and " + Bytes(there) +
               " follow";
    }
    return {};
}

}  // namespace

std::string StoredResult::StateName() const {
    switch (state) {
        case State::Waiting:
            return "waiting";
        case State::Orphaned:
            return "orphaned";
        case State::Damaged:
            return "damaged";
        case State::Unreadable:
            return "unreadable";
        case State::Foreign:
        default:
            return "foreign";
    }
}

std::vector<std::string> ListStoredResults(const std::string& key) {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(DIRECTORY), closedir);
    if (directory == nullptr) {
        throw CFailure(std::string("cannot look into ") + DIRECTORY +
                       ": this system keeps no shared memory there");
    }
    const std::string wanted = CSharedQueryObject::SHM_PREFIX.substr(1) + key;
    std::vector<std::string> names;
    while (const dirent* const entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (name.compare(0, wanted.size(), wanted) == 0) {
            names.push_back("/" + name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool LookAtStoredResult(const std::string& name, StoredResult& result) {
    result = StoredResult();
    result.name = name;
    const std::string rest = name.substr(CSharedQueryObject::SHM_PREFIX.size());
    const std::size_t keyEnd = rest.find_last_not_of("0123456789");
    result.key = keyEnd == std::string::npos ? "" : rest.substr(0, keyEnd + 1);
    result.id = rest.substr(result.key.size());

    struct stat status {};
    if (lstat((DIRECTORY + name).c_str(), &status) != 0) {
        return false;
    }
    const auto describe = [&result](const struct stat& from) {
        result.size = static_cast<std::uint64_t>(from.st_size);
        result.written = from.st_mtime;
        result.owner = OwnerName(from.st_uid);
    };
    describe(status);
    if (!S_ISREG(status.st_mode)) {
        result.state = StoredResult::State::Foreign;
        result.note = "it is " + KindOf(status.st_mode) + " and no stored result";
        return true;
    }
    const CDescriptor descriptor(OpenObject(name));
    if (descriptor.Number() < 0) {
        if (errno == ENOENT) {
            return false;
        }
        result.state = StoredResult::State::Unreadable;
        result.note = "it belongs to " + Visible(result.owner) + ", who alone may read it";
        return true;
    }
    // It may be another one by now.
    if (fstat(descriptor.Number(), &status) != 0 || !S_ISREG(status.st_mode)) {
        result.state = StoredResult::State::Foreign;
        result.note = "it changed while it was looked at";
        return true;
    }
    describe(status);
    result.process = ProcessIn(result.key);
    result.processGone = IsGone(result.process, result.written);
    result.note = Read(descriptor.Number(), result);
    if (!result.note.empty()) {
        result.state = StoredResult::State::Damaged;
    } else if (result.processGone) {
        result.state = StoredResult::State::Orphaned;
        result.note = "its process " + std::to_string(result.process) + " is gone";
    }
    return true;
}

std::string RemoveStoredResult(const StoredResult& result) {
    const CDescriptor descriptor(OpenObject(result.name));
    struct stat status {};
    if (descriptor.Number() >= 0) {
        if (fstat(descriptor.Number(), &status) != 0 || status.st_mtime != result.written ||
            static_cast<std::uint64_t>(status.st_size) != result.size) {
            return "it was stored anew meanwhile";
        }
        // A consumer holds this lock while it reads.
        if (flock(descriptor.Number(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
            return "it is being fetched";
        }
    } else if (errno == ENOENT) {
        return {};
    }
    if (shm_unlink(result.name.c_str()) != 0 && errno != ENOENT) {
        return errno == EACCES || errno == EPERM ? "permission denied" : "the system refuses it";
    }
    return {};
}

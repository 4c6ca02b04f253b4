#include "Ledger.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "Fixtures.h"

namespace reliability {

namespace {

constexpr int PARTS = 5;
constexpr long WINDOW = 20;

// From a few bytes to two pages.
std::string Text(long number, int part) {
    Random random(static_cast<std::uint64_t>(number) * PARTS + static_cast<std::uint64_t>(part));
    random.Next();
    const long length = part == 0 ? 4000 + random.Below(5000) : 10 + random.Below(600);
    std::string text;
    while (static_cast<long>(text.size()) < length) {
        text += std::to_string(random.Next());
    }
    return text;
}

}  // namespace

bool Ledger::Open(CVantryConnection& connection, const std::string& journal) {
    std::string error;
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = journal.find(';', begin)) != std::string::npos; begin = end + 1) {
        if (connection.ExcuteSQL(journal.substr(begin, end - begin), error) != 0) {
            return false;
        }
    }
    // One transaction, or a kill between the two would leave a ledger without its row.
    return Last(connection) >= 0 ||
           connection.ExcuteSQL(
               "BEGIN IMMEDIATE;"
               "CREATE TABLE IF NOT EXISTS ledger (last INTEGER);"
               "CREATE TABLE IF NOT EXISTS rows (number INTEGER, part INTEGER, text TEXT);"
               "CREATE INDEX IF NOT EXISTS by_number ON rows (number);"
               "INSERT INTO ledger SELECT 0 WHERE NOT EXISTS (SELECT 1 FROM ledger);"
               "COMMIT;",
               error) == 0;
}

bool Ledger::Write(CVantryConnection& connection, long number) {
    std::string error;
    const std::string name = std::to_string(number);
    if (connection.ExcuteSQL("BEGIN IMMEDIATE;", error) != 0) {
        return false;
    }
    bool good = true;
    for (int part = 0; part < PARTS && good; ++part) {
        const std::string text = Text(number, part);
        const support::Bundle row{
            {"number", name.c_str()}, {"part", std::to_string(part).c_str()}, {"text", text.c_str()}};
        good = connection.InsertRequest("rows", row) == 0;
    }
    good = good && connection.UpdateRequest("ledger", support::Bundle{{"last", name.c_str()}}, "", {}) == 0;
    good = good && connection.DeleteRequest("rows", "number <= ?", {std::to_string(number - WINDOW)}) == 0;
    if (good && connection.ExcuteSQL("COMMIT;", error) == 0) {
        return true;
    }
    connection.ExcuteSQL("ROLLBACK;", error);
    return false;
}

long Ledger::Last(CVantryConnection& connection) {
    const auto cursor = connection.SelectRequest("ledger", {"last"}, "", "");
    long long last = -1;
    if (cursor == nullptr || cursor->MoveNextStep() != 0 || cursor->GetInteger64Data(0, last) != 0) {
        return -1;
    }
    return static_cast<long>(last);
}

long Ledger::Inspect(const std::string& path, const std::string& name, std::string& fault) {
    CVantryConnection connection(path, name, 2);
    if (connection.OpenOperation() != 0) {
        fault = "the database does not open";
        return -1;
    }
    if (!connection.IntegrityCheck()) {
        fault = "the integrity check fails";
        return -1;
    }
    const long last = Last(connection);
    if (last < 0) {
        fault = "the ledger cannot be read";
        return -1;
    }
    // Stepped, not preloaded: only its code says that this is all.
    const auto cursor = connection.SelectRequest("rows", {}, "", "number, part", false);
    if (cursor == nullptr) {
        fault = "the rows cannot be read";
        return -1;
    }
    int code = 0;
    long number = last > WINDOW ? last - WINDOW + 1 : 1;
    int part = 0;
    while ((code = cursor->MoveNextStep()) == 0) {
        long long numberThere = 0;
        int partThere = 0;
        std::string text;
        cursor->GetInteger64Data(0, numberThere);
        cursor->GetIntegerData(1, partThere);
        cursor->GetStringData(2, text);
        if (numberThere != number || partThere != part || text != Text(number, part)) {
            fault = "the ledger is at " + std::to_string(last) + "; instead of row " +
                    std::to_string(number) + "." + std::to_string(part) + " there is " +
                    std::to_string(numberThere) + "." + std::to_string(partThere) + " with " +
                    std::to_string(text.size()) + " bytes";
            return -1;
        }
        part = part == PARTS - 1 ? 0 : part + 1;
        number += part == 0 ? 1 : 0;
    }
    if (code != -34 || number != last + 1 || part != 0) {
        fault = "the ledger is at " + std::to_string(last) + "; the rows end before " +
                std::to_string(number) + "." + std::to_string(part) + " with code " + std::to_string(code);
        return -1;
    }
    return last;
}

std::uint64_t Random::Next() {
    // SplitMix64: one addition and three mixes, the same on every machine.
    m_state += 0x9E3779B97F4A7C15U;
    std::uint64_t mixed = m_state;
    mixed = (mixed ^ (mixed >> 30U)) * 0xBF58476D1CE4E5B9U;
    mixed = (mixed ^ (mixed >> 27U)) * 0x94D049BB133111EBU;
    return mixed ^ (mixed >> 31U);
}

Arguments::Arguments(int count, char** texts, const std::string& usage)
    : m_usage(usage), m_count(count), m_texts(texts) {
    if (count > 1 && std::strcmp(texts[1], "--help") == 0) {
        std::printf("%s", usage.c_str());
        std::exit(0);
    }
}

std::string Arguments::Text(const std::string& name, const std::string& standard) {
    for (int i = 1; i + 1 < m_count; i += 2) {
        if (name == m_texts[i]) {
            m_asked += 2;
            return m_texts[i + 1];
        }
    }
    return standard;
}

long Arguments::Number(const std::string& name, long standard) {
    const std::string text = Text(name, std::to_string(standard));
    char* end = nullptr;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || number < 0) {
        std::fprintf(stderr, "%s needs a number\n%s", name.c_str(), m_usage.c_str());
        std::exit(2);
    }
    return number;
}

void Arguments::Finish() {
    if (static_cast<int>(m_asked) != m_count - 1) {
        std::fprintf(stderr, "%s", m_usage.c_str());
        std::exit(2);
    }
}

}  // namespace reliability

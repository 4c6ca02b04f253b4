#pragma once

#include <cstdint>
#include <string>

#include "VantryConnection.h"

namespace reliability {

// A database whose content tells which transactions it holds, and whether each is whole.
//
// Transaction n inserts five rows with texts that follow from n, writes n into the one row of `ledger`, and deletes
// the rows of transaction n - 20. So a sound ledger holds the last twenty transactions up to the one that it names.
class Ledger {
public:
    // Makes the tables, unless they are there. `journal` is a list of pragmas for the connection, each ended by ";".
    static bool Open(CVantryConnection& connection, const std::string& journal);
    // Makes transaction `number` through the library. True when the commit was acknowledged; else it is rolled back.
    static bool Write(CVantryConnection& connection, long number);
    // The last transaction of an open ledger; -1 when it cannot be read.
    static long Last(CVantryConnection& connection);
    // Opens a ledger, and looks at all of it. Gives its last transaction; -1 when something is wrong, and what.
    static long Inspect(const std::string& path, const std::string& name, std::string& fault);
};

// Random numbers that are the same everywhere.
class Random {
public:
    explicit Random(std::uint64_t seed) : m_state(seed) {}
    std::uint64_t Next();
    // From 0 to bound - 1.
    long Below(long bound) { return static_cast<long>(Next() % static_cast<std::uint64_t>(bound)); }

private:
    std::uint64_t m_state;
};

// What the programs for long runs are told: --runs N, --seed N, --journal NAME, and so on; a bad one ends the
// program with code 2.
class Arguments {
public:
    Arguments(int count, char** texts, const std::string& usage);
    long Number(const std::string& name, long standard);
    std::string Text(const std::string& name, const std::string& standard);
    // Ends the program when an argument was given that nobody asked for.
    void Finish();

private:
    std::string m_usage;
    std::string m_rest;
    int m_count;
    char** m_texts;
    unsigned m_asked = 0;
};

}  // namespace reliability

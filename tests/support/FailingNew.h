#pragma once

namespace support {

// Which allocations fail.
enum class Shortage {
    // The n-th one of operator new only, all forms.
    OneOfNew,
    // The n-th one of operator new and all that follow.
    AllOfNew,
    // The n-th one of SQLite's allocator only.
    OneOfSqlite,
    // The n-th one of SQLite's allocator and all that follow.
    AllOfSqlite,
};

// Lets allocations of this thread fail while it lives. Put it round one call of the library: everything that the
// call makes counts, in the library itself and in the C++ library, but for the tests' own functions that it calls.
// A program that links this file has its operator new replaced.
class FailingNew {
public:
    // `number` counts from 1.
    FailingNew(Shortage shortage, int number);
    FailingNew(const FailingNew&) = delete;
    FailingNew& operator=(const FailingNew&) = delete;
    ~FailingNew() { Stop(); }

    // Ends the shortage early: for a call whose arguments or result outlive it.
    void Stop();
    // Allocations that failed.
    int Failed() const;
    // What the whole program has of operator new and has not released.
    static int Pieces();
};

}  // namespace support

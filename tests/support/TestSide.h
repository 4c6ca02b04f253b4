#pragma once

namespace support {

// Marks, while it lives, that this thread runs the tests' own code in the place of a function that the library
// called: shortages that are meant for the library (FailingNew.h) pass it by.
class TestSide {
public:
    TestSide() { ++depth; }
    TestSide(const TestSide&) = delete;
    TestSide& operator=(const TestSide&) = delete;
    ~TestSide() { --depth; }

    static bool Runs() { return depth > 0; }

private:
    static inline thread_local int depth = 0;
};

}  // namespace support

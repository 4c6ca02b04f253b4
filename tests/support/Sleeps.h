#pragma once

#include <functional>
#include <vector>

namespace support {

// Counts the library's calls of usleep() while it lives, and lets none of them wait.
class Sleeps {
public:
    // `onSleep` is called at every sleep with its number, from 1: the place to release a lock, say.
    explicit Sleeps(std::function<void(int)> onSleep = {});
    Sleeps(const Sleeps&) = delete;
    Sleeps& operator=(const Sleeps&) = delete;
    ~Sleeps();

    int Count() const;
    // Whether every sleep lasted that many microseconds.
    bool AllOf(unsigned microseconds) const;
};

}  // namespace support

#include "Sleeps.h"

#include <unistd.h>

#include <algorithm>
#include <mutex>

#include "FromLibrary.h"
#include "TestSide.h"

namespace {

std::mutex g_mutex;
bool g_active = false;
std::vector<unsigned> g_sleeps;
std::function<void(int)> g_onSleep;

}  // namespace

extern "C" int usleep(useconds_t microseconds) {
    const support::TestSide here;
    if (support::FromLibrary(__builtin_return_address(0))) {
        std::function<void(int)> onSleep;
        int number = 0;
        {
            const std::lock_guard<std::mutex> guard(g_mutex);
            if (g_active) {
                g_sleeps.push_back(microseconds);
                number = static_cast<int>(g_sleeps.size());
                onSleep = g_onSleep;
            }
        }
        if (number > 0) {
            if (onSleep) {
                onSleep(number);
            }
            return 0;
        }
    }
    static const auto real = reinterpret_cast<int (*)(useconds_t)>(support::NextSymbol("usleep"));
    return real(microseconds);
}

namespace support {

Sleeps::Sleeps(std::function<void(int)> onSleep) {
    const std::lock_guard<std::mutex> guard(g_mutex);
    g_sleeps.clear();
    g_onSleep = std::move(onSleep);
    g_active = true;
}

Sleeps::~Sleeps() {
    const std::lock_guard<std::mutex> guard(g_mutex);
    g_active = false;
    g_onSleep = {};
}

int Sleeps::Count() const {
    const std::lock_guard<std::mutex> guard(g_mutex);
    return static_cast<int>(g_sleeps.size());
}

bool Sleeps::AllOf(unsigned microseconds) const {
    const std::lock_guard<std::mutex> guard(g_mutex);
    return std::all_of(g_sleeps.begin(), g_sleeps.end(),
                       [microseconds](unsigned sleep) { return sleep == microseconds; });
}

}  // namespace support

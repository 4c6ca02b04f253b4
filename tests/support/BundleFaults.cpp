#include "BundleFaults.h"

#include <bundle.h>

#include <algorithm>
#include <vector>

#include "FromLibrary.h"
#include "TestSide.h"

namespace {

struct State {
    bool active = false;
    bool tellsCount = false;
    int count = 0;
    bool backwards = false;
    int type = 0;
    bool twice = false;
    bool halves = false;
    const char* text = nullptr;
};
State g_state;

struct Entry {
    const char* key;
    int type;
    const keyval_t* value;
};

void Collect(const char* key, const int type, const keyval_t* value, void* entries) {
    static_cast<std::vector<Entry>*>(entries)->push_back({key, type, value});
}

}  // namespace

#define REAL(function) \
    static const auto real = reinterpret_cast<decltype(&function)>(support::NextSymbol(#function))
#define CHANGED (g_state.active && support::FromLibrary(__builtin_return_address(0)))

extern "C" {

int bundle_get_count(bundle* b) {
    REAL(bundle_get_count);
    return CHANGED && g_state.tellsCount ? g_state.count : real(b);
}

void bundle_foreach(bundle* b, bundle_iterator_t iterator, void* user_data) {
    REAL(bundle_foreach);
    if (!CHANGED) {
        real(b, iterator, user_data);
        return;
    }
    std::vector<Entry> entries;
    {
        const support::TestSide here;
        real(b, Collect, &entries);
        if (g_state.twice) {
            const std::vector<Entry> once = entries;
            entries.insert(entries.end(), once.begin(), once.end());
        }
    }
    if (g_state.backwards) {
        std::reverse(entries.begin(), entries.end());
    }
    for (const Entry& entry : entries) {
        const int type = g_state.type != 0 ? g_state.type : entry.type;
        if (g_state.halves) {
            iterator(nullptr, type, entry.value, user_data);
            iterator(entry.key, type, nullptr, user_data);
        }
        iterator(entry.key, type, entry.value, user_data);
    }
}

int bundle_keyval_get_basic_val(bundle_keyval_t* value, void** data, size_t* size) {
    REAL(bundle_keyval_get_basic_val);
    const int result = real(value, data, size);
    if (CHANGED && g_state.text != nullptr) {
        *data = const_cast<char*>(g_state.text);
    }
    return result;
}

}  // extern "C"

namespace support {

BundleFaults::BundleFaults() {
    g_state = {};
    g_state.active = true;
}

BundleFaults::~BundleFaults() { g_state.active = false; }

void BundleFaults::TellCount(int count) {
    g_state.tellsCount = true;
    g_state.count = count;
}

void BundleFaults::VisitBackwards() { g_state.backwards = true; }

void BundleFaults::VisitAs(int type) { g_state.type = type; }

void BundleFaults::VisitTwice() { g_state.twice = true; }

void BundleFaults::VisitHalves() { g_state.halves = true; }

void BundleFaults::GiveText(const char* text) { g_state.text = text; }

}  // namespace support

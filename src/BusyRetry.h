#ifndef VANTRY_SRC_BUSY_RETRY_H
#define VANTRY_SRC_BUSY_RETRY_H

#include <sqlite3.h>
#include <unistd.h>

#include "Log.h"

namespace vantry {

constexpr int BUSY_ATTEMPTS = 30;
constexpr useconds_t BUSY_PAUSE_MICROSECONDS = 30000;

constexpr bool IsBusy(int code) { return code == SQLITE_BUSY || code == SQLITE_LOCKED; }

// What a retry tells the log: the operation that makes the call, and the call's name in the line.
struct BusyVoice {
    LogPlace place{};
    const char* call = nullptr;
    int priority = DLOG_INFO;
};

// Whether the thirtieth pause is the end, or is followed by one call more.
enum class AfterLastPause { GiveUp, CallOnceMore };

// Makes an SQLite call, and makes it again while the database is busy or locked. The waiting policy of the
// whole library stands here.
template <typename Call>
int CallWhileBusy(const BusyVoice& voice, Call call, AfterLastPause afterLastPause = AfterLastPause::GiveUp) {
    int attempts = 0;
    int code = call();
    while (IsBusy(code) && attempts < BUSY_ATTEMPTS) {
        usleep(BUSY_PAUSE_MICROSECONDS);
        ++attempts;
        VANTRY_LOGF_AT(voice.place, voice.priority, "[%s] SQLITE3 busy or locked - Retrying : %d attempts;",
                       voice.call, attempts);
        if (attempts == BUSY_ATTEMPTS && afterLastPause == AfterLastPause::GiveUp) {
            break;
        }
        code = call();
    }
    if (code == SQLITE_OK && attempts > 0) {
        VANTRY_LOGF_AT(voice.place, voice.priority, "Executing single query succeeded after: %d attempts;",
                       attempts);
    }
    return code;
}

}  // namespace vantry

#endif

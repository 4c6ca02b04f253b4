#include "Works.h"

#include <dlog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace bench {

bool formatLogLines = false;

const std::vector<std::string>& WorksNames() {
    static const std::vector<std::string> names = {"raw",    "flat",      "sqlitecpp",
#ifdef BENCH_WITH_QT
                                                   "qt",
#endif
                                                   "vantry", "vantry-log"};
    return names;
}

std::unique_ptr<Works> MakeWorks(const std::string& name) {
    formatLogLines = name == "vantry-log";
    if (name == "raw") {
        return MakeRawWorks();
    }
    if (name == "flat") {
        return MakeFlatWorks();
    }
    if (name == "sqlitecpp") {
        return MakeSqliteCppWorks();
    }
#ifdef BENCH_WITH_QT
    if (name == "qt") {
        return MakeQtWorks();
    }
#endif
    if (name == "vantry" || name == "vantry-log") {
        return MakeLibraryWorks();
    }
    return nullptr;
}

void SettleHeap() {
    void* volatile block = std::malloc(1U << 16U);
    std::free(block);
}

}  // namespace bench

// NOLINTNEXTLINE(bugprone-reserved-identifier): it takes the place of the platform's
extern "C" int __dlog_print(log_id_t /*log_id*/, int /*priority*/, const char* /*tag*/, const char* format,
                            ...) {
    if (!bench::formatLogLines) {
        return 0;
    }
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    return length;
}

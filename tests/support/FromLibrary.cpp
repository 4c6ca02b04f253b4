#include "FromLibrary.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace support {

bool FromLibrary(const void* returnAddress) {
    Dl_info info{};
    return dladdr(returnAddress, &info) != 0 && info.dli_fname != nullptr &&
           std::strstr(info.dli_fname, "/libvantry.so") != nullptr;
}

void* NextSymbol(const char* name) {
    void* symbol = dlsym(RTLD_NEXT, name);
    if (symbol == nullptr) {
        std::fprintf(stderr, "no further definition of %s\n", name);
        std::abort();
    }
    return symbol;
}

}  // namespace support

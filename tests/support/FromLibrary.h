#pragma once

namespace support {

// Whether a call came out of libvantry. SQLite calls its own functions and usleep through the same symbols, and so
// do the tests; only the library's calls are counted, skipped or failed.
bool FromLibrary(const void* returnAddress);

// The next definition of a symbol after the test program's own.
void* NextSymbol(const char* name);

}  // namespace support

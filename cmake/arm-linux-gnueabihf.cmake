# The device's processor: 32-bit little-endian ARM with a floating-point unit, by Debian's cross compiler.
#
# off_t and time_t keep the C library's default of 32 bits. Calls by their plain names (mmap, ftruncate, fstat) are what
# a program can put its own definitions in the place of; 64 bits would import other names.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# Everything is built by one compiler; how older ones passed some arguments is of no interest.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# The device's libraries: scripts/device unpacks Debian's here. Another system's root can be named instead.
if(NOT DEFINED VANTRY_SYSROOT)
  set(VANTRY_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/device/sysroot)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VANTRY_SYSROOT)
get_filename_component(CMAKE_SYSROOT ${VANTRY_SYSROOT} ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must not find this machine's libraries.
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${CMAKE_SYSROOT})

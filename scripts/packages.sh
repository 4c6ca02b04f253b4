# Sourced by the scripts: the same surroundings on every machine, and the Debian packages that must be there.

# What a user's shell may set: the language of other programs, colours in a pipe, libraries of another build, and what
# changes the counts of instructions and allocations.
export LC_ALL=C.UTF-8
unset CDPATH CLICOLOR_FORCE GTEST_COLOR LD_LIBRARY_PATH MALLOC_PERTURB_ VALGRIND_OPTS

# need PACKAGE ... installs what is missing with apt; where that cannot be, names the packages and stops.
need() {
    local missing=() package
    for package in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed'; then
            missing+=("$package")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        as_root=(sudo)
    fi
    if ! command -v apt-get >/dev/null || { [ ${#as_root[@]} -gt 0 ] && ! command -v sudo >/dev/null; }; then
        echo "These Debian packages, or what your system calls them, are missing: ${missing[*]}" >&2
        echo "Install them and start again." >&2
        exit 1
    fi
    echo "Installing ${missing[*]} ..."
    # A machine that has just started may be about its daily update.
    local patient=(-o DPkg::Lock::Timeout=600)
    "${as_root[@]}" apt-get "${patient[@]}" update -q >/dev/null
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get "${patient[@]}" install -y -q --no-install-recommends "${missing[@]}" >/dev/null
}

BUILD_PACKAGES=(cmake g++ ninja-build pkg-config libsqlite3-dev)
EXAMPLE_PACKAGES=(nlohmann-json3-dev)
# vantryctl; without them the build leaves it, or its manual page, out.
TOOL_PACKAGES=(libcli11-dev scdoc)
# One test makes a locale of its own, out of what `locales` has.
TEST_PACKAGES=(libgtest-dev libgmock-dev sqlite3 locales)
FUZZ_PACKAGES=(clang libclang-rt-dev llvm)
CHECK_PACKAGES=(clang-format clang-tidy cppcheck)
COVERAGE_PACKAGES=(clang-19 llvm-19 libclang-rt-19-dev python3)
MUTATE_PACKAGES=(python3)
DEVICE_PACKAGES=(g++-arm-linux-gnueabihf qemu-user)
PACKAGING_PACKAGES=(build-essential debhelper dpkg-dev lintian)
REPRODUCE_PACKAGES=(faketime util-linux)
# For the other processor, in a folder of the build.
SYSROOT_PACKAGES=(libstdc++6 libsqlite3-dev libgtest-dev libgmock-dev nlohmann-json3-dev libcli11-dev)
BENCH_PACKAGES=(libbenchmark-dev libsqlitecpp-dev libflatbuffers-dev flatbuffers-compiler valgrind)
ABI_PACKAGES=(abigail-tools binutils python3)
REFERENCE_PACKAGES=(doxygen graphviz)

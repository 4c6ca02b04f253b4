#!/usr/bin/env bash
# Installs the build and uses it as others do. One case a call:
#   install_test.sh CASE, with the variables that tests/CMakeLists.txt sets.
set -euo pipefail

export LC_ALL=C.UTF-8
source=$VANTRY_SOURCE
here=$source/tests/install
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
lib=$prefix/$VANTRY_LIBDIR
include=$prefix/include/vantry
major=${VANTRY_VERSION%%.*}
log_line='I/vantry([0-9]*): VantryConnection.cpp: OpenOperation('
failures=0

fail() {
    echo "FAILED: $*" >&2
    failures=$((failures + 1))
}

check() { "$@" || fail "$*"; }

equal() { [[ $1 == "$2" ]] || fail "$3 is"$'\n'"$1"$'\n'"and not"$'\n'"$2"; }

# The tree is moved after it was installed: nothing in it may hold the first place.
install_tree() {
    "$CMAKE" --install "$VANTRY_BUILD" --prefix "$work/first" > "$work/install.log"
    mv "$work/first" "$prefix"
}

pkgconfig() { PKG_CONFIG_PATH=$lib/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH} pkg-config "$@"; }

# Public headers, by name.
library_headers() { (cd "$source/include" && ls ./*.h | sed 's,^\./,,'); }
service_headers() {
    [[ $VANTRY_STANDIN_DLOG != ON ]] || echo dlog.h
    [[ $VANTRY_STANDIN_BUNDLE != ON ]] || echo bundle.h
}

expected_output='7|Cinema
1|2097152| OR REPLACE '

expected_films="The General|1926|8.5|01100
Sherlock Jr.|1924|8|01100
'|1|0|01110
Safety Last!|-1|0|10000"

# Runs a built program with the libraries that it finds, or with those of a folder.
run() {
    local program=$1 folder=${2:-} output
    mkdir -p "$work/data"
    rm -f "$work"/data/*
    if ! output=$(LD_LIBRARY_PATH=$folder DLOG_LEVEL=info "$program" "$work/data" 2> "$work/log"); then
        cat "$work/log" >&2
        fail "$program failed"
    fi
    equal "$output" "$expected_output" "what $program printed"
    if [[ $VANTRY_STANDIN_DLOG == ON ]]; then
        check grep -q "^$log_line" "$work/log"
    fi
}

configure() {
    "$CMAKE" -G "$VANTRY_GENERATOR" -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_CXX_FLAGS="$CXXFLAGS" \
        -DCMAKE_EXE_LINKER_FLAGS="$LDFLAGS" -DCMAKE_SHARED_LINKER_FLAGS="$LDFLAGS" "$@"
}

case_layout() {
    install_tree
    equal "$(cd "$include" && ls)" "$( (library_headers; service_headers) | LC_ALL=C sort)" "the list of headers"
    for header in ContentHelper.h SQLiteCursor.h SharedQueryObject.h TilesDAO.h TilesModel.h VantryConnection.h; do
        check test -f "$include/$header"
    done
    for header in $(library_headers); do
        check cmp "$source/include/$header" "$include/$header"
    done
    for header in $(service_headers); do
        check cmp "$source/platform/$header" "$include/$header"
    done
    for name in vantry $(service_headers | sed 's/\.h$//'); do
        check test -f "$lib/lib$name.so.$VANTRY_VERSION"
        check test -L "$lib/lib$name.so"
        equal "$(readelf -d "$lib/lib$name.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')" "lib$name.so.$major" \
            "the soname of lib$name.so"
        check test -e "$lib/lib$name.so.$major"
    done
    local needed
    needed=$(readelf -d "$lib/libvantry.so" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
    check grep -q '^libsqlite3\.so' <<< "$needed"
    check grep -q '^libdlog\.so' <<< "$needed"
    check grep -q '^libbundle\.so' <<< "$needed"
    check test -f "$lib/pkgconfig/vantry.pc"
    check test -f "$lib/cmake/vantry/vantryConfig.cmake"
    check test -f "$lib/cmake/vantry/vantryConfigVersion.cmake"
    # What sanitizers and profilers put into a library tells the places.
    local text_only=
    [[ -z $CXXFLAGS ]] || text_only=-I
    if grep -rl $text_only -e "$work" -e "$VANTRY_BUILD" -e "$source" "$prefix" > "$work/places"; then
        fail "the installed tree holds paths of this machine: $(cat "$work/places")"
    fi
}

# Every public header, alone, in every standard.
case_headers() {
    install_tree
    local compiler standard header flags
    flags=$(pkg-config --cflags sqlite3)
    local exceptions warnings='-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror'
    local compilers=()
    for compiler in "$CXX" g++ clang++; do
        ! command -v "$compiler" > /dev/null || [[ " ${compilers[*]:-} " == *" $compiler "* ]] ||
            compilers+=("$compiler")
    done
    for compiler in "${compilers[@]}"; do
        for standard in 11 14 17 20; do
            for header in $(library_headers); do
                # Beside the library's own headers only: a program that passes no bundle needs no bundle header.
                echo "#include <$header>" > "$work/alone.cpp"
                # shellcheck disable=SC2086
                "$compiler" -std=c++$standard $warnings -fsyntax-only -I"$source/include" \
                    $flags "$work/alone.cpp" || fail "$header as C++$standard by $compiler"
            done
            for header in $(service_headers); do
                echo "#include <$header>" > "$work/alone.cpp"
                "$compiler" -std=c++$standard -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$include" \
                    "$work/alone.cpp" || fail "$header as C++$standard by $compiler"
            done
            # Templates are looked at where they are used.
            for exceptions in '' '-fno-exceptions -fno-rtti'; do
                # shellcheck disable=SC2086,SC2046
                "$compiler" -std=c++$standard $warnings $exceptions -fsyntax-only $(pkgconfig --cflags vantry) \
                    "$here/extras.cpp" ||
                    fail "extras.cpp as C++$standard $exceptions by $compiler"
            done
        done
        echo "${compilers[*]}: $compiler done"
    done
    # The platform's services are C.
    for header in $(service_headers); do
        echo "#include <$header>" > "$work/alone.c"
        if command -v gcc > /dev/null; then
            gcc -std=c99 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$include" "$work/alone.c" ||
                fail "$header as C"
        fi
    done
}

case_exports() {
    install_tree
    nm -DC --defined-only "$lib/libvantry.so" | sed -e 's/^[0-9a-f]* [A-Za-z] //' -e 's/@.*//' | LC_ALL=C sort -u \
        > "$work/exports"
    local classes class constant
    classes=$(sed -n 's/^class VANTRY_API \([A-Za-z]*\).*/\1/p' "$source"/include/*.h | LC_ALL=C sort)
    for class in CContentHelper CDBLocalScopedLock CDBLock CDbColumn CDbRow CSQLiteCursor CSQLiteCursorCache \
        CSharedQueryObject CTilesDAO CVantryConnection ISQLiteCursor ISharedQueryObject; do
        check grep -qx "$class" <<< "$classes"
    done
    # Every class and every constant that a header marks is there ...
    for class in $classes; do
        grep -q "^$class::" "$work/exports" || fail "$class is not exported"
    done
    for class in CContentHelper CDBLocalScopedLock CDBLock CSQLiteCursor CSharedQueryObject CTilesDAO \
        CVantryConnection ISQLiteCursor ISharedQueryObject; do
        check grep -qx "vtable for $class" "$work/exports"
        check grep -qx "typeinfo for $class" "$work/exports"
    done
    for constant in CVantryConnection::CONFLICT_VALUES CSQLiteCursor::MAX_DB_CACHE_SIZE \
        CSharedQueryObject::SHM_PREFIX CSharedQueryObject::m_requestId CContentHelper::DB_BACKUP_POSTFIX \
        CContentHelper::DB_BACKUP_POSTFIX_SECOND CTilesDAO::TILES_DB_PATH CTilesDAO::TILES_DB_NAME \
        CTilesDAO::TILES_DB_VERSION; do
        grep -qE "^$constant(\[abi:[a-z0-9]+\])?\$" "$work/exports" || fail "$constant is not exported"
    done
    equal "$(grep -cE '^Tiles(Internal)?Model::' "$work/exports")" \
        "$(grep -c '^VANTRY_API extern const std::string' "$source/include/TilesModel.h")" \
        "the number of the tiles' exported constants"
    # ... and nothing else.
    local any
    any=$(tr '\n' '|' <<< "$classes" | sed 's/|$//')
    grep -vE -e "^(($any)::|(vtable|typeinfo|typeinfo name) for ($any)\$)" -e '^Tiles(Internal)?Model::' \
        -e '^VANTRY_[0-9]+$' "$work/exports" > "$work/others" || true
    [[ ! -s $work/others ]] || fail "exported besides: $(cat "$work/others")"
    local name
    for name in $(service_headers | sed 's/\.h$//'); do
        if nm -D --defined-only "$lib/lib$name.so" | grep -vE ' (__dlog_print|bundle_[a-z_]+)$'; then
            fail "lib$name.so exports besides"
        fi
    done
    # What a program may put its own in the place of comes from outside.
    nm -D --undefined-only "$lib/libvantry.so" | awk '{print $2}' | sed 's/@.*//' > "$work/imports"
    for symbol in __dlog_print bundle_get_count bundle_foreach bundle_keyval_get_basic_val \
        bundle_keyval_get_array_val usleep shm_open shm_unlink mmap munmap ftruncate sqlite3_open_v2 sqlite3_step \
        sqlite3_finalize; do
        check grep -qx "$symbol" "$work/imports"
    done
    if nm -D --defined-only "$lib/libvantry.so" | grep -E ' (sqlite3_|bundle_|__dlog_print)'; then
        fail "the library defines what it shall import"
    fi
}

case_pkgconfig() {
    install_tree
    check pkgconfig --validate vantry
    equal "$(pkgconfig --modversion vantry)" "$VANTRY_VERSION" "the version"
    check grep -qx sqlite3 <<< "$(pkgconfig --print-requires vantry)"
    # shellcheck disable=SC2086,SC2046
    "$CXX" $CXXFLAGS -std=c++11 -o "$work/program" "$here/program.cpp" $(pkgconfig --cflags --libs vantry) $LDFLAGS
    run "$work/program" "$lib"
    # shellcheck disable=SC2086,SC2046
    "$CXX" $CXXFLAGS -std=c++11 -o "$work/extras" "$here/extras.cpp" $(pkgconfig --cflags --libs vantry) $LDFLAGS
    mkdir "$work/films"
    equal "$(LD_LIBRARY_PATH=$lib DLOG_LEVEL=error "$work/extras" "$work/films")" "$expected_films" \
        "what extras.cpp printed"
}

case_package() {
    install_tree
    configure -S "$here/package" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" > "$work/configure.log"
    "$CMAKE" --build "$work/build" > "$work/build.log" || { cat "$work/build.log"; fail "the program's build"; }
    run "$work/build/program"
}

# The parent's build asks for none of the library's own tests, nor for what they need.
case_subdirectory() {
    configure -S "$here/subdirectory" -B "$work/build" -DVANTRY_SOURCE="$source" \
        -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON > "$work/configure.log"
    "$CMAKE" --build "$work/build" --parallel 1 > "$work/build.log" ||
        { cat "$work/build.log"; fail "the program's build"; }
    run "$work/build/program"
}

# pretend_service NAME: a service of a platform. Its soname is not the stand-in's, and its header is in another place.
pretend_service() {
    local name=$1 platform=$work/platform input=$source/platform/$1.cpp
    [[ $name != dlog ]] || input="-x c $here/platform/dlog.c"
    mkdir -p "$platform/include" "$platform/lib/pkgconfig"
    cp "$source/platform/$name.h" "$platform/include/"
    # shellcheck disable=SC2086
    "$CXX" -fPIC -shared -Wl,-soname,lib$name.so.0 -I"$platform/include" -o "$platform/lib/lib$name.so.0" $input
    ln -s "lib$name.so.0" "$platform/lib/lib$name.so"
    printf '%s\n' "Name: $name" "Description: a service of the platform" "Version: 2.0" \
        "Cflags: -I$platform/include" "Libs: -L$platform/lib -l$name" > "$platform/lib/pkgconfig/$name.pc"
}

# The platform's own services, those that it has, in the place of the stand-ins; without the tests.
platform_build() {
    local name absent=$1 platform=$work/platform
    export PKG_CONFIG_PATH=$platform/lib/pkgconfig
    rm -rf "$work/library" "$work/build" "$prefix"
    configure -S "$source" -B "$work/library" -DBUILD_TESTING=OFF -DVANTRY_BUILD_EXAMPLES=OFF \
        -DVANTRY_BUILD_TOOLS=OFF \
        -DCMAKE_BUILD_TYPE=Debug -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DCMAKE_INSTALL_LIBDIR="$VANTRY_LIBDIR" \
        > "$work/configure.log"
    "$CMAKE" --build "$work/library" --parallel 1 > "$work/build.log" ||
        { cat "$work/build.log"; fail "the library's build"; }
    "$CMAKE" --install "$work/library" --prefix "$prefix" > "$work/install.log"
    equal "$(cd "$include" && ls)" "$( (library_headers; [[ -z $absent ]] || echo "$absent.h") | LC_ALL=C sort)" \
        "the list of headers"
    local needed
    needed=$(readelf -d "$lib/libvantry.so" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
    for name in dlog bundle; do
        if [[ $name == "$absent" ]]; then
            check test -e "$lib/lib$name.so.$major"
            check grep -qx "lib$name.so.$major" <<< "$needed"
            check grep -qE "^Libs: .* -l$name " "$lib/pkgconfig/vantry.pc"
        else
            equal "$(find "$prefix" "$work/library" -name "lib$name.*")" "" "the list of the stand-ins for $name"
            check grep -qx "lib$name.so.0" <<< "$needed"
            check grep -qE "^Requires: .*\\<$name\\>" "$lib/pkgconfig/vantry.pc"
        fi
    done
    if nm --defined-only "$lib/libvantry.so" | grep -E ' (bundle_|__dlog_print)'; then
        fail "the library has a service in it"
    fi
    # shellcheck disable=SC2086,SC2046
    "$CXX" $CXXFLAGS -std=c++11 -o "$work/program" "$here/program.cpp" $(pkgconfig --cflags --libs vantry) $LDFLAGS
    run "$work/program" "$lib:$platform/lib"
    configure -S "$here/package" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" > "$work/configure.log"
    "$CMAKE" --build "$work/build" > "$work/build.log" || { cat "$work/build.log"; fail "the program's build"; }
    run "$work/build/program" "$platform/lib"
}

case_platform() {
    if [[ $VANTRY_STANDIN_DLOG != ON || $VANTRY_STANDIN_BUNDLE != ON ]]; then
        echo "SKIPPED: the build has the platform's own services already"
        exit 77
    fi
    # The log is the pretended one's.
    log_line='platform [0-9]* VantryConnection.cpp: OpenOperation('
    pretend_service dlog
    platform_build bundle
    pretend_service bundle
    platform_build ''
}

# The packages and the list of changes are of the version that CMakeLists.txt names.
case_version() {
    equal "$(sed -n '1s/^vantry (\(.*\)) .*/\1/p' "$source/debian/changelog")" "$VANTRY_VERSION" \
        "the version of the packages"
    check grep -qx "Package: libvantry$major" "$source/debian/control"
    check test -f "$source/debian/libvantry$major.symbols"
    check test -f "$source/debian/libvantry$major.install"
    equal "$(sed -n '/^## /{s/^## \([0-9.]*\).*/\1/p;q}' "$source/CHANGELOG.md")" "$VANTRY_VERSION" \
        "the newest version in CHANGELOG.md"
}

"case_$1"
if ((failures > 0)); then
    echo "$failures checks failed" >&2
    exit 1
fi
echo "$1: all checks passed"

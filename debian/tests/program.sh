# shellcheck shell=sh
# Sourced by the tests: a folder for one test's own, and what the program must print.
work=$(mktemp -d -p "${AUTOPKGTEST_TMP:-/tmp}")
trap 'rm -rf "$work"' EXIT

# run_program: runs $work/program, in an emulator when RUN names one.
run_program() {
    mkdir "$work/data"
    # shellcheck disable=SC2086
    output=$(DLOG_LEVEL=info ${RUN:-} "$work/program" "$work/data" 2>"$work/log") || { cat "$work/log" >&2 && exit 1; }
    expected='7|Cinema
1|2097152| OR REPLACE '
    if [ "$output" != "$expected" ]; then
        printf 'The program printed\n%s\nand not\n%s\n' "$output" "$expected" >&2
        exit 1
    fi
    # The stand-in of dlog is the one that writes there.
    grep -q '^I/vantry([0-9]*): VantryConnection.cpp: OpenOperation(' "$work/log"
}

#!/usr/bin/env bash
# Calls vantryctl as its users do. One case a call:
#   vantryctl_test.sh CASE, with the variables that tests/tools/CMakeLists.txt sets.
set -uo pipefail

here=$(CDPATH='' cd -P "$(dirname "${BASH_SOURCE[0]}")" && pwd)
work=$(mktemp -d)
# No other test has this key; nothing but its results is ever purged. It holds no number, which would be a process.
key=ctl$(tr 0-9 a-j <<< "$BASHPID-$RANDOM")-
holders=()
cleanup() {
    local holder
    for holder in "${holders[@]:-}"; do
        [ -z "$holder" ] || kill "$holder" 2> /dev/null
    done
    rm -rf "$work"
    rm -rf "/dev/shm/.vantry_$key"*
}
trap cleanup EXIT
unset DLOG_LEVEL NO_COLOR
export LC_ALL=C.UTF-8 SHELL=/bin/sh TERM=xterm TZ=UTC
failures=0

fail() {
    echo "FAILED: $*" >&2
    failures=$((failures + 1))
}
equal() { [[ $1 == "$2" ]] || fail "$3 is"$'\n'"$1"$'\n'"and not"$'\n'"$2"; }
has() { [[ $1 == *"$2"* ]] || fail "$3 lacks \"$2\":"$'\n'"$1"; }
lacks() { [[ $1 != *"$2"* ]] || fail "$3 holds \"$2\":"$'\n'"$1"; }

# ctl ARGUMENT ...: runs the tool in a pipe; leaves out, err and code.
ctl() {
    "$VANTRYCTL" "$@" > "$work/out" 2> "$work/err" < /dev/null
    code=$?
    out=$(cat "$work/out")
    err=$(cat "$work/err")
    # A crash, or a sanitizer's report.
    ((code <= 2)) || fail "vantryctl $* ended with $code: $err"
    lacks "$err" "Sanitizer" "standard error of vantryctl $*"
}
# expect CODE SENTENCE ARGUMENT ...: a call that writes nothing but one sentence to standard error.
expect() {
    local wanted=$1 sentence=$2
    shift 2
    ctl "$@"
    equal "$code" "$wanted" "the exit code of vantryctl $*"
    has "$(head -n 1 "$work/err")" "vantryctl: $sentence" "standard error of vantryctl $*"
    equal "$out" "" "what vantryctl $* printed"
    [[ $wanted == 2 ]] || equal "$(wc -l < "$work/err")" 1 "the number of lines of vantryctl $*"
}
# on_terminal COMMAND: runs it on a terminal of 80 columns; leaves out (both streams) and code.
on_terminal() {
    script -qec "stty cols 80 rows 24; $1" /dev/null < /dev/null > "$work/typescript"
    code=$?
    out=$(tr -d '\r' < "$work/typescript")
    ((code <= 2)) || fail "$1 ended with $code: $out"
    lacks "$out" "Sanitizer" "the terminal of $1"
}
plain() { sed 's/\x1b\[[0-9;]*[mK]//g' <<< "$1"; }

# state DIRECTORY [NAMES]: what a directory holds: names, kinds, sizes, rights, owners, times of change, bytes. A pattern
# of names picks the files before they are summed: a digest may look like any name.
state() {
    (cd "$1" && find . -name "${2:-*}" -printf '%p %y %s %m %U %G %T@\n' | LC_ALL=C sort &&
        find . -name "${2:-*}" -type f -exec sha256sum {} + | LC_ALL=C sort)
}

# Without what its user has in ~/.sqliterc.
SQLITE=$(type -P sqlite3)
sqlite3() { "$SQLITE" -init /dev/null "$@"; }

films() {
    sqlite3 "$1" << 'SQL'
CREATE TABLE films (_id INTEGER PRIMARY KEY, title TEXT, year INTEGER, rating REAL, poster BLOB);
INSERT INTO films VALUES (1, 'The General', 1926, 8.5, x'00ff27'), (2, 'Häxan', 1922, NULL, NULL),
    (3, 'Say "so", or not', 1903, 0.1, x''), (4, '', -5, 1e300, NULL), (5, NULL, NULL, 2.0, NULL);
CREATE VIEW old AS SELECT title FROM films WHERE year < 1910;
SQL
}
tiles() {
    sqlite3 "$1" << 'SQL'
CREATE TABLE accelerators (_id INTEGER PRIMARY KEY, id TEXT, title TEXT, enabled INTEGER, position INTEGER);
CREATE TABLE sections (_id INTEGER PRIMARY KEY, id TEXT, title TEXT, position INTEGER, accelerator_id INTEGER,
    title_display_mode TEXT);
CREATE TABLE tiles (_id INTEGER PRIMARY KEY, id TEXT, section_id INTEGER, title TEXT, subtitle TEXT,
    display_from INTEGER, display_until INTEGER, image_ratio TEXT, position INTEGER);
INSERT INTO accelerators VALUES (1, 'b', 'Later', 0, 2), (2, 'a', 'First & <foremost>', 1, 1);
INSERT INTO sections VALUES (1, 's1', 'Drama "x"', 2, 2, 'AlwaysOn'), (2, 's2', 'News', 1, 2, 'AccessibilityOnly'),
    (3, 's3', 'Kids', 1, 1, 'HighlightedOnly');
INSERT INTO tiles VALUES (1, 't1', 1, 'Tom & Jerry <3', 'a ]]> b', NULL, NULL, '2by3', 1),
    (2, 't2', 2, 'Evening', 'now', 1000, 2000, '16by9', 1), (3, 't3', 2, 'Over', 'gone', 100, 900, '1by1', 2),
    (4, 't4', 2, 'To come', 'later', 5000, 6000, '4by3', 3),
    (5, 't5', 1, 'Ünïcödé 日本語 ' || char(27) || '[31mred', NULL, NULL, NULL, NULL, 0);
SQL
}
# Rows enough for several pages of 1024 bytes.
many() {
    sqlite3 "$1" "PRAGMA page_size=1024; CREATE TABLE many (_id INTEGER PRIMARY KEY, text TEXT);
        WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < $2)
        INSERT INTO many SELECT i, printf('row %06d of the table', i) FROM n;"
}
damage() { dd if=/dev/zero of="$1" bs=1024 seek="$2" count="${3:-1}" conv=notrunc status=none; }

# hold DATABASE SQL: another process keeps the statements' locks, until the test ends or calls release.
hold() {
    # An earlier holder's word is not this one's.
    rm -f "$work/held"
    mkfifo "$work/hold"
    "$SQLITE" -init /dev/null "$1" < "$work/hold" > "$work/held" 2>&1 &
    holders+=($!)
    exec 9> "$work/hold"
    printf '%s\n' "$2" "SELECT 'held';" >&9
    until grep -q held "$work/held" 2> /dev/null; do
        kill -0 "${holders[-1]}" 2> /dev/null || { fail "the holder ended: $(cat "$work/held")" && break; }
        sleep 0.02
    done
    rm "$work/hold"
}
release() {
    exec 9>&-
    wait "${holders[-1]}"
}

store() { read -r name size < <(DLOG_LEVEL=silent "$STORED" store "$@"); }

for part in "$here"/cases_*.sh; do
    # shellcheck source=/dev/null
    . "$part"
done
"case_$1"
if ((failures > 0)); then
    echo "$failures checks failed" >&2
    exit 1
fi
echo "$1: all checks passed"

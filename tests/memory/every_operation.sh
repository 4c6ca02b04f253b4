#!/usr/bin/env bash
# Whether each operation that the library exports is called by a test of a shortage of memory, and each that can reach
# SQLite by one that names it as an operation whose allocations of SQLite's are failed. without_sqlite.txt names those
# that cannot.
#
# Usage: every_operation.sh LIBRARY TESTS_DIRECTORY
set -euo pipefail

library=$1
tests=$2
missing=0
tell() {
    echo "$*" >&2
    missing=$((missing + 1))
}

# The operations by their last name; destructors and what the compiler makes are met with their objects.
mapfile -t operations < <(nm -DC --defined-only "$library" | sed -n 's/^[0-9a-f]* [TW] //p' |
    grep -oE '^[CI][A-Za-z]+::[A-Za-z0-9]+(\[abi:cxx11\])?\(' | sed 's/\[abi:cxx11\]//; s/($//' | sort -u)
if [ ${#operations[@]} -lt 80 ]; then
    echo "only ${#operations[@]} operations were found in $library" >&2
    exit 1
fi

# The tests, a line each, without comments; of the texts only names are left, between two "@".
code=$(awk '
    /^TEST/ { print "" }
    {
        while (match($0, /"([^"\\]|\\.)*"/)) {
            text = substr($0, RSTART + 1, RLENGTH - 2)
            $0 = substr($0, 1, RSTART - 1) (text ~ /^[A-Za-z0-9]+$/ ? "@" text "@" : "@@") substr($0, RSTART + RLENGTH)
        }
        sub(/\/\/.*/, "")
        gsub(/\/\*[^*]*\*\//, "")
        printf "%s ", $0
    }
    /^}/ { print "" }
' "$tests"/*_test.cpp)
# The names in the sweeps, each with the calls that are made in the same test.
swept=$(grep '^TEST' <<<"$code" | awk '
    {
        test = rest = $0
        while (match(rest, /Operations\{[^}]*\}/)) {
            count = split(substr(rest, RSTART, RLENGTH), names, "@")
            rest = substr(rest, RSTART + RLENGTH)
            for (i = 2; i <= count; i += 2) {
                called = test ~ ("[^A-Za-z0-9_@]" names[i] "\\(|::" names[i] "[^A-Za-z0-9_]")
                print names[i], called ? "called" : "not called"
            }
        }
    }' | sort -u)
without=$(sed -n '/^#/!s/^[^:]*: //p' "$tests/without_sqlite.txt" | tr ' ' '\n' | sort)

for operation in "${operations[@]}"; do
    class=${operation%::*}
    name=${operation##*::}
    # Called, or given to be called; objects are made in place, as variables, or of a class derived from theirs.
    pattern="[^A-Za-z0-9_@]${name}\\(|$class::${name}[^A-Za-z0-9_]"
    if [ "$name" = "$class" ]; then
        pattern="[^A-Za-z0-9_@]${name}[^A-Za-z0-9_@]"
    fi
    grep -qE "$pattern" <<<"$code" || tell "no test of a shortage of memory calls $operation"
    if grep -qx "$name" <<<"$without"; then
        ! grep -q "^$name " <<<"$swept" || tell "$operation is swept, and stands in without_sqlite.txt"
    else
        grep -qx "$name called" <<<"$swept" || tell "no test sweeps SQLite's allocations in $operation"
    fi
done
# A name that is written wrong would stand for nothing.
for name in $without $(cut -d ' ' -f 1 <<<"$swept"); do
    [[ " ${operations[*]} " == *"::$name "* ]] || tell "the library exports no $name"
done
[ "$missing" -eq 0 ] || exit 1
echo "${#operations[@]} operations, $(grep -c ' called$' <<<"$swept") of them swept for SQLite's allocations"

#!/usr/bin/env bash
# Whether each operation that the library exports is called by a test of a shortage of memory.
#
# Usage: every_operation.sh LIBRARY TESTS_DIRECTORY
set -euo pipefail

library=$1
tests=$2

# The operations by their last name; destructors and what the compiler makes are met with their objects.
mapfile -t operations < <(nm -DC --defined-only "$library" | sed -n 's/^[0-9a-f]* [TW] //p' |
    grep -oE '^C[A-Za-z]+::[A-Za-z0-9]+(\[abi:cxx11\])?\(' | sed 's/\[abi:cxx11\]//; s/($//' | sort -u)
if [ ${#operations[@]} -lt 80 ]; then
    echo "only ${#operations[@]} operations were found in $library" >&2
    exit 1
fi
missing=0
for operation in "${operations[@]}"; do
    # Constructed by the constructor's name, in place or as a variable.
    if ! grep -qE "\\b${operation##*::}\\b" "$tests"/*_test.cpp; then
        echo "no test of a shortage of memory calls $operation" >&2
        missing=$((missing + 1))
    fi
done
[ "$missing" -eq 0 ] || exit 1
echo "${#operations[@]} operations"

# Sourced by the scripts: tells how many tests a run of ctest passed, and how many it left out.

# counted_tests BUILD SUMMARY: prints both numbers; BUILD is the build directory, SUMMARY what ctest wrote. A program of
# tests that was run as one counts as the tests in it.
counted_tests() {
    awk 'FNR == NR {
             if ($2 == "PASSED") passed += $4 - 1
             if ($2 == "SKIPPED" && / listed below:$/) skipped += $4
             if (/^Skip regular expression found/) told++
             next
         }
         /\*\*\*Skipped / { left++ }
         /^100% tests passed/ { passed += $NF }
         END { print passed - (left - told), skipped + (left - told) }' "$1/Testing/Temporary/LastTest.log" "$2"
}

# told_tests PASSED SKIPPED: what the last line says of them.
told_tests() {
    echo "$1 passed, 0 failed$([ "$2" -eq 0 ] || echo ", $2 skipped")"
}

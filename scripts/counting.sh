# Sourced by the scripts: tells how many tests a run of ctest passed.

# passed_tests BUILD SUMMARY: BUILD is the build directory, SUMMARY what ctest wrote. A program of tests that was run as
# one counts as the tests in it.
passed_tests() {
    awk 'FNR == NR { if ($2 == "PASSED") extra += $4 - 1; next }
         /^100% tests passed/ { total = $NF }
         END { print total + extra }' "$1/Testing/Temporary/LastTest.log" "$2"
}

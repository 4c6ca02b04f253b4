# Sourced by the scripts that read what ctest and the test programs print: tells how many tests a run of ctest passed.

# Colours, which are asked for even in a pipe, would hide the words that are looked for.
unset CLICOLOR_FORCE GTEST_COLOR

# passed_tests BUILD SUMMARY: BUILD is the build directory, SUMMARY what ctest wrote. A program of tests that was run as
# one counts as the tests in it.
passed_tests() {
    awk 'FNR == NR { if ($2 == "PASSED") extra += $4 - 1; next }
         /^100% tests passed/ { total = $NF }
         END { print total + extra }' "$1/Testing/Temporary/LastTest.log" "$2"
}

#!/usr/bin/env bash
# Prints which share of the code is test code, and fails when it is more than the limit. Counts the
# lines that are neither blank nor comment.
set -euo pipefail
cd "$(dirname "$0")/.."
readonly most_percent=30

# Test code: the folder tests/, and what else only tests use. ./test is what starts them, as ./run is
# for the program, and simulator/direct_bus/ is for the benchmarks as well.
readonly test_code='^(tests/|tools/check_hardening\.sh$)'

# lines_of FILE...: the sum of their lines of code.
lines_of() {
  awk '
    FNR == 1 { within_comment = 0; script = FILENAME !~ /\.(cpp|h|c)$/ }
    script { if ($0 !~ /^[ \t]*(#|$)/) count++; next }
    within_comment { if (/\*\//) within_comment = 0; next }
    /^[ \t]*\/\*/ { within_comment = !/\*\//; next }
    !/^[ \t]*(\/\/|$)/ { count++ }
    END { print count + 0 }' "$@"
}

mapfile -t files < <(git ls-files '*.cpp' '*.h' '*.c' '*.sh' '*.py' run test bench package)
mapfile -t tests < <(printf '%s\n' "${files[@]}" | grep -E "$test_code")
all=$(lines_of "${files[@]}")
of_tests=$(lines_of "${tests[@]}")
tenths=$(((of_tests * 1000 + all / 2) / all))
echo "Tests are $((tenths / 10)).$((tenths % 10)) % of the code: $of_tests of $all lines," \
  "of at most $most_percent %"
[ $((of_tests * 100)) -le $((all * most_percent)) ]

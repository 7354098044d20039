#!/usr/bin/env bash
# Fails where a function or a file is too large to be understood at a look. Looks at all but the
# tests; of scripts, at their length only (flake8 judges the functions of Python). Prints each offence.
set -euo pipefail
cd "$(dirname "$0")/.."
readonly most_lines_of_function=35 most_complexity=10 most_lines_of_file=400
offences=0

mapfile -t sources < <(git ls-files '*.cpp' '*.c' '*.h' ':!:tests/')
mapfile -t scripts < <(git ls-files '*.sh' '*.py' run test bench package .ci/run ':!:tests/')

# pmccabe takes the separator of 10'000 for a quotation mark, so it reads copies without. It doesn't
# understand every class and namespace, and says so on standard error; it measures their functions
# all the same. Its columns: complexity with a switch as one, complexity, statements, first line,
# lines, place.
copies=$(mktemp -d)
trap 'rm -r "$copies"' EXIT
cp --parents "${sources[@]}" "$copies"
(cd "$copies" && sed -i -E "s/([0-9])'([0-9])/\1\2/g" "${sources[@]}")
functions=$(cd "$copies" && pmccabe "${sources[@]}" 2>/dev/null |
  awk -F '\t' -v lines=$most_lines_of_function -v complexity=$most_complexity '
    $5 > lines { printf "%s: %d lines, of at most %d\n", $6, $5, lines }
    $2 > complexity { printf "%s: complexity %d, of at most %d\n", $6, $2, complexity }')
if [ -n "$functions" ]; then
  printf '%s\n' "$functions"
  offences=1
fi
for file in "${sources[@]}" "${scripts[@]}"; do
  lines=$(wc -l <"$file")
  [ "$lines" -gt $most_lines_of_file ] || continue
  echo "$file: $lines lines, of at most $most_lines_of_file"
  offences=1
done
exit $offences

#!/usr/bin/env bash
# The quick checks: format, includes between folders, and linters for scripts, Python and C. Looks at
# the files that git knows or would add.
# usage: tools/check_style.sh [format|layers|shell|python|c]...
set -euo pipefail
cd "$(dirname "$0")/.."
failed=""

# files PATTERN...: those that match one of git's patterns, each ended by a zero byte.
files() {
  local file
  git ls-files -z --cached --others --exclude-standard -- "$@" | while IFS= read -r -d '' file; do
    [ ! -f "$file" ] || printf '%s\0' "$file"
  done
}

# Scripts that have no ending are known by their first line.
shell_scripts() {
  files '*.sh'
  files ':!:*.sh' | xargs -0 grep -lZE '^#!(/usr/bin/env bash|/bin/(ba)?sh)' --
}

# Versions of clang-format disagree: the project's is the one of Debian 12.
check_format() {
  local formatter
  formatter=$(command -v clang-format-14 || command -v clang-format) || formatter=false
  if [ "$formatter" = false ]; then
    echo "clang-format is missing"
    return 1
  elif [[ "$("$formatter" --version)" != *" version 14."* ]]; then
    echo "Not checked: the format, which takes clang-format 14"
    return
  fi
  files '*.h' '*.cpp' '*.c' | xargs -0 "$formatter" --dry-run --Werror
}

check_layers() { tools/check_layers.sh; }
check_shell() { shell_scripts | xargs -0 shellcheck; }
check_python() { files '*.py' | xargs -0 flake8; }
check_c() {
  files '*.c' | xargs -0 cppcheck --quiet --std=c11 --enable=warning,style,performance,portability \
    --inline-suppr --suppress=missingIncludeSystem --error-exitcode=1
}

[ $# -gt 0 ] || set -- format layers shell python c
for check in "$@"; do
  "check_$check" || failed+=" $check"
done
[ -z "$failed" ] || { printf 'Failed:%s\n' "$failed"; exit 1; }

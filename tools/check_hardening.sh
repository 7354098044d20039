#!/usr/bin/env bash
# Fails when a shipped binary lacks a hardening that the build is to give it.
# usage: tools/check_hardening.sh BINARY...
set -euo pipefail
missing=0

# has WHAT WHERE PATTERN
has() {
  grep -qE "$3" <<<"$2" && return
  printf '%s: no %s\n' "$binary" "$1"
  missing=1
}
for binary in "$@"; do
  headers=$(readelf -Wh -Wl -Wd "$binary")
  symbols=$(readelf -Ws --dyn-syms "$binary")
  has "position-independent code" "$headers" 'Type: +DYN'
  has "position-independent code" "$headers" 'FLAGS_1.*PIE'
  has "read-only relocations" "$headers" 'GNU_RELRO'
  has "immediate binding" "$headers" 'FLAGS.*(BIND_)?NOW'
  has "stack that can't be executed" "$headers" 'GNU_STACK.* RW '
  has "stack protector" "$symbols" '__stack_chk_fail'
  has "fortified library calls" "$symbols" '__[a-z_]+_chk(@|$)'
done
exit $missing

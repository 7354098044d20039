#!/usr/bin/env bash
# Runs a command on a virtual screen without a window manager: what a program's window costs
# there is the program's own.
# usage: benchmarks/on_screen.sh COMMAND [ARGUMENT...]
set -euo pipefail
. "$(dirname "$0")/../tools/virtual_screen.sh"

start_display
"$@"

#!/usr/bin/env bash
# One update by the program as it ships, with its window, by the keyboard.
# usage: benchmarks/drive_update.sh BIN_FOLDER TRACE [SIMULATOR_OPTION...]
set -euo pipefail
readonly bin=$1 trace=$2
. "$(dirname "$0")/../tools/virtual_screen.sh"

start_screen
"$bin/qm5-simulator" --trace "$trace" "${@:3}" -- "$bin/qm5-updater" >"$work/lines" 2>&1 &
readonly simulator=$!
on_screen "QM5 Updater"
xdotool key Return # Next
# Looking for a window costs the machine something: not while the update is measured.
within 10 grep -q "Writing SFWd chunk 0" "$work/lines" || fail "the update did not start"
ended() { grep -q "SWFs completed SUCCESSFULLY" "$work/lines" || ! kill -0 $simulator; }
for _ in {1..1200}; do
  if ended; then break; fi
  sleep 0.5
done
on_screen "Firmware update successful!"
# "Confirm & Exit", again and again: a window that has come up by itself takes no presses at first.
confirmed() { ! kill -0 $simulator || { xdotool key Return && false; }; }
await "the finish dialog stayed" confirmed
wait $simulator

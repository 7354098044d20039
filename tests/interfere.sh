#!/usr/bin/env bash
# The program on a virtual screen, and what it has to do with the rest of the computer: it keeps
# it awake, it is started again, signals want it to end.
# usage: tests/interfere.sh BIN_FOLDER IMAGE LOGIND
set -euo pipefail
readonly bin=$1 image=$2 logind=$3
. "$(dirname "$0")/../tools/virtual_screen.sh"
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/bus

program=$bin/qm5-updater

# start LINES OPTION...: sets $simulator and $updater, once the main window is there.
start() {
  local windows
  windows=$(count "QM5 Updater")
  "$bin/qm5-simulator" "${@:2}" -- "$program" >"$1" 2>&1 &
  simulator=$!
  within 10 shown "QM5 Updater" $((windows + 1)) || fail "no main window came"
  updater=$(cat "/proc/$simulator/task/$simulator/children")
  updater=${updater% }
}

count() { { window "$1" || true; } | wc -l; }
shown() { [ "$(count "$1")" = "$2" ]; }
active() { [ "$(xdotool getactivewindow getwindowname)" = "$1" ]; }
wrote() { grep -c "Writing SFWd chunk" "$work/lines" || true; }
wrote_more_than() { [ "$(wrote)" -gt "$1" ]; }

# Starts the program again on the bus of the one that runs.
start_again() {
  local environment
  mapfile -t environment < <(tr '\0' '\n' <"/proc/$updater/environ" | grep -E '^(LD_PRE|UMOCK)')
  timeout 1 env "${environment[@]}" "$bin/qm5-updater" || fail "a second start ended with $?"
}

# question SIGNAL: sends it in the middle of a run, which has to go on under the question.
question() {
  sleep 0.3 # signals that come together count as one
  kill "-$1" "$updater"
  # The alert has the title of its window.
  within 10 shown "Updating the QM5" 2 || fail "$1 led to no question"
  within 10 wrote_more_than "$(wrote)" || fail "$1 stopped the update"
}

# awake_until OUTCOME COMMAND...: presses Next; when the command succeeds, or when that outcome
# has ended the program, one inhibitor has been taken and released.
awake_until() {
  : >"$work/awake"
  xdotool key Return
  within 10 grep -q "^Inhibit:sleep:idle:handle-lid-switch:QM5 Updater:.*:block$" "$work/awake" ||
    fail "$1: not awake"
  within 60 "${@:2}" || fail "$1 did not come"
  within 10 grep -q "^released$" "$work/awake" || fail "$1: still awake"
  [ "$(wc -l <"$work/awake")" = 2 ] || fail "$1: $(cat "$work/awake")"
}
alerted() { shown "QM5 Updater" 2; } # it has the title of its window
quit() {
  within 10 window "Updating the QM5" && xdotool key alt+a || return 1 # Abort
  within 10 shown "Updating the QM5" 2 && xdotool key Return           # Quit
}

start_screen
dbus-daemon --session --nofork --address="$DBUS_SYSTEM_BUS_ADDRESS" &
bus=$!
within 10 test -S "$work/bus" || fail "no bus came"
"$logind" >>"$work/awake" &
within 10 grep -q ready "$work/awake" || fail "no logind came"
mkdir "$work/bare" # a program without its package
ln "$bin/qm5-updater" "$work/bare" 2>/dev/null || cp "$bin/qm5-updater" "$work/bare"
for outcome in "no device|--attach-after 1000" "no version|--fault request:1=stall" \
  "same version|--version 4208" "no image|--version 4201" "flash error|--fault SFWi:1=stall"; do
  [ "$outcome" != "no image|--version 4201" ] || program=$work/bare/qm5-updater
  # shellcheck disable=SC2086 # two words
  start "$work/lines" ${outcome#*|}
  awake_until "${outcome%|*}" alerted
  xdotool key Return # OK
  kill -TERM "$updater"
  wait "$simulator" || true
  program=$bin/qm5-updater
done
start "$work/lines" --image "$image"
awake_until success window "Firmware update successful!"
kill -TERM "$updater" # nothing runs any more
wait "$simulator" || fail "the update went wrong"
start "$work/lines" --latency-ms 20
awake_until quit quit
wait "$simulator" || true
kill "$bus" # from here on nobody listens

start "$work/other"
readonly other=$updater other_simulator=$simulator
start "$work/lines" --version 4201 --image "$image" --latency-ms 1 # it takes some seconds
kill -TERM "$other" # nothing runs there
wait "$other_simulator" || true
grep -q "the program ended with 0" "$work/other" || fail "no end by a signal: $(cat "$work/other")"

xdotool windowminimize --sync "$(window "QM5 Updater")"
start_again
within 10 active "QM5 Updater" || fail "a second start did not bring the window back"
xdotool key Return # Next
within 30 wrote_more_than 5 || fail "the update did not start"
kill -STOP "$updater"
start_again
kill -CONT "$updater"

question TERM
start_again # brings the question to the front, not the windows below it
xdotool key Escape # "Don't quit"
within 10 shown "Updating the QM5" 1 || fail "the question stayed"
question HUP # and nobody answers
within 300 window "Firmware update successful!" || fail "the update did not end"
on_screen "Firmware update successful!"
xdotool key Return
wait "$simulator" || fail "the update went wrong"
[ "$(grep -c "may fall asleep" "$work/lines")" = 1 ] || fail "not one try to stay awake"

start "$work/lines" --version 4201 --latency-ms 20
xdotool key Return
within 30 wrote_more_than 5 || fail "the second update did not start"
question HUP # a script's background ignores SIGINT
sleep 0.3
kill -TERM "$updater"
wait "$simulator" || true
grep -q "the program ended with 0" "$work/lines" || fail "two signals did not end the program"

# The screen goes last. There is nobody to tell, and no thread may trip over the end.
start "$work/lines" --version 4201 --latency-ms 20
xdotool key Return
within 30 wrote_more_than 5 || fail "the third update did not start"
kill "$screen"
wait "$simulator" || true
grep -q "the program ended with 1" "$work/lines" || fail "no end with the screen's"

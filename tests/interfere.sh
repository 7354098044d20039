#!/usr/bin/env bash
# The program on a virtual screen, and what it has to do with the rest of the computer: it keeps
# it awake, it is started again, signals want it to end, its streams are odd, its screen goes.
# With QM5_LONG, it is killed and started again 300 times instead of 5.
# usage: tests/interfere.sh BIN_FOLDER IMAGE LOGIND
set -euo pipefail
readonly bin=$1 image=$2 logind=$3
. "$(dirname "$0")/../tools/virtual_screen.sh"

readonly program=$bin/qm5-updater success="Firmware update successful!"

# start OPTION...: sets $simulator and $updater, once the main window is there and has the keyboard.
start() {
  "$bin/qm5-simulator" "$@" -- "$program" >"$work/lines" 2>&1 &
  simulator=$!
  on_screen "QM5 Updater"
  updater=$(cat "/proc/$simulator/task/$simulator/children")
  updater=${updater% }
}

gone() { ! kill -0 "$1"; }
# ended STATUS [SECONDS]: waits until the program has ended with that status.
ended() {
  within "${2-10}" gone "$simulator" || fail "the program does not end"
  grep -q "the program ended with $1" "$work/lines" || fail "the program did not end with $1"
}

count() { { window "$1" || true; } | wc -l; }
shown() { [ "$(count "$1")" = "$2" ]; }
active() { [ "$(xdotool getactivewindow getwindowname)" = "$1" ] && shown "$1" "$2"; }
wrote() { grep -c "Writing SFWd chunk" "$work/lines" || true; }
wrote_more_than() { [ "$(wrote)" -gt "$1" ]; }
begin_update() {
  xdotool key alt+n # Next, wherever the focus is
  within 30 wrote_more_than 5 || fail "no update began"
}

# Starts the program again on the bus of the one that runs.
start_again() {
  local environment
  mapfile -t environment < <(tr '\0' '\n' <"/proc/$updater/environ" | grep -E '^(LD_PRE|UMOCK)')
  timeout 5 env "${environment[@]}" "$program" || fail "a second start ended with $?"
}

# minimise_all: whether no window is left; one that has just come up may take the wish no earlier.
minimise_all() {
  local id
  for id in $(xdotool search --onlyvisible --name QM5); do xdotool windowminimize "$id" || true; done
  shown ".*QM5.*" 0
}

# minimised TITLE COUNT: minimises all windows; a second start brings them back, one of that title,
# of which there are so many, with the keyboard.
minimised() {
  within 10 minimise_all || fail "windows can't be minimised beside \"$1\""
  start_again
  within 10 active "$1" "$2" || fail "a second start did not bring \"$1\" back"
}

# question SIGNAL: sends it in the middle of a run, which has to go on under the question.
question() {
  sleep 0.2 # signals that come together count as one
  kill "-$1" "$updater"
  # The alert has the title of its window.
  within 10 shown "Updating the QM5" 2 || fail "$1 led to no question"
  within 10 wrote_more_than "$(wrote)" || fail "$1 stopped the update"
}

# The inhibitor that is taken with a press of Next.
awake() {
  within 10 grep -q "^Inhibit:sleep:idle:handle-lid-switch:QM5 Updater:.*:block$" "$work/awake" ||
    fail "$1: not awake"
}
still_awake() { ! grep -q released "$work/awake" || fail "$1: not awake any more"; }
released() {
  within 10 grep -q "^released$" "$work/awake" || fail "$1: still awake"
  [ "$(wc -l <"$work/awake")" = 2 ] || fail "$1: $(cat "$work/awake")"
  : >"$work/awake"
}

start_screen
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/bus
dbus-daemon --session --nofork --address="$DBUS_SYSTEM_BUS_ADDRESS" &
within 10 test -S "$work/bus" || fail "no bus came"
"$logind" >>"$work/awake" &
within 10 grep -q ready "$work/awake" || fail "no logind came"
: >"$work/awake"

one_long_run() {
  start --attach-after 1000 --image "$image" --latency-ms 1
  minimised "QM5 Updater" 1
  xdotool key Return # Next
  awake "no device"
  within 10 shown "QM5 Updater" 2 || fail "no alert came"
  released "no device"
  minimised "QM5 Updater" 2
  press Return # OK
  within 10 shown "QM5 Updater" 1 || fail "the alert stayed"
  kill -USR2 "$simulator" # plugs the QM5 in
  sleep 1                 # a key that is pressed again sooner counts as held
  begin_update
  awake success
  kill -STOP "$updater"
  start_again
  kill -CONT "$updater"
  minimised "Updating the QM5" 1
  question TERM
  minimised "Updating the QM5" 2
  press Escape # "Don't quit"
  within 10 shown "Updating the QM5" 1 || fail "the question stayed"
  question HUP # and nobody answers
  still_awake success
  within 60 window "$success" || fail "the update did not end"
  released success
  on_screen "$success"
  press Return
  ended 0
}

# A pipe of one page that nobody reads, a full disk, a limit of a file's size, closed streams: the
# updates take place, and their windows answer. All at the same time.
# shellcheck disable=SC2016 # the shells that run them expand them
declare -A cases=(
  ["full pipe"]='perl -e "pipe R, W; fcntl W, 1031, 4096; syswrite W, q(.) x 4096;
     open STDOUT, q(>&W); open STDERR, q(>&W); \$^F = 99; fcntl R, 2, 0; exec @ARGV" -- "$@"'
  ["full disk"]='exec "$@" >/dev/full 2>&1'
  ["limited file"]='ulimit -f 1; exec "$@" >"$0" 2>&1'
  ["no output"]='exec "$@" >&- 2>&-'
  ["no streams"]='exec "$@" <&- >&- 2>&-'
)
odd_streams() {
  local name id begun=0 left=${#cases[@]}
  local -A simulators
  for name in "${!cases[@]}"; do
    DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/none "$bin/qm5-simulator" --image "$image" -- \
      bash -c "${cases[$name]}" "$work/limited" "$program" >"$work/${name// /_}" 2>&1 &
    simulators[$name]=$!
  done
  within 30 shown "QM5 Updater" "$left" || fail "$(count "QM5 Updater") windows with odd streams"
  for id in $(window "QM5 Updater"); do
    within 10 press_until runs $((++begun)) "$id" || fail "an update with odd streams did not begin"
  done
  within 60 shown "$success" "$left" || fail "$(count "$success") updates with odd streams"
  for id in $(window "$success"); do
    within 10 press_until shown_success $((--left)) "$id" || fail "a finish dialog stayed"
  done
  for name in "${!cases[@]}"; do
    within 10 gone "${simulators[$name]}" || fail "$name: no end"
    wait "${simulators[$name]}" || fail "$name: $(cat "$work/${name// /_}")"
  done
}
runs() { [ $(($(count "Updating the QM5") + $(count "$success"))) = "$1" ]; }
shown_success() { shown "$success" "$1"; }
# press_until CONDITION NUMBER WINDOW: once more, since a window that comes up takes the keyboard.
press_until() {
  "$1" "$2" || { xdotool windowfocus "$3" key Return && false; }
}

# Each time straight after a kill, while the killed one may still be on its way out.
killed_and_started() {
  # shellcheck disable=SC2016 # the shell that is started expands them
  "$bin/qm5-simulator" -- bash -c 'for _ in $(seq "$1"); do
    "$0" & program=$!
    looks=0 # one fails where a window goes that it looks at
    until timeout 20 xdotool search --sync --onlyvisible --pid $program; do
      kill -0 $program && [ $((++looks)) -lt 20 ] || exit 1
    done
    kill -9 $program
  done 2>/dev/null' "$program" "$1" >"$work/lines" 2>&1 &
  simulator=$!
  within $((10 + $1)) gone "$simulator"
  grep -q "the program ended with 0" "$work/lines" || fail "a killed program did not start again"
}

# Another updater on another bus takes no notice, and ends at a signal, as nothing runs there.
signals() {
  start
  kill -TERM "$updater"
  ended 0
  DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/none start --latency-ms 20
  begin_update
  question HUP # a script's background ignores SIGINT
  sleep 0.2
  kill -TERM "$updater"
  ended 0
  [ "$(grep -c "may fall asleep" "$work/lines")" = 1 ] || fail "not one try to stay awake"
}

# The update goes on without anybody to tell, and the computer is kept awake for it.
lost_display() {
  start --image "$image" --latency-ms 1
  begin_update
  kill "$screen"
  within 10 wrote_more_than $(($(wrote) + 20)) || fail "the update ended with the display"
  still_awake "lost display"
  ended 0 60
  # On standard output, and on standard error with the system log's line.
  [ "$(grep -c "The display has gone. The update ended: $success" "$work/lines")" = 2 ] ||
    fail "the outcome is not told"
  released "lost display"
}

odd_streams
one_long_run
signals
killed_and_started "$([ -v QM5_LONG ] && echo 300 || echo 5)"
lost_display

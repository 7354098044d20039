#!/usr/bin/env bash
# The program on a virtual screen, and what it has to do with the rest of the computer: it keeps
# it awake, it is started again, signals want it to end, its streams are odd, its screen goes.
# With QM5_LONG, it is killed and started again 300 times instead of 5.
# usage: tests/interfere.sh BIN_FOLDER IMAGE DESKTOP [PART]
# All parts run at the same time, each on a screen of its own. IMAGE, a small one, is installed in
# place of the packaged one.
set -euo pipefail
readonly bin=$1 image=$2 desktop=$3 part=${4-}
if [ -z "$part" ]; then
  for each in long_run odd_streams signals killed lost_display lost_compositor; do "$0" "$@" $each & done
  for each in $(jobs -p); do wait "$each" || status=$?; done
  exit "${status-0}"
fi
. "$(dirname "$0")/../tools/virtual_screen.sh"

readonly program=$work/bin/qm5-updater success="Firmware update successful!"
readonly locks=shutdown:sleep:idle:handle-power-key:handle-suspend-key:handle-lid-switch
install -D "$bin/qm5-updater" "$program"
cp -r "$bin/../share" "$work"
cp "$image" "$work"/share/qm5-updater/*.bin

launch() {
  "$bin/qm5-simulator" --attach-after 1000 "$@" -- "$program" >"$work/lines" 2>&1 &
  simulator=$!
}
# start OPTION...: sets $simulator and $updater, once the main window is there and has the keyboard.
start() {
  launch "$@"
  on_screen "QM5 Updater"
  updater=$(child_of $simulator)
}

# plug SIMULATOR...: plugs QM5s in, waits until the programs have found them, and then has all stand
# still: a simulator that is stopped answers nothing.
plug() {
  kill -USR2 "$@"
  for each in "$@"; do await "the QM5 was not found" opened "$(child_of "$each")"; done
  kill -STOP "$@"
}

gone() { ! kill -0 "$1"; }
ended() {
  await "the program does not end" gone "$simulator"
  wrote "the program ended with 0" >/dev/null || fail "the program did not end with 0"
}

shown() { [ "$({ window "$1" || true; } | wc -l)" = "$2" ]; }
active() { [ "$(xdotool getactivewindow getwindowname)" = "$1" ] && shown "$1" "$2"; }
wrote() { grep -c "$1" "$work/lines"; }
wrote_more() { [ "$(wrote chunk)" -gt "$1" ]; }

# Leaves an update near its beginning, standing still.
begin_update() {
  plug "$simulator"
  xdotool key alt+n # Next, wherever the focus is
  await "no update began" goes_on_to wrote chunk
  kill -STOP "$simulator"
}
goes_on_to() { kill -CONT "$simulator"; "$@"; }

# presses KEY ID CONDITION...: once more where the condition does not hold yet, as a window that has
# come up by itself takes no presses at first. The window behind it must not mind that key.
presses() { "${@:3}" || { xdotool windowfocus "$2" key "$1" && false; }; }
top() { window "$1" | tail -n 1; }

# Starts the program again on the bus of the one that runs, in the place of this shell.
start_again() {
  mapfile -t bus < <(tr '\0' '\n' <"/proc/$updater/environ" | grep -E '^(LD_PRE|UMOCK)')
  # In no process group of its own: the shell above, whose parent this becomes, would link the two
  # groups, and at its end the kernel would send SIGHUP to the one with stopped processes.
  exec timeout --foreground 40 env "${bus[@]}" "$@" "$program"
}
again() { (start_again "$@") || fail "a second start ended with $?"; }

minimise_all() {
  for id in $(window ".*QM5.*"); do xdotool windowminimize "$id" || true; done
  shown ".*QM5.*" 0
}
# minimised TITLE COUNT: minimises all windows; a second start brings them back, one of that title,
# of which there are so many, with the keyboard.
minimised() {
  await "windows can't be minimised beside \"$1\"" minimise_all
  again
  await "a second start did not bring \"$1\" back" active "$1" "$2"
}

# question SIGNAL: sends it in the middle of a run, which has to go on under the question, awake.
question() {
  kill "-$1" "$updater"
  await "$1 led to no question" shown "Updating the QM5" 2 # it has the title of its window
  await "$1 stopped the update" goes_on_to wrote_more "$(wrote chunk)"
  kill -STOP "$simulator"
  ! grep -qs "released\|Uninhibit" "$work/awake" || fail "not awake under the question"
}

# start_desktop: without it, there is neither bus.
start_desktop() {
  # No services but the test's own: the computer's would outlive the bus.
  cat >"$work/bus.xml" <<XML
<busconfig>
  <listen>$DBUS_SYSTEM_BUS_ADDRESS</listen>
  <policy context="default">
    <allow own="*"/> <allow send_destination="*" eavesdrop="true"/> <allow eavesdrop="true"/>
  </policy>
</busconfig>
XML
  dbus-daemon --nofork --config-file="$work/bus.xml" 2>/dev/null &
  await "no bus came" test -S "$work/bus"
  "$desktop" >>"$work/awake" &
  await "no desktop came" grep -q ready "$work/awake"
  : >"$work/awake"
}
# awake_until EVENT COMMAND...: both inhibitors have been taken with the press of Next, and are given
# back once the command has succeeded.
awake_until() {
  await "$1: not awake" grep "^Inhibit:$locks:QM5 Updater:.*:block$" "$work/awake"
  await "$1: logging out is not held back" grep "^Inhibit:qm5-updater:0:The firmware .*:1$" "$work/awake"
  await "$1 did not come" "${@:2}"
  await "$1: still awake" grep -q "^released$" "$work/awake"
  # With its connection, the session manager drops the inhibitor of a program that ends.
  gone "$screen" || await "$1: logging out is still held back" grep -q "^Uninhibit:7$" "$work/awake"
  [ "$(grep "^Inhibit\|^Notify\|^released" "$work/awake" | grep -vc "$success")" = 3 ] || fail "$1: $(cat "$work/awake")"
  : >"$work/awake"
}

notified() {
  grep "^Notify:QM5 Updater:0:qm5-updater:$success:New version(QM5 v.4208) Please .*" "$work/awake"
}

long_run() {
  start_desktop
  start --image "$image" --latency-ms 20
  minimised "QM5 Updater" 1
  xdotool key Return # Next
  awake_until "an alert" shown "QM5 Updater" 2
  minimised "QM5 Updater" 2
  await "the alert stayed" presses Escape "$(top "QM5 Updater")" shown "QM5 Updater" 1
  begin_update
  hold "$simulator" again
  minimised "Updating the QM5" 1
  question TERM
  minimised "Updating the QM5" 2
  await "no answer" presses Escape "$(top "Updating.*")" shown "Updating the QM5" 1
  question HUP # and nobody answers
  (start_again DISPLAY="$DISPLAY.0") & # whose notice is another program's window here
  local other=$!
  await "no other program came" shown "QM5 Updater" 2
  on_screen "QM5 Updater"
  awake_until "success" goes_on_to notified
  await "no finish dialog came behind another program" shown "$success" 1
  active "QM5 Updater" 2 || fail "the finish dialog has taken the keyboard"
  dbus-send --bus="$DBUS_SESSION_BUS_ADDRESS" --type=signal /org/freedesktop/Notifications \
    org.freedesktop.Notifications.ActionInvoked uint32:7 string:default
  await "a pressed notification did not bring the finish dialog" active "$success" 1
  await "the notification stayed" grep "^CloseNotification:7$" "$work/awake"
  kill $other
  minimised "$success" 1
  await "the finish dialog stayed" presses Return "$(top "$success")" gone "$simulator"
  ended
}

# A pipe of one page that nobody reads, one whose reader has gone, a full disk, a limit of a file's size, closed streams: the
# updates take place, and their windows answer. All at the same time.
# shellcheck disable=SC2016 # the shells that run them expand them
declare -A cases=(
  ["full pipe"]='perl -e "pipe R, W; fcntl W, 1031, 4096; syswrite W, q(.) x 4096;
     open STDOUT, q(>&W); open STDERR, q(>&W); \$^F = 99; fcntl R, 2, 0; exec @ARGV" -- "$@"'
  ["no reader"]='exec "$@" > >(:) 2>&1'
  ["full disk"]='exec "$@" >/dev/full 2>&1'
  ["limited file"]='ulimit -f 1; exec "$@" >"$0" 2>&1'
  ["no output"]='exec "$@" >&- 2>&-'
  ["no input, no output"]='exec "$@" <&- >&-'
  ["no input, no errors"]='exec "$@" <&- 2>&-'
  ["no streams"]='exec "$@" <&- >&- 2>&-'
)
odd_streams() {
  local simulators=() begun=0 left=${#cases[@]}
  for name in "${!cases[@]}"; do
    "$bin/qm5-simulator" --attach-after 1000 --image "$image" -- \
      bash -c "${cases[$name]}" "$work/limited" "$program" >"$work/streams.${name// /_}" 2>&1 &
    simulators+=($!)
  done
  await "not all windows came with odd streams" shown "QM5 Updater" "$left"
  plug "${simulators[@]}"
  for id in $(window "QM5 Updater"); do
    await "an update with odd streams did not begin" presses Return "$id" shown "Updating the QM5" $((++begun))
  done
  kill -CONT "${simulators[@]}"
  await "not all updates succeeded with odd streams" shown "$success" "$left"
  for id in $(window "$success"); do
    await "a finish dialog stayed" presses Return "$id" shown "$success" $((--left))
  done
  for each in "${simulators[@]}"; do wait "$each" || fail "$(tail -n 3 "$work"/streams.*)"; done
}

# Each time straight after a kill, while the killed one may still be on its way out: a look for its
# window fails where that goes at the same moment.
killed() {
  # shellcheck disable=SC2016 # the shell that is started expands them
  timeout 500 "$bin/qm5-simulator" -- bash -ec 'for _ in $(seq "$1"); do
    "$0" & program=$!
    until timeout 60 xdotool search --sync --onlyvisible --pid $program; do kill -0 $program; done
    kill -9 $program
  done' "$program" "$([ -z "${QM5_LONG-}" ] && echo 5 || echo 300)" >"$work/lines" 2>&1 ||
    wrote "the program ended with 0" || fail "a killed program did not start again"
}

# Another updater on another bus takes no notice, and ends at a signal, as nothing runs there.
signals() {
  start
  (start_again DISPLAY="$DISPLAY.0") & # which counts as another display
  local notice=$!
  await "nothing says on which display the program is" shown "QM5 Updater" 2
  kill -TERM $notice
  await "the notice did not end at a signal" gone $notice
  kill -TERM "$updater"
  ended
  start --latency-ms 20
  begin_update
  question HUP # a script's background ignores SIGINT
  kill -CONT "$simulator"
  await "a second signal did not end the program" insisted
  ended
  [ "$(wrote "may fall asleep")" = 1 ] || fail "not one try to stay awake"
  grep -q __ubsan "$program" && return # which needs descriptors itself
  ! (ulimit -n 16 && "$program") >"$work/lines" 2>&1 || fail "it starts without descriptors"
  wrote "can't start: no more files can be opened" || fail "it does not say what a start lacks"
}
insisted() { gone "$simulator" || { kill -TERM "$updater" && false; }; } # two at once count as one

# The update goes on without anybody to tell, whatever signals say, and the computer is kept awake.
lose_screen() {
  kill "$screen"
  await "nothing says that the display has gone" wrote "The display has gone"
  kill -HUP "$updater"
  await "a signal ended the update" wrote "A signal wants the program to end"
  again DISPLAY= WAYLAND_DISPLAY= 2>&1 | grep "goes on without windows" >/dev/null ||
    fail "a second start does not say what is so"
  ! grep -q "^released" "$work/awake" || fail "not awake without a display"
  awake_until "the outcome" goes_on_to wrote "The display has gone. The update ended: $success"
  ended
}

# Desktops like this one have a theme that brings another toolkit, with a connection of its own.
lost_display() {
  export XDG_CURRENT_DESKTOP=XFCE
  start_desktop
  start --image "$image" --latency-ms 20
  begin_update
  question TERM
  lose_screen
}

lost_compositor() {
  [[ $(dpkg-query -W -f '${Version}' qt6-wayland) = 6.4.* ]] || return 0 # later ones wait for another
  export XDG_CURRENT_DESKTOP=XFCE
  start_desktop
  start_compositor
  screen=$!
  launch --image "$image" --latency-ms 20
  await "the program did not start" wrote "Got data size"
  updater=$(child_of $simulator)
  plug $simulator
  await "no update began" presses alt+n "$(compositor)" goes_on_to wrote chunk
  kill -STOP $simulator
  lose_screen
}

export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/bus
start_screen
"$part"

# shellcheck shell=bash
# A virtual screen with a window manager, and a person in front of it who looks for windows.
# Sourced by bash. What is started goes with the script, and so does the folder $work.

work=$(mktemp -d) # for this user alone, as the run-time folder has to be
trap end_all EXIT

# A program in the middle of an update ends at its second signal. Nothing may be left that stands
# still: the kernel ends the whole group with SIGHUP then.
end_all() {
  set +e
  local running
  for _ in {1..200}; do
    running=$(jobs -pr)
    [ -n "$running" ] || break
    # shellcheck disable=SC2086 # one word for each
    kill $running
    # shellcheck disable=SC2086
    kill -CONT $running
    sleep 0.15
  done 2>/dev/null
  rm -rf "$work"
}

fail() {
  printf 'qm5: %s\n' "$*" >&2
  [ -s "$work/lines" ] && tail -n 20 "$work/lines" >&2
  exit 1
}

# within SECONDS COMMAND...: repeats the command until it succeeds.
within() {
  local end=$((SECONDS + $1))
  shift
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $end ] || return 1
    sleep 0.05
  done
}

# await MESSAGE COMMAND...: fails with that where the command does not succeed in 45 seconds, which a
# busy machine may need.
await() { within 45 "${@:2}" || fail "$1"; }

# child_of PROCESS: the one process that it has started.
child_of() { tr -d ' ' <"/proc/$1/task/$1/children"; }

# opened PROCESS: it has found the QM5.
opened() { find "/proc/$1/fd" -lname "*/dev/bus/usb/*" | grep .; }

# start_display [WIDTHxHEIGHT]: a black one, which stays when its last program has gone.
start_display() {
  exec 3> >(cat >"$work/display")
  Xvfb -displayfd 3 -screen 0 "${1-1280x900}x24" -br -noreset -nolisten tcp >/dev/null 2>&1 &
  # shellcheck disable=SC2034 # for the scripts that end it themselves
  screen=$!
  await "the virtual screen did not start" test -s "$work/display"
  DISPLAY=:$(cat "$work/display")
  export DISPLAY QT_QPA_PLATFORM=xcb XDG_RUNTIME_DIR=$work
  export DBUS_SESSION_BUS_ADDRESS=unix:path=$work/bus # no other desktop is to notice
}

# start_screen [WIDTHxHEIGHT]: a display with a window manager.
# shellcheck disable=SC2120 # most callers take the usual size
start_screen() {
  start_display "$@"
  # A window manager gives the windows their frames and the keyboard its focus. Its frames
  # show no controls: it would draw those too that a window does not offer.
  cat >"$work/openbox.xml" <<'XML'
<openbox_config xmlns="http://openbox.org/3.4/rc">
  <theme><name>Clearlooks</name><titleLayout>NL</titleLayout></theme>
</openbox_config>
XML
  # Before it runs its start-up command, it may drop a window's wish to be shown.
  openbox --config-file "$work/openbox.xml" --startup "touch $work/managed" >/dev/null 2>&1 &
  await "the window manager did not start" test -e "$work/managed"
}

# start_compositor: one of Wayland, which is a window of the screen and takes its keys from there.
start_compositor() {
  weston --backend=x11-backend.so --use-pixman --no-config --socket=wayland >/dev/null 2>&1 &
  export WAYLAND_DISPLAY=wayland QT_QPA_PLATFORM=wayland
  await "no compositor came" compositor
}
compositor() { test -S "$work/wayland" && xdotool search --onlyvisible --class weston; }

# Where a window goes at the wrong moment, xdotool would wait for it for ever.
xdotool() { timeout 30 xdotool "$@"; }

window() { xdotool search --onlyvisible --name "^$1$"; }

# on_screen TITLE: waits until that window is there and has the keyboard.
on_screen() {
  await "no window \"$1\" came" window "$1"
  xdotool windowfocus --sync "$(window "$1" | tail -n 1)"
}

# save TITLE FILE: a picture of that window with its frame.
save() {
  sleep 0.3 # a frame or two, so that it is painted
  import -frame -window "$(window "$1" | tail -n 1)" "$2" || fail "no picture of the window \"$1\""
}

# press KEY: presses it once a window that has come up by itself takes presses, which it does not in
# its first half second.
press() {
  sleep 0.7
  xdotool key "$1"
}

# hold SIMULATOR COMMAND...: runs the command while the updater stands still.
hold() {
  local updater
  updater=$(child_of "$1")
  kill -STOP "$updater"
  "${@:2}"
  kill -CONT "$updater"
}

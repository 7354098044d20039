#!/usr/bin/env bash
# Updates a software QM5 on a virtual screen, by the keyboard, as a person would.
# usage: tools/drive_windows.sh BIN_FOLDER IMAGE SCREENS_FOLDER
# Saves a PNG of each window there; exits 0 only when every step went well.
set -euo pipefail
readonly bin=$1 image=$2 screens=$3
mkdir -p "$screens"
rm -f "$screens"/*.png
work=$(mktemp -d) # for this user alone, as the run-time folder has to be
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT

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

start_screen() {
  exec 3> >(cat >"$work/display")
  Xvfb -displayfd 3 -screen 0 1280x900x24 -nolisten tcp >/dev/null 2>&1 &
  within 10 test -s "$work/display" || fail "the virtual screen did not start"
  DISPLAY=:$(cat "$work/display")
  export DISPLAY QT_QPA_PLATFORM=xcb XDG_RUNTIME_DIR=$work
  # A window manager gives the windows their frames and the keyboard its focus. Its frames
  # show no controls: it would draw those too that a window does not offer.
  cat >"$work/openbox.xml" <<'XML'
<openbox_config xmlns="http://openbox.org/3.4/rc">
  <theme><name>Clearlooks</name><titleLayout>NL</titleLayout></theme>
</openbox_config>
XML
  openbox --config-file "$work/openbox.xml" >/dev/null 2>&1 &
  within 10 xdotool get_desktop || fail "the window manager did not start"
}

window() { xdotool search --onlyvisible --name "^$1$"; }

# on_screen TITLE: waits until that window is there and has the keyboard.
on_screen() {
  within 30 window "$1" || fail "no window \"$1\" came"
  xdotool windowfocus --sync "$(window "$1" | tail -n 1)"
}

save() {
  sleep 0.3 # a frame or two, so that it is painted
  import -frame -window "$(window "$1" | tail -n 1)" "$screens/$2.png" ||
    fail "no picture of the window \"$1\""
}

start_screen
"$bin/qm5-simulator" --version 4201 --image "$image" -- "$bin/qm5-updater" >"$work/lines" 2>&1 &
readonly simulator=$!

on_screen "QM5 Updater"
save "QM5 Updater" main
xdotool key Return # Next is the default button

within 30 grep -q "Writing SFWd chunk 0" "$work/lines" || fail "the update did not start"
readonly blocks=$((($(stat -c %s "$image") - 772 + 63) / 64))
within 300 grep -q "Writing SFWd chunk $((blocks / 2))\$" "$work/lines" || fail "no half way"
# A fast machine would be done before the picture is.
updater=$(cat "/proc/$simulator/task/$simulator/children")
kill -STOP $updater
save "Updating the QM5" progress
kill -CONT $updater

ended() { window "Firmware update successful!" || ! window "Updating the QM5"; }
within 300 ended || fail "the update did not end"
on_screen "Firmware update successful!"
save "Firmware update successful!" finish
xdotool key Return # "Confirm & Exit"

status=0
wait "$simulator" || status=$?
cat "$work/lines"
for name in main progress finish; do
  [ -s "$screens/$name.png" ] || fail "no screenshot of the window \"$name\""
done
printf '== Screenshots:'
printf ' %s' "$screens"/*.png
echo
exit "$status"

#!/usr/bin/env bash
# Writes what the screen reader Orca says of an update, from the start of the program on: what a person
# hears who can't see the windows. Needs the packages orca and at-spi2-core.
# usage: tools/record_speech.sh BIN_FOLDER IMAGE, which is the packaged one
set -euo pipefail
readonly bin=$1 image=$2
. "$(dirname "$0")/virtual_screen.sh"

start_screen
export HOME=$work/home # with Orca's settings as they are at first
mkdir -p "$HOME/.config/speech-dispatcher"
cat >"$HOME/.config/speech-dispatcher/speechd.conf" <<END
CommunicationMethod "unix_socket"
AudioOutputMethod "alsa"
AddModule "dummy" "sd_dummy" ""
DefaultModule dummy
END
dbus-daemon --session --nofork --address="$DBUS_SESSION_BUS_ADDRESS" >/dev/null 2>&1 &
await "no bus came" test -S "$work/bus"
orca --debug-file="$work/orca" >/dev/null 2>&1 &
readonly orca=$!
await "Orca does not speak" grep -q "Screen reader on" "$work/orca"
"$bin/qm5-simulator" --attach-after 1000 --image "$image" --busy SFWs=1 -- "$bin/qm5-updater" \
  >"$work/lines" 2>&1 &
readonly simulator=$!
on_screen "QM5 Updater"
sleep 5 # in which Orca reads the window
kill -USR2 $simulator # plugs the QM5 in
await "the QM5 was not found" opened "$(child_of $simulator)"
sleep 2
xdotool key Return
within 120 window "Firmware update successful!" || fail "the update did not end"
sleep 5
kill $orca # It ends, and writes the rest, at the next event.
press Return
wait $simulator
wait $orca || true

# A text may have several lines.
grep -zoP "SPEECH OUTPUT: '\K[^{]*?(?=' ?\{)" "$work/orca" | tr '\0' '\n' | sed -E 's/^ +//'

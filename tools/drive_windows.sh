#!/usr/bin/env bash
# Updates a software QM5 on a virtual screen, by the keyboard, as a person would.
# usage: tools/drive_windows.sh BIN_FOLDER IMAGE SCREENS_FOLDER [ROOT USER]
# Saves a PNG of each window there; exits 0 only when every step went well.
# With ROOT the programs run in that other system as its USER, and are to be found there with
# their image; the screen stays out here.
set -euo pipefail
readonly bin=$1 image=$2 screens=$3 root=${4-} user=${5-}
mkdir -p "$screens"
rm -f "$screens"/*.png
. "$(dirname "$0")/virtual_screen.sh"

in_system=()
if [ -n "$root" ]; then
  in_system=(chroot --userspec="$user" "$root" env -u XDG_RUNTIME_DIR HOME="/home/$user")
fi

start_screen
desktop_file=$(dirname "$0")/../packaging/qm5-updater.desktop
program=$bin/$(grep -oP "^Exec=\K\S+" "$desktop_file") # as from the desktop's menu
"${in_system[@]}" "$bin/qm5-simulator" --attach-after 1000 --version 4201 --image "$image" \
  -- "$program" >"$work/lines" 2>&1 &
readonly simulator=$!

on_screen "QM5 Updater"
class=$(grep -oP "^StartupWMClass=\K.+" "$desktop_file")
xdotool search --onlyvisible --classname "^$class\$" >/dev/null || fail "no window of class \"$class\""
kill -USR2 $simulator # plugs the QM5 in: on a busy machine, one that is there already may be missed
await "the QM5 was not found" opened "$(child_of $simulator)"
save "QM5 Updater" "$screens/main.png"
xdotool key Return # Next is the default button

within 30 grep -q "Writing SFWd chunk 0" "$work/lines" || fail "the update did not start"
readonly blocks=$((($(stat -c %s "$root$image") - 772 + 63) / 64))
within 300 grep -q "Writing SFWd chunk $((blocks / 2))\$" "$work/lines" || fail "no half way"
# A fast machine would be done before the picture is.
hold $simulator save "Updating the QM5" "$screens/progress.png"

ended() { window "Firmware update successful!" || ! window "Updating the QM5"; }
within 300 ended || fail "the update did not end"
on_screen "Firmware update successful!"
save "Firmware update successful!" "$screens/finish.png"
confirmed() { press Return && ! window "Firmware update successful!"; } # "Confirm & Exit"
within 30 confirmed || fail "the finish dialog stayed"

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

#!/usr/bin/env bash
# What a screen reader gets to know of an update, on X and on Wayland at the same time.
# usage: tests/accessibility.sh BIN_FOLDER IMAGE [PLATFORM], where IMAGE is the packaged one
set -euo pipefail
readonly bin=$1 image=$2 platform=${3-}
if [ -z "$platform" ]; then
  for each in xcb wayland; do "$0" "$@" $each & done
  for each in $(jobs -p); do wait "$each" || status=$?; done
  exit "${status-0}"
fi
. "$(dirname "$0")/../tools/virtual_screen.sh"

start_screen
dbus-daemon --session --nofork --address="$DBUS_SESSION_BUS_ADDRESS" >/dev/null 2>&1 &
await "no bus came" test -S "$work/bus"
# As the desktop does when a screen reader is switched on.
dbus-send --session --print-reply --dest=org.a11y.Bus /org/a11y/bus \
  org.freedesktop.DBus.Properties.Set string:org.a11y.Status string:IsEnabled \
  variant:boolean:true >/dev/null
export QT_QPA_PLATFORM=$platform
[ "$platform" = xcb ] || start_compositor
# Of the distribution, as its modules are.
/usr/bin/python3 "$(dirname "$0")/accessibility.py" \
  "$bin/qm5-simulator" --attach-after 1000 --image "$image" --fault SFWd:2=silent --busy SFWs=1 \
  -- "$bin/qm5-updater" >"$work/lines" || fail "on $platform"

#!/usr/bin/env bash
# Asks udev what the rule does: the person at the seat may open a QM5, and nobody else; nor does the
# rule reach the hub that the QM5 is plugged into.
# usage: tests/udev_rule.sh SIMULATOR RULE
set -euo pipefail
readonly rules=/etc/udev/rules.d not_run=77

# With a folder for rules of its own. What udev notes of the device stays there as well: no node of
# the computer's may change. A computer may forbid such mounts.
if [ "${3-}" != --with-own-mounts ]; then
  unshare --map-root-user --mount true || exit $not_run
  exec unshare --map-root-user --mount "$0" "$@" --with-own-mounts
fi
mount -t tmpfs none $rules
mount -t tmpfs none /run
mount --rbind /dev /dev
mount -o remount,bind,ro /dev
cp "$2" $rules/70-qm5.rules
for port in 1-1.2:yes 1-1:no; do
  answer=$("$1" -- udevadm test "/sys/bus/usb/devices/${port%:*}" 2>&1) || true
  opens=no
  ! grep -q "^CURRENT_TAGS=.*:uaccess:" <<<"$answer" || opens=yes
  if [ $opens != "${port#*:}" ] || grep -q "70-qm5.rules:.*MODE" <<<"$answer"; then
    printf '%s\n' "$answer" "By the rule, the person may open port ${port%:*}: $opens"
    exit 1
  fi
done

#!/usr/bin/env bash
# What the kernel's guest tries: prints a line for each case up to the first that fails, and "All held"
# in the end. Each case goes on where the one before it has ended.
set -uo pipefail
cd "$(dirname "$0")" || exit
for part in guest.sh *_cases.sh; do
  # shellcheck disable=SC1090 # checked by themselves
  . "./$part"
done

modprobe -a vhci-hcd uinput
echo "Linux $(uname -r), up for $(cut -d ' ' -f 1 /proc/uptime) s: $(systemctl is-system-running)"
# shellcheck disable=SC2154 # guest.sh sets them
touch "$output" "$verdict"
hold "a person has logged in at the screen" take_session
install_cases
unplug_case "the task SFWd" SFWd:3=unplug
for group in $(<groups); do "${group}_cases"; done
echo "All held, $SECONDS s after the start of the check"

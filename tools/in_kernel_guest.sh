#!/usr/bin/env bash
# What tools/kernel_guest.sh tries inside its guest: prints a line for each case up to the first that
# fails, and "All held" in the end. Each case goes on where the one before it has ended.
set -uo pipefail
readonly image=/usr/local/share/small.bin simulator_line=/run/simulator.line log=/run/case.log
simulator=0

# hold WHAT COMMAND...: whether the command succeeds.
hold() {
  local began=$SECONDS
  if "${@:2}" >"$log" 2>&1; then
    echo "held ($((SECONDS - began)) s): $1"
  else
    echo "FAILED: $1"
    tail -n 20 "$log"
    exit 1
  fi
}

# comes COMMAND...: waits up to a minute until the command succeeds.
comes() {
  local end=$((SECONDS + 60))
  until "$@"; do
    [ $SECONDS -lt $end ] || return 1
    sleep 0.1
  done
}

ends_with() { # STATUS COMMAND...
  "${@:2}"
  local status=$?
  echo "ended with $status"
  [ $status -eq "$1" ]
}

start_simulator() { # OPTION...
  qm5-simulator --usbip "$@" >"$simulator_line" 2>&1 &
  simulator=$!
  comes grep -q attach "$simulator_line"
}

# Whether the QM5s kept to their verdict, which is that all was right.
stop_simulator() {
  kill "$simulator"
  wait "$simulator"
  local status=$?
  cat "$simulator_line"
  return $status
}

attach() { usbip attach --remote localhost --busid 1-1.2 && comes is_there; }
detach() { usbip detach --port 0 && comes is_gone; }

# The folder of the QM5 in /sys.
qm5() { grep -lx ace1 /sys/bus/usb/devices/*/idProduct 2>/dev/null | xargs -r dirname; }
is_there() { [ -c "$(node)" ] && [ "$(cat "$(qm5)/bConfigurationValue")" = 1 ]; }
is_gone() { [ -z "$(qm5)" ]; }
node() { is_gone || printf '/dev/bus/usb/%03d/%03d' "$(cat "$(qm5)/busnum")" "$(cat "$(qm5)/devnum")"; }
is_described() {
  [ "$(cat "$(qm5)/product")" = QM5 ] && [ "$(cat "$(qm5)/speed")" = 480 ] && lsusb -vd 0451:ace1
}

as_person() { runuser -u person -- "$@"; }
# An emulated processor may take longer than the second in which an update looks for the QM5.
check() { as_person qm5-update --wait=60 --check; }
update() { as_person qm5-update --wait=60 --image "$image" --target 4208; }
may_open() { as_person test -w "$(node)"; }
may_not_open() { ! may_open; }

has_seat() { loginctl list-sessions --no-legend | grep -q 'person.*seat0'; }

modprobe vhci-hcd
echo "Linux $(uname -r), up for $SECONDS s: $(systemctl is-system-running)"
start_simulator --image "$image"
hold "a person has logged in at the screen" comes has_seat
hold "the QM5 is attached" attach
hold "it is described as it is" is_described
hold "nobody but root may open it" may_not_open
hold "the packages install" dpkg -i /root/packages/*.deb
hold "the person may open it without a replug" comes may_open
hold "the person finds that an update is due" ends_with 10 check
hold "the person updates it" update
hold "its power is switched off" detach
hold "and on" attach
hold "the person may open it again" comes may_open
hold "the update has taken effect" check
hold "the QM5 has nothing to complain of" stop_simulator
hold "it has gone with the simulator" comes is_gone

start_simulator --fault SFWd:3=unplug
hold "another one is attached" attach
comes may_open
hold "unplugged during the update, which fails" ends_with 1 update
hold "it has gone" comes is_gone
hold "plugged in again" attach
hold "unplugged by a signal" kill -USR1 "$simulator"
hold "it has gone again" comes is_gone
stop_simulator
echo "All held"

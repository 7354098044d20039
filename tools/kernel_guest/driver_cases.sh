# shellcheck shell=bash
# shellcheck disable=SC2154 # guest.sh sets the names that are not set here
# What an administrator can do to a QM5 without unplugging it: reset it, forbid it, take its driver away.
# Each of them to a program that is idle, and in the middle of an update.

reset() { usbreset 0451:ace1; }
forbid_and_allow() { echo 0 >"$place/authorized" && sleep 1 && echo 1 >"$place/authorized"; }
unbind_and_bind() {
  echo "${place##*/}" >"$sysfs"/drivers/usb/unbind && sleep 1 && echo "${place##*/}" >"$sysfs"/drivers/usb/bind
}

# driver_case WHAT COMMAND
driver_case() {
  start_simulator --latency-ms 50
  attach
  place=$(qm5)
  hold "$1 during an update: it goes on to its end" goes_on "$2"
  hold "request for request as prescribed" are_as_prescribed
  hold "and the QM5 has nothing to complain of" stop_simulator
}
goes_on() {
  start "${update[@]}"
  comes has_requests $(($(wc -l <requests) / 2)) && "$1" && is_not_over && ends_with 0
}
is_not_over() { ! has_requests "$(wc -l <requests)"; }

# To the program it has left then, and comes back to the next start alone. In the middle of the payload,
# whose tasks have short time-outs.
is_taken_away() {
  start "${update[@]}"
  comes has_requests 10 && unbind_and_bind && ends_with 1 "Flash firmware error"
}

driver_cases() {
  driver_case "a reset" reset
  driver_case "authorized 0, then 1," forbid_and_allow
  start_simulator --latency-ms 50
  attach
  place=$(qm5)
  hold "the driver's unbind during an update: it fails" is_taken_away
  hold "after the bind, the next one updates it" update
  stop_simulator >"$log"
  hold "a virtual screen starts" start_screen
  start_simulator
  attach
  place=$(qm5)
  hold "idle windows take the QM5" start_windows
  hold "a reset" reset
  hold "authorized 0, then 1" forbid_and_allow
  hold "they update it, to the finish dialog" finishes
  hold "which ends the program" ends_at_confirm
  hold "the QM5 has nothing to complain of" stop_simulator
}

# shellcheck shell=bash
# shellcheck disable=SC2154 # guest.sh sets the names that are not set here
# The QM5 is unplugged in each stage of an update. The outcome is what is so, and the next update works.

# unplug_case STAGE FAULT [TEXT [NEXT]]: the fault unplugs it there, and the update ends by saying TEXT,
# the next one by saying NEXT.
unplug_case() {
  start_simulator --fault "$2"
  attach
  hold "unplugged in $1: the update fails" fails "${3-Flash firmware error}"
  hold "it has gone; plugged in again, it is updated" updates_anew ${4+"$4"}
}
fails() { start "${update[@]}" && ends_with 1 "$1"; }
updates_anew() { comes is_gone && attach && update ${1+"$1"} && stop_simulator; }

# While the program waits a second before it looks.
is_unplugged_before() {
  start qm5-update --check
  comes has_opened && unplug && ends_with "3|1" "No QM5 device !|Get customer version error !"
}

is_power_cycled() {
  start "${update[@]}" --confirm=120
  comes says "power cycle" && unplug && comes says "is off, unplugged" && attach &&
    ends_with 0 "reported version 4208. The update is complete"
}
is_not_plugged_in_again() {
  start "${update[@]}" --confirm=15
  comes says "power cycle" && unplug && ends_with 1 "was not power-cycled in time"
}

unplug_cases() {
  unplug_case "the version read" request:1=unplug "Get customer version error !"
  unplug_case "the task SFWi" SFWi:1=unplug
  unplug_case "the first task SFWs" SFWs:1=unplug
  # The QM5 has taken the update by then, and nobody has told the program.
  unplug_case "the last task SFWs" SFWs:12=unplug "Flash firmware error" "no need to update"
  start_simulator
  attach
  hold "unplugged before the update looks for it" is_unplugged_before
  attach
  hold "unplugged and plugged in when a power cycle is waited for" is_power_cycled
  stop_simulator >"$log"
  start_simulator
  attach
  hold "unplugged for good then" is_not_plugged_in_again
  stop_simulator >"$log"
}

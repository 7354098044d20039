# shellcheck shell=bash
# shellcheck disable=SC2154 # guest.sh sets the names that are not set here
# What an attached QM5 costs the processor while nothing is to be done.

readonly idle_seconds=60 most_per_mille=1 # of a core

# The processor time that all threads of a process have had, in microseconds.
time_of() { awk '{ sum += $1 } END { printf "%d", sum / 1000 }' /proc/"$1"/task/*/schedstat; }
# What the kernel counts of it for everybody to see, in hundredths of a second.
ticks_of() { sed 's/.*) //' "/proc/$1/stat" | awk '{ print $12 + $13 }'; }

# is_cheap: the program and the software QM5, over a minute.
is_cheap() {
  local before before_simulator ticks used
  sleep 5 # what the start has left to do
  before=$(time_of "$program")
  before_simulator=$(time_of "$simulator")
  ticks=$(ticks_of "$program")
  sleep $idle_seconds
  used=$(($(time_of "$program") - before))
  note "$used us of the processor in $idle_seconds s ($((($(ticks_of "$program") - ticks) * 10)) ms by" \
    "its ticks), the software QM5 $(($(time_of "$simulator") - before_simulator)) us"
  [ $used -le $((idle_seconds * 1000 * most_per_mille)) ]
}
waits() { start qm5-update --wait --check && comes says "Waiting for a QM5"; }
is_ended() { kill "$program" && ends_with "$1"; }

idle_cases() {
  hold "a virtual screen starts" start_screen
  start_simulator
  attach
  hold "idle windows take the QM5" start_windows
  hold "they cost at most $most_per_mille per mille of a core" is_cheap
  hold "a signal ends them" is_ended 0
  unplug
  hold "qm5-update waits for a QM5" waits
  hold "it costs no more" is_cheap
  hold "a signal ends it" is_ended 7
  stop_simulator >"$log"
}

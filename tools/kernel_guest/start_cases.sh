# shellcheck shell=bash
# shellcheck disable=SC2154 # guest.sh sets the names that are not set here
# Starts with the plug at random moments around them: each finds the QM5.

readonly starts=50 widest=4000 # milliseconds from the one to the other, half of them before the start

plug_in_later() { sleep "$(milliseconds "$1")" && plug_in; }
milliseconds() { printf '%d.%03d' $(($1 / 1000)) $(($1 % 1000)); }

finds_it() {
  local moment
  RANDOM=4208
  for ((i = 1; i <= starts; i++)); do
    moment=$((RANDOM % widest - widest / 2))
    echo "start $i, plugged in $moment ms after it"
    if [ $moment -lt 0 ]; then
      plug_in && sleep "$(milliseconds $((-moment)))" && start qm5-update --wait=60 --check || return
    else
      start qm5-update --wait=60 --check
      plug_in_later $moment || return
    fi
    ends_with 10 "needs an update" && unplug || return
  done
}

start_cases() {
  start_simulator
  hold "$starts starts with the plug at random moments around them find the QM5" finds_it
  stop_simulator >"$log"
}

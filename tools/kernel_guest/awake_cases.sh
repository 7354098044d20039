# shellcheck shell=bash
# shellcheck disable=SC2154 # guest.sh sets the names that are not set here
# During an update, logind refuses what would end it. It says so in its journal.

is_inhibited() {
  systemd-inhibit --list --no-pager
  systemd-inhibit --list --no-pager | grep -q "QM5 Updater.* person .*$program .*shutdown:sleep.*block"
}
is_not_inhibited() { ! is_inhibited; }

logind_said() { journalctl --quiet --unit systemd-logind --output cat | grep -qE "$1"; }
make_keys() {
  systemctl service-log-level systemd-logind debug
  mkfifo /run/keys
  python3 keys.py </run/keys >>/run/keys.log 2>&1 &
  exec 7>/run/keys
  comes logind_said "Watching system buttons on .*QM5 case"
}
is_refused() { # KEY OPERATION LOCK
  echo "$1" >&7
  comes logind_said "Refusing $2 operation, $3 is inhibited"
}

awake_cases() {
  hold "the computer has keys and a lid" make_keys
  start_simulator --latency-ms 150
  attach
  start "${update[@]}"
  hold "the update holds back sleep and shutdown" comes is_inhibited
  hold "the power key is refused" is_refused power poweroff handle-power-key
  hold "the sleep key is refused" is_refused sleep suspend handle-suspend-key
  hold "the lid is refused" is_refused lid suspend handle-lid-switch
  hold "the update still holds them back" is_inhibited
  hold "it ends well" ends_with 0
  hold "nothing is held back any more" comes is_not_inhibited
  hold "the QM5 has nothing to complain of" stop_simulator
}

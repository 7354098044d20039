# shellcheck shell=bash
# shellcheck disable=SC2154 # guest.sh sets the names that are not set here
# The packages come while a QM5 is attached and a program of theirs runs; then one update.

is_described() {
  [ "$(cat "$(qm5)/product")" = QM5 ] && [ "$(cat "$(qm5)/speed")" = 480 ] && lsusb -vd 0451:ace1
}

# The command, from where nobody has installed it.
start_uninstalled() {
  for package in packages/qm5-updater-c*.deb; do dpkg-deb -x "$package" uninstalled; done
  start "$PWD/uninstalled/usr/bin/qm5-update" --wait --check
  comes says 'you may not open it'
}

# How long the program took from the person's permission on.
takes_it() {
  local permitted
  comes may_open && permitted=$(date +%s%N) && comes has_begun || return
  note "$((($(date +%s%N) - permitted) / 1000000)) ms after the permission"
}
has_begun() { has_requests 1 || is_over; }

may_not_open() { ! may_open; }
install() {
  dpkg -i packages/*.deb || return
  cp "$image" /usr/share/qm5-updater/QM5-combind-051723-secure-Cus-42.bin # which the windows write
}

install_cases() {
  start_simulator
  plug_in && comes is_there
  hold "the QM5 is described as it is" is_described
  hold "nobody but root may open it" may_not_open
  hold "a program says so, and waits" start_uninstalled
  hold "the packages install" install
  hold "the program takes the QM5 without a replug" takes_it
  hold "and finds that an update is due" ends_with 10 "needs an update"
  hold "the person updates it" update
  hold "a power cycle" power_cycle
  hold "the update has taken effect" check 0 "no need to update"
  hold "the QM5 has nothing to complain of" stop_simulator
}

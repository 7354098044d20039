# shellcheck shell=bash
# What the cases of the kernel's guest share: waiting, the software QM5, the person at the screen.
# Sourced there by check.sh, in the folder that has the guest's files.
# shellcheck disable=SC2034 # used by the cases

readonly image=$PWD/image.bin log=/run/case.log verdict=/run/verdict trace=/run/trace
readonly output=/run/program.log sysfs=/sys/bus/usb
simulator=0 program=0 session="" person_environment=()

# hold WHAT COMMAND...: whether the command succeeds.
hold() {
  local began=$SECONDS
  if "${@:2}" >"$log" 2>&1; then
    echo "held ($((SECONDS - began)) s): $1$(sed -n 's/^note: / -- /p' "$log")"
  else
    echo "FAILED: $1"
    tail -n 20 "$log"
    echo "-- the program:"
    tail -n 20 "$output"
    echo "-- the verdict:"
    cat "$verdict"
    exit 1
  fi
}

# note TEXT: shows behind the line of the case.
note() { echo "note: $*"; }

# comes COMMAND...: waits up to two minutes until the command succeeds. The processor is emulated.
comes() {
  local end=$((SECONDS + 120))
  until "$@"; do
    [ $SECONDS -lt $end ] || { echo "did not come: $*"; return 1; }
    sleep 0.1
  done
}

start_simulator() { # OPTION...
  rm -f "$trace"
  ./qm5-simulator --usbip --image "$image" --trace "$trace" "$@" >"$verdict" 2>&1 &
  simulator=$!
  comes grep -q attach "$verdict"
}

# Whether the QM5 holds the image, and the host kept to the protocol.
stop_simulator() {
  local status=0
  kill "$simulator"
  wait "$simulator" || status=$?
  comes is_gone && tail -n 1 "$verdict" && [ $status -eq 0 ]
}

requests() { [ ! -f "$trace" ] || wc -l <"$trace"; }
has_requests() { [ "$(requests)" -ge "$1" ]; }
# Whether the requests were those of an update, each as it should be. They differ in their times.
are_as_prescribed() { diff <(without_times requests) <(without_times "$trace"); }
without_times() { sed 's/^{"t":[0-9.]*,//' "$1"; }

plug_in() { usbip attach --remote localhost --busid 1-1.2; }
attach() { plug_in && comes is_there && comes may_open; }
unplug() { kill -USR1 "$simulator" && comes is_gone; }
power_cycle() { unplug && attach; }

# The folder of the QM5 in /sys, and its node.
qm5() { grep -lx ace1 $sysfs/devices/*/idProduct 2>/dev/null | xargs -r dirname; }
is_there() { [ -c "$(node)" ] && [ "$(cat "$(qm5)/bConfigurationValue")" = 1 ]; }
is_gone() { [ -z "$(qm5)" ]; }
node() {
  local folder
  folder=$(qm5)
  [ -z "$folder" ] || printf '/dev/bus/usb/%03d/%03d' "$(cat "$folder/busnum")" "$(cat "$folder/devnum")"
}
may_open() { as_person test -w "$(node)"; }

# The session at the screen, where the person has logged in.
session() { loginctl list-sessions --no-legend | awk '$3 == "person" && $4 == "seat0" { print $1 }'; }
has_session() { [ -n "$(session)" ]; }
take_session() {
  comes has_session && session=$(session) && loginctl show-session "$session" &&
    [ "$(loginctl show-session "$session" -p Active --value)" = yes ]
}

# become_person COMMAND...: this process is the person's, in the session, as logind and polkit tell by
# the control group, and runs the command.
become_person() {
  local id
  id=$(id -u person)
  echo "$BASHPID" >"/sys/fs/cgroup/user.slice/user-$id.slice/session-$session.scope/cgroup.procs"
  cd /home/person && exec setpriv --reuid person --regid person --init-groups env -i \
    PATH=/usr/local/bin:/usr/bin:/bin HOME=/home/person XDG_RUNTIME_DIR="/run/user/$id" \
    XDG_SESSION_ID="$session" LC_ALL=C.UTF-8 "${person_environment[@]}" "$@"
}
as_person() { (become_person "$@"); }

# start PROGRAM...: as the person, in the background; its lines are in $output.
start() {
  become_person "$@" >"$output" 2>&1 &
  program=$!
}
says() { grep -qE -- "$1" "$output"; }
has_opened() { find "/proc/$program/fd" -lname "$(node)" 2>/dev/null | grep -q .; }
is_over() { ! kill -0 "$program" 2>/dev/null; }

# ends_with STATUS [TEXT]: the program ends within two minutes with that status, and has said that.
ends_with() {
  local status=0
  comes is_over || return 1
  wait "$program" || status=$?
  echo "ended with $status"
  [[ $status =~ ^($1)$ ]] && { [ -z "${2-}" ] || says "$2"; }
}

# An emulated processor may take longer than the second in which an update looks for the QM5.
readonly update=(qm5-update --wait=60 --image "$image" --target 4208)
check() { start qm5-update --wait=60 --check && ends_with "$@"; }
update() { start "${update[@]}" && ends_with 0 "${1-update successful}"; }

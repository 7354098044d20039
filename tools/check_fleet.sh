#!/usr/bin/env bash
# Runs the playbook in examples/ansible, as it is, with the packages that ./package has built, and
# checks the table that it writes. The hosts are copies of a fresh Debian, each with a software QM5
# on a bus of its own. In place of ssh, a script runs each command in the copy, by chroot.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/common.sh
. tools/fresh_system.sh

compgen -G "build/package/*.deb" >/dev/null ||
  { say "There are no packages yet: ./package builds them"; exit 1; }
if [ "${1-}" != --with-own-mounts ]; then
  install_missing "${packages_build[@]}" "${packages_fleet_check[@]}"
  ansible-lint --offline -q examples/ansible
  build release qm5-simulator
  # What gets mounted and started from here on is gone with this process, however it ends.
  as_root unshare --mount --pid --fork --kill-child --mount-proc \
    tools/check_fleet.sh --with-own-mounts
  exit
fi
trap 'exit 130' INT TERM # which the first process of a process space ignores otherwise
work=$(mktemp -d)
readonly work debian=$work/debian
trap 'umount --lazy "$work"; rmdir "$work"' EXIT
mount -t tmpfs tmpfs "$work"

# The hosts, in batches of 1, 4 and 4: the simulator's options, the variables in the inventory, and
# the rows after the first run and the second one. In the first one, half of the second batch fail.
readonly refuses_twice="--fault SFWi:1=result:5 --fault SFWi:2=result:5"
readonly cycled=qm5_power_cycle=$work/power_cycle.yml
readonly not_cycled="qm5_power_cycle=tasks/power_cycle.yml qm5_confirm_seconds=1"
readonly hosts="\
first||$cycled|1-1.2,4201,4208,confirmed,0|1-1.2,4208,4208,up-to-date,0
retried|--fault SFWd:2=result:5|$cycled|1-1.2,4201,4208,failed,1|1-1.2,4201,4208,confirmed,0
refusing|$refuses_twice|$cycled|1-1.2,4201,4208,failed,1|1-1.2,4201,4208,failed,1
empty|--attach-after 100000||,,4208,no-device,3|,,4208,no-device,3
current|--version 4208|$cycled|1-1.2,4208,4208,up-to-date,0|1-1.2,4208,4208,up-to-date,0
unswitched|||,,,not-checked,|1-1.2,4201,4208,updated,0
stuck||$not_cycled|,,,not-checked,|1-1.2,4201,4208,unconfirmed,1
forbidden|--no-permission||,,,not-checked,|,,4208,not-permitted,4
away|absent||,,,not-checked,|,,,not-checked,"

fail() { # FILE TEXT
  tail -n 60 "$1"
  say "The fleet fails: $2"
  exit 1
}

# A minimal system of this machine's release, with all that the hosts have in common.
make_system() {
  make_bare_system "$own_suite" "$debian"
  # Since Debian 13, libraries built for 64-bit times have names that end in t64.
  in_system "$debian" apt-get satisfy -y --no-install-recommends \
    "python3, umockdev, libumockdev0t64 | libumockdev0, libssl3t64 | libssl3" "$(dpkg-deb -f \
      build/package/qm5-updater-cli_*.deb Depends | sed 's/qm5-updater-common ([^)]*), //')"
  rm -r "$debian"/var/lib/apt/lists/* # or each host would read them all
  install -m 755 build/release/bin/qm5-simulator "$debian/usr/bin"
  dpkg-deb --fsys-tarfile build/package/qm5-updater-common_*.deb |
    tar -xO --wildcards '*.bin' >"$debian/tmp/image"
}

# make_host NAME [OPTION...]: with the simulator's options. It runs until there is a file /run/stop.
declare -A simulators
make_host() {
  local host=$work/hosts/$1 changes=$work/changes/$1
  mkdir -p "$host" "$changes/new" "$changes/work"
  mount -t overlay -o "lowerdir=$debian,upperdir=$changes/new,workdir=$changes/work" overlay "$host"
  mount -t proc proc "$host/proc"
  # shellcheck disable=SC2016 # variables of the shell there
  in_system "$host" qm5-simulator --image /tmp/image "${@:2}" -- sh -c \
    'echo $PPID >/run/simulator; env | grep -E "^(LD_PRELOAD|UMOCKDEV_DIR)=" >/run/bus
    until [ -e /run/stop ]; do sleep 0.2; done' >"$work/$1.log" 2>&1 &
  simulators[$1]=$!
  until [ -s "$host/run/bus" ]; do sleep 0.1; done
}

make_fleet() {
  local name options variables first second
  echo "[qm5]" >"$work/inventory"
  echo "host,place,version,target,outcome,status" | tee "$work/first.csv" >"$work/second.csv"
  while IFS='|' read -r name options variables first second; do
    # shellcheck disable=SC2086 # several words
    [ "$options" = absent ] || make_host "$name" $options
    echo "$name $variables" >>"$work/inventory"
    echo "$name,$first" >>"$work/first.csv"
    echo "$name,$second" >>"$work/second.csv"
  done <<<"$hosts"
}

# The way to the hosts, and how the power of their QM5s is switched.
make_controller() {
  cat >"$work/ssh" <<END
#!/usr/bin/env bash
. "$PWD/tools/fresh_system.sh"
host=$work/hosts/\${*: -2:1}
mapfile -t bus <"\$host/run/bus" || exit 255 # as ssh, where a host can't be reached
in_system "\$host" env "\${bus[@]}" sh -c "\${*: -1}"
END
  chmod 755 "$work/ssh"
  cat >"$work/power_cycle.yml" <<'END'
- ansible.builtin.shell: |
    kill -USR1 $(cat /run/simulator)
    until grep "is off" /run/qm5-update.json; do sleep 0.1; done
    kill -USR2 $(cat /run/simulator)
END
}

# check_table FILE: runs the playbook, and compares its table with FILE.
check_table() {
  local playbook=$PWD/examples/ansible/update.yml
  (cd "$work" && env HOME="$work" ANSIBLE_SSH_EXECUTABLE="$work/ssh" \
    ANSIBLE_SSH_TRANSFER_METHOD=piped timeout 900 ansible-playbook --inventory inventory \
    --user root --extra-vars qm5_batch=4 "$playbook") >"$work/log" 2>&1 || true # as some hosts fail
  diff "$work/$1" "$work/qm5-table.csv" || fail "$work/log" "the table is not right"
}

say "Making the hosts"
make_system >"$work/log" 2>&1 || fail "$work/log" "no fresh Debian"
make_fleet
make_controller
say "Running the playbook: it stops after the second batch"
check_table first.csv
say "Running it once more"
check_table second.csv
for host in first retried unswitched stuck; do
  touch "$work/hosts/$host/run/stop"
  wait "${simulators[$host]}" || fail "$work/$host.log" "the flash of $host is not right"
done
cat "$work/qm5-table.csv"
say "The fleet passes"

#!/usr/bin/env bash
# Runs README's commands from a clone of the last commit in a bare system of a Debian suite.
# usage: tools/try_suite.sh SUITE [--as-user] [--afresh] [--minutes=N] [COMMAND...]
# SUITE is a code name, as trixie. Without a COMMAND: ./run, ./test and ./package, each in one word
# ("./test --long"). --as-user runs them as an ordinary user with sudo instead of as root. The system
# is made in build/suites/SUITE where it is absent, and kept with the packages that the commands
# install; --afresh makes it anew. A command that takes longer than --minutes is ended and has failed.
# The last command's output is in build/suites/SUITE.log, and its headings are printed as they come.
# A suite that can't be fetched, or not within ten minutes, is named as not run, and fails nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/common.sh
. tools/fresh_system.sh

if [[ ! "${1-}" =~ ^[a-z]+$ ]]; then
  echo "usage: tools/try_suite.sh SUITE [--as-user] [--afresh] [--minutes=N] [COMMAND...]" >&2
  exit 2
fi
readonly suite=$1 root=$PWD/build/suites/$1 log=$PWD/build/suites/$1.log
arguments=("$@")
shift
user=root afresh="" minutes=0 own_mounts=""
while [[ "${1-}" == --* ]]; do
  case "$1" in
    --as-user) user=person ;;
    --afresh) afresh=yes ;;
    --minutes=*) minutes=${1#*=} ;; # 0: as long as it takes
    --with-own-mounts) own_mounts=yes ;;
    *)
      echo "tools/try_suite.sh: unknown option $1" >&2
      exit 2
      ;;
  esac
  shift
done
[ $# -gt 0 ] || set -- ./run ./test ./package

if [ -z "$own_mounts" ]; then
  install_missing debootstrap git
  mkdir -p build/suites
  rm -rf build/suites/clone
  git clone --quiet . build/suites/clone
  # What gets mounted and started from here on is gone with this process, however it ends.
  as_root unshare --mount --pid --fork --kill-child --mount-proc \
    tools/try_suite.sh "$suite" --with-own-mounts "${arguments[@]:1}"
  exit
fi
trap 'exit 130' INT TERM # which the first process of a process space ignores otherwise

not_run() {
  tail -n 5 "$log"
  say "Not run: Debian $suite can't be fetched"
  exit 0
}

# Makes the system where it is absent; half a system is never left under its name.
make_system() {
  [ -z "$afresh" ] || rm -rf --one-file-system "$root"
  [ ! -d "$root" ] || return 0
  say "Making a bare Debian $suite"
  rm -rf --one-file-system "$root.new"
  if ! make_bare_system "$suite" "$root.new" >"$log" 2>&1; then
    rm -rf --one-file-system "$root.new"
    not_run
  fi
  mv "$root.new" "$root"
}

# What a machine has that its owner has cloned the project on, as root or with sudo.
prepare_system() {
  mount --rbind /dev "$root/dev"
  mount --rbind /sys "$root/sys"
  mount -t proc proc "$root/proc"
  mount -t tmpfs tmpfs "$root/tmp"
  echo "127.0.0.1 localhost $(hostname)" >"$root/etc/hosts"
  in_system "$root" apt-get install -qq -y --no-install-recommends git sudo >"$log" 2>&1 ||
    not_run
  in_system "$root" id person >"$log" 2>&1 || in_system "$root" useradd --create-home person
  echo "person ALL=(ALL) NOPASSWD: ALL" >"$root/etc/sudoers.d/person"
}

place_clone() {
  rm -rf --one-file-system "$root$home/qm5-updater"
  cp -r build/suites/clone "$root$home/qm5-updater"
  in_system "$root" chown -R "$user:" "$home/qm5-updater"
}

home=/root
[ $user = root ] || home=/home/$user
make_system
prepare_system
place_clone
tail -n 0 -F "$log" 2>/dev/null | sed -un 's/^== /   /p' &
for command in "$@"; do
  say "Debian $suite, $user: $command"
  SECONDS=0
  in_system --userspec="$user" "$root" env HOME="$home" timeout --foreground "${minutes}m" \
    bash -c "cd $home/qm5-updater && $command" >"$log" 2>&1 ||
    { tail -n 100 "$log"; say "Debian $suite, $user: $command failed after $SECONDS s"; exit 1; }
  say "Debian $suite, $user: $command ended well in $SECONDS s: $(tail -n 1 "$log")"
done

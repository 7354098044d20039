#!/usr/bin/env bash
# Tries the packages on a real kernel: QEMU boots a Debian of this machine's suite, which attaches the
# software QM5 to its own USB stack and runs tools/kernel_guest/check.sh. ./package has built the
# packages before. QEMU emulates the processor, so this needs no hardware virtualisation.
# usage: tools/kernel_guest.sh [--short | GROUP...]
# Without a GROUP it tries all: unplug, window, driver, awake, idle and start, each in a file of that
# name in tools/kernel_guest. One update and one unplug always come first; --short tries no more.
# The Debian is made in build/kernel where it is absent or too old for the packages, and kept.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/common.sh
. tools/fresh_system.sh

readonly folder=$PWD/build/kernel console=$PWD/build/kernel/console.log
readonly debs=(build/package/qm5-updater{,-cli,-common}_[0-9]*_a*.deb)
groups=(unplug window driver awake idle start) minutes=90 own_mounts="" arguments=("$@")
if [ "${1-}" = --with-own-mounts ]; then
  own_mounts=yes
  shift
fi
if [ "${1-}" = --short ]; then
  groups=() minutes=15
  shift
elif [ $# -gt 0 ]; then
  groups=("$@")
fi
for group in "$@"; do
  if [ ! -f "tools/kernel_guest/${group}_cases.sh" ]; then
    echo "usage: tools/kernel_guest.sh [--short | GROUP...]" >&2
    exit 2
  fi
done

if [ "$(dpkg --print-architecture)" != amd64 ]; then
  say "Not run: the guest is an amd64 one"
  exit 0
fi
if [ ! -f "${debs[0]}" ]; then
  say "There are no packages yet: ./package builds them"
  exit 1
fi
if [ -z "$own_mounts" ]; then
  install_missing "${packages_build[@]}" "${packages_kernel_check[@]}"
  build release qm5-simulator qm5-update
  mkdir -p "$folder"
  # What gets mounted from here on is gone with this process, however it ends.
  as_root unshare --mount tools/kernel_guest.sh --with-own-mounts "${arguments[@]}"
  exit
fi

fail() {
  say "The kernel's guest fails: $*"
  exit 1
}
. tools/kernel_guest/guest_system.sh

# What the guest unpacks from its second disk: the packages as files, as it installs them itself, and
# what it takes to try them.
place_check() {
  local check=$folder/check image=tests/fuzz/corpus/image/small.bin
  rm -rf "$check"
  mkdir -p "$check/packages"
  cp "${debs[@]}" "$check/packages"
  cp tools/kernel_guest/{check.sh,guest.sh,*_cases.sh,keys.py} build/release/bin/qm5-simulator "$check"
  # The packaged image would take an emulated processor many minutes.
  cp $image "$check/image.bin"
  printf '%s\n' "${groups[@]}" >"$check/groups"
  # The requests of an update, which the tests hold against what is prescribed.
  build/release/bin/qm5-simulator --trace "$check/requests" -- \
    build/release/bin/qm5-update --image $image --target 4208 --quiet >/dev/null
  tar -C "$check" -cf "$folder/check.tar" .
  truncate -s %512 "$folder/check.tar"
}

# Its console goes to a file, and what the check says, here.
boot() {
  timeout --foreground "${minutes}m" qemu-system-x86_64 -accel tcg -cpu max -smp 2 -m 1024 -no-reboot \
    -nic none -display none -monitor none -serial "file:$console" -serial stdio \
    -drive "file=$folder/disk,format=raw,if=virtio,snapshot=on,cache=unsafe" \
    -drive "file=$folder/check.tar,format=raw,if=virtio,readonly=on" \
    -kernel "$folder/vmlinuz" -initrd "$folder/initrd.img" -append \
    "root=/dev/vda rw quiet mitigations=off console=ttyS0" </dev/null |
    tee "$folder/results"
}

make_guest_system
place_check
say "Booting the guest; its console is in build/kernel/console.log"
SECONDS=0
boot || fail "QEMU has ended with $?"
grep -q '^All held' "$folder/results" || { tail "$console"; fail "not all held"; }
say "All held on a real kernel, in $SECONDS s"

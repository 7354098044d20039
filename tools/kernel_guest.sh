#!/usr/bin/env bash
# Tries the packages on a real kernel: QEMU boots a Debian of this machine's suite, which attaches the
# software QM5 to its own USB stack and runs tools/in_kernel_guest.sh. ./package has built the
# packages before. QEMU emulates the processor, so this needs no hardware virtualisation.
# The Debian is made in build/kernel/system where it is absent, and kept.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/common.sh
. tools/fresh_system.sh

readonly folder=$PWD/build/kernel minutes=10
readonly root=$folder/system disk=$folder/disk console=$folder/console.log
readonly packages=(linux-image-amd64 systemd-sysv udev dbus libpam-systemd login kmod usbip usbutils)
readonly debs=(build/package/qm5-updater-{cli,common}_*.deb)

if [ "$(dpkg --print-architecture)" != amd64 ]; then
  say "Not run: the guest is an amd64 one"
  exit 0
fi
if [ ! -f "${debs[0]}" ]; then
  say "There are no packages yet: ./package builds them"
  exit 1
fi
if [ "${1-}" != --with-own-mounts ]; then
  install_missing "${packages_build[@]}" "${packages_kernel_check[@]}"
  build release qm5-simulator
  mkdir -p "$folder"
  # What gets mounted from here on is gone with this process, however it ends.
  as_root unshare --mount tools/kernel_guest.sh --with-own-mounts
  exit
fi

fail() {
  say "The kernel's guest fails: $*"
  exit 1
}

# within COMMAND...: runs it in the guest's system, before it boots.
within() {
  in_system "$root" "$@" >"$folder/log" 2>&1 || { tail -n 20 "$folder/log"; fail "$*"; }
}

# A system of which half is made is never left under its name.
make_system() {
  [ ! -d "$root" ] || return 0
  say "Making a bare Debian $own_suite for the guest"
  rm -rf --one-file-system "$root.new"
  make_bare_system "$own_suite" "$root.new" >"$folder/log" 2>&1 ||
    { tail "$folder/log"; fail "no bare Debian"; }
  # The first file system holds what it takes to mount the disk, and no other driver.
  mkdir -p "$root.new"/{etc/initramfs-tools/conf.d,usr/share/initramfs-tools/modules.d}
  echo MODULES=list >"$root.new/etc/initramfs-tools/conf.d/guest"
  printf '%s\n' virtio_pci virtio_blk ext4 >"$root.new/usr/share/initramfs-tools/modules.d/guest"
  mount -t proc proc "$root.new/proc"
  in_system "$root.new" apt-get install -y --no-install-recommends "${packages[@]}" \
    >"$folder/log" 2>&1 || { tail "$folder/log"; fail "no kernel for the guest"; }
  in_system "$root.new" useradd --create-home person
  umount "$root.new/proc"
  mv "$root.new" "$root"
}

# What the packages depend on, and the packages as files: the guest itself installs them, while a QM5
# is attached.
place_packages() {
  rm -rf "$root/root/packages"
  mkdir -p "$root/root/packages"
  cp "${debs[@]}" "$root/root/packages"
  mount -t proc proc "$root/proc"
  within apt-get satisfy -y --no-install-recommends \
    "libumockdev0t64 | libumockdev0, libssl3t64 | libssl3"
  within apt-get install -y --no-install-recommends "${debs[@]/#build\/package//root/packages}"
  within dpkg --purge qm5-updater-cli qm5-updater-common
  umount "$root/proc"
}

# The person has logged in at the screen; then the guest tries what there is to try, and ends.
place_check() {
  install -m 755 build/release/bin/qm5-simulator "$root/usr/bin"
  install -m 755 tools/in_kernel_guest.sh "$root/usr/local/sbin"
  # The packaged image would take an emulated processor many minutes.
  install -m 644 tests/fuzz/corpus/image/small.bin "$root/usr/local/share"
  echo "127.0.0.1 localhost" >"$root/etc/hosts"
  mkdir -p "$root/etc/systemd/system/"{getty@tty1.service.d,multi-user.target.wants}
  cat >"$root/etc/systemd/system/getty@tty1.service.d/guest.conf" <<'END'
[Service]
ExecStart=
ExecStart=-/sbin/agetty --autologin person %I linux
END
  ln -sf ../check.service "$root/etc/systemd/system/multi-user.target.wants"
  cat >"$root/etc/systemd/system/check.service" <<'END'
[Unit]
SuccessAction=poweroff-force
FailureAction=poweroff-force
[Service]
Type=oneshot
ExecStart=/usr/local/sbin/in_kernel_guest.sh
StandardOutput=file:/dev/ttyS1
StandardError=inherit
END
}

make_disk() {
  local megabytes
  megabytes=$(du -sxm "$root" | cut -f 1)
  rm -f "$disk"
  mke2fs -q -t ext4 -d "$root" "$disk" $((megabytes * 5 / 4 + 200))M
}

# Its console goes to a file, and what the check says, here.
boot() {
  timeout --foreground "${minutes}m" qemu-system-x86_64 -accel tcg -cpu max -smp 2 -m 1024 -no-reboot -nic none \
    -display none -monitor none -serial "file:$console" -serial stdio \
    -drive "file=$disk,format=raw,if=virtio,snapshot=on" -kernel "$root/vmlinuz" \
    -initrd "$root/initrd.img" -append \
    "root=/dev/vda rw console=ttyS0 systemd.mask=serial-getty@ttyS0.service" </dev/null |
    tee "$folder/results"
}

make_system
place_packages
place_check
make_disk
say "Booting the guest; its console is in build/kernel/console.log"
SECONDS=0
boot || fail "QEMU has ended with $?"
grep -q '^All held' "$folder/results" || { tail "$console"; fail "not all held"; }
say "All held on a real kernel, in $SECONDS s"

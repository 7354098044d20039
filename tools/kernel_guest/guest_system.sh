# shellcheck shell=bash
# shellcheck disable=SC2154 # tools/kernel_guest.sh sets the names that are not set here
# The Debian that the kernel's guest boots, as a disk that no run changes. Sourced by
# tools/kernel_guest.sh, as root.

# polkitd: without it, logind lets nobody but root hold back sleep. The screen is a virtual one.
readonly guest_packages=(linux-image-amd64 systemd-sysv udev dbus libpam-systemd login kmod usbip
  usbutils polkitd python3-evdev xvfb openbox xdotool fonts-dejavu-core)
# What nobody waits for in there, and would take an emulated processor its time.
readonly guest_without=(serial-getty@ttyS0.service systemd-timesyncd.service systemd-networkd.service
  networking.service apparmor.service keyboard-setup.service console-setup.service e2scrub_reap.service
  apt-daily.timer apt-daily-upgrade.timer dpkg-db-backup.timer e2scrub_all.timer fstrim.timer
  systemd-tmpfiles-clean.timer systemd-binfmt.service systemd-journal-flush.service
  systemd-update-utmp.service systemd-pstore.service systemd-random-seed.service)

# What Debian has to bring for the packages and for the software QM5.
guest_dependencies() {
  local deb
  for deb in "${debs[@]}"; do
    dpkg-deb -f "$deb" Depends | sed 's/qm5-updater-common ([^)]*)\(, \)\?//'
  done
  echo "libumockdev0t64 | libumockdev0, libssl3t64 | libssl3"
}

in_guest_root() {
  in_system "$folder/system" "$@" >"$folder/log" 2>&1 || { tail -n 20 "$folder/log"; fail "$*"; }
}

install_guest_packages() {
  local root=$folder/system dependencies
  # The first file system holds what it takes to mount the disk, and no other driver.
  mkdir -p "$root"/{etc/initramfs-tools/conf.d,usr/share/initramfs-tools/modules.d}
  echo MODULES=list >"$root/etc/initramfs-tools/conf.d/guest"
  printf '%s\n' virtio_pci virtio_blk ext4 >"$root/usr/share/initramfs-tools/modules.d/guest"
  mount -t proc proc "$root/proc"
  in_guest_root apt-get install -y --no-install-recommends "${guest_packages[@]}"
  mapfile -t dependencies < <(guest_dependencies | grep .)
  in_guest_root apt-get satisfy -y --no-install-recommends "${dependencies[@]}"
  in_guest_root apt-get clean
  umount "$root/proc"
}

# The person has logged in at the screen; then the guest tries what there is to try, and ends.
set_guest_up() {
  local root=$folder/system units=$folder/system/etc/systemd/system unit
  in_guest_root useradd --create-home --shell /bin/bash person
  echo "127.0.0.1 localhost" >"$root/etc/hosts"
  mkdir -p "$units/"{getty@tty1.service.d,multi-user.target.wants}
  for unit in "${guest_without[@]}"; do ln -sf /dev/null "$units/$unit"; done
  cat >"$units/getty@tty1.service.d/guest.conf" <<'END'
[Service]
ExecStart=
ExecStart=-/sbin/agetty --autologin person %I linux
END
  ln -sf ../check.service "$units/multi-user.target.wants"
  cat >"$units/check.service" <<'END'
[Unit]
SuccessAction=poweroff-force
FailureAction=poweroff-force
[Service]
Type=oneshot
ExecStart=/bin/sh -c "mkdir /opt/check && tar -xf /dev/vdb -C /opt/check && exec /opt/check/check.sh"
StandardOutput=file:/dev/ttyS1
StandardError=inherit
END
}

# A disk of which half is made is never left under its name. It says what it has been made of.
make_guest_system() {
  local made_of
  made_of=$(echo "$own_suite"; guest_dependencies; cat tools/kernel_guest/guest_system.sh)
  ! cmp -s "$folder/made-of" <(echo "$made_of") || return 0
  say "Making a bare Debian $own_suite for the guest"
  rm -rf --one-file-system "$folder/system" "$folder/made-of"
  make_bare_system "$own_suite" "$folder/system" >"$folder/log" 2>&1 ||
    { tail "$folder/log"; fail "no bare Debian"; }
  install_guest_packages
  set_guest_up
  cp "$folder/system/vmlinuz" "$folder/system/initrd.img" "$folder"
  mke2fs -q -F -t ext4 -d "$folder/system" "$folder/disk" \
    $(($(du -sxm "$folder/system" | cut -f 1) * 5 / 4 + 200))M
  rm -rf --one-file-system "$folder/system"
  echo "$made_of" >"$folder/made-of"
}

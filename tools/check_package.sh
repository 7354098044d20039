#!/usr/bin/env bash
# Checks the packages that ./package has built: in a fresh Debian, that the command alone and all
# packages together install, update a software QM5 and are purged without a trace, and that the source
# package's own test passes there. Pictures of the windows there go to build/package/screens.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/common.sh
. tools/fresh_system.sh

readonly folder=build/package screens=build/package/screens
readonly image=/usr/share/qm5-updater/QM5-combind-051723-secure-Cus-42.bin
compgen -G "$folder/*.deb" >/dev/null ||
  { say "There are no packages yet: ./package builds them"; exit 1; }
readonly person=qm5-person computer=qm5-computer # who works in the fresh Debian, and its name

if [ "${1-}" != --with-own-mounts ]; then
  install_missing "${packages_build[@]}" "${packages_screen[@]}" "${packages_package_check[@]}"
  build release qm5-simulator
  # What gets mounted and named from here on is gone with this process, however it ends.
  as_root unshare --mount --uts tools/check_package.sh --with-own-mounts
  exit
fi

root=$(mktemp -d)
work=$(mktemp -d)
readonly root work
remove_system() {
  umount "$root/proc" 2>/dev/null || true
  rm -rf --one-file-system "$work" "$root"
}
trap remove_system EXIT

fail() {
  say "The packages fail: $*"
  exit 1
}

# within COMMAND...: runs it in the fresh Debian as root; what it prints shows when it fails.
within() {
  in_system "$root" "$@" >"$work/log" 2>&1 || { cat "$work/log"; fail "$*"; }
}

# A minimal system of this machine's release with the packages' files in /tmp, and with what the
# software QM5 takes.
make_system() {
  say "Installing a fresh Debian $own_suite"
  make_bare_system "$own_suite" "$root" >"$work/log" 2>&1 ||
    { tail "$work/log"; fail "no fresh Debian"; }
  mount -t proc proc "$root/proc"
  hostname "$computer"
  within useradd --create-home "$person"
  # Since Debian 13, libraries built for 64-bit times have names that end in t64.
  within apt-get satisfy -y --no-install-recommends \
    "umockdev, libumockdev0t64 | libumockdev0, libssl3t64 | libssl3"
  install -m 755 build/release/bin/qm5-simulator "$root/usr/bin"
  cp "$folder"/*.deb "$root/tmp"
}

files_of_system() {
  (cd "$root" && find usr etc var/lib \( -path var/lib/dpkg -o -path var/lib/apt \) -prune -o \
    -printf '%y %m %p\n' | sort)
}

# install_dependencies PACKAGE: those that come from Debian; notes what is there then.
install_dependencies() {
  within apt-get satisfy -y --no-install-recommends \
    "$(dpkg-deb -f "$folder/$1"_*.deb Depends | sed 's/qm5-updater-common ([^)]*), //')"
  files_of_system >"$work/before"
}

# install_packages PATTERN [OPTION]: those in /tmp, by a pattern of bash.
install_packages() {
  within bash -c "apt-get install -y --no-install-recommends ${2-} /tmp/$1.deb"
}

# The others depend on the one that is named, so they go with it.
purge_packages() {
  within apt-get purge -y qm5-updater-common
  rm -f "${stand_ins[@]}"
  diff "$work/before" <(files_of_system) || fail "the purge left a trace"
}

# stand_in PROGRAM LINE...: puts a script of these lines there, until the purge is judged.
stand_ins=()
stand_in() {
  stand_ins+=("$root/usr/bin/$1")
  printf '%s\n' '#!/bin/sh' "${@:2}" >"$root/usr/bin/$1"
  chmod 755 "$root/usr/bin/$1"
}

# calls: what udevadm was asked since the last time.
calls() {
  cat "$root/tmp/udevadm-calls"
  rm "$root/tmp/udevadm-calls"
}

check_installing() {
  local reload trigger devices command="qm5-updater-{cli,common}_*"
  say "Installing the command alone, without udevd and without udevadm"
  install_packages "$command"
  # Nothing of a desktop comes with it.
  within bash -c "! dpkg-query -W | grep -E '^libqt6(gui|widgets)'"
  stand_in udevadm 'echo "$*" >>/tmp/udevadm-calls' "exit 1" # as where no udevd runs
  install_packages "$command" --reinstall
  { read -r reload && read -r -a trigger; } < <(calls) || fail "they do not ask udevd for both"
  [ "$reload" = "control --reload" ] || fail "they do not reload the rules first: $reload"
  # What the real udevadm finds by that on a bus with a hub and a QM5.
  devices=$(build/release/bin/qm5-simulator -- \
    udevadm "${trigger[@]}" --dry-run --verbose | grep '^/sys/') || true
  [[ "$devices" =~ ^/sys/[^[:space:]]*/1-1\.2$ ]] || fail "they trigger: $devices"
}

# as_person COMMAND...: runs it in the fresh Debian, with nothing of a desktop.
as_person() {
  in_system --userspec="$person" "$root" "$@" >"$work/log" 2>&1
}

# The report names the QM5 that is there, and neither the person nor the computer.
check_report() {
  local report line
  say "Collecting a report"
  stand_in journalctl "echo 'qm5-updater[1]: /home/$person on $computer: No such file'"
  as_person sh -c "cd /home/$person && qm5-simulator -- qm5-updater-report" ||
    true # the verdict is that nothing was updated
  report=$(ls "$root/home/$person"/qm5-updater-report-*.txt) || fail "no report: $(cat "$work/log")"
  for line in "program: qm5-update [0-9.]+" "firmware image: [0-9]+ bytes, .*" \
    "this is a development image: it is for the software QM5 alone" "  libqt6core6(t64)? .*" \
    "  libusb-1.0-0 .*" "  product: QM5" "  this user may open it: yes" \
    "/usr/lib/udev/rules.d/70-qm5.rules" "qm5-updater.*: No such file"; do
    grep -qxE "$line" "$report" || { cat "$report"; fail "the report lacks: $line"; }
  done
  ! grep -nE "$person|$computer" "$report" || fail "the report names the person or the computer"
  rm "$report"
}

check_command() {
  install_dependencies qm5-updater-cli
  check_installing
  say "Updating a software QM5 there"
  as_person qm5-simulator --image "$image" -- qm5-update --wait=60 --quiet ||
    { cat "$work/log"; fail "no update"; }
  tail -n 1 "$work/log"
  check_report
  say "Purging"
  purge_packages
  [ "$(calls)" = "control --reload" ] || fail "they do not reload the rules"
}

check_windows() {
  install_dependencies qm5-updater
  say "Installing all packages"
  install_packages "*"
  say "Updating a software QM5 there"
  tools/drive_windows.sh /usr/bin "$image" "$screens" "$root" "$person" >"$work/log" ||
    { cat "$work/log"; fail "no update"; }
  tail -n 1 "$work/log"
  chown -R --reference="$folder" "$screens"
  say "Purging"
  purge_packages
}

# The test that the source package brings along, in the fresh Debian, with the packages and with what
# it takes to build the software QM5.
check_source_package() {
  say "Running the source package's test"
  cp "$folder"/*.deb "$folder"/all/*.{dsc,tar.xz} "$work"
  env -i PATH="$PATH" HOME=/root http_proxy="${http_proxy-}" https_proxy="${https_proxy-}" \
    autopkgtest "$work"/*.deb "$work"/*.dsc -- chroot "$root" >"$work/log" 2>&1 ||
    { tail -n 60 "$work/log"; fail "the source package's test"; }
  grep '^update .*PASS' "$work/log"
}

for deb in "$folder"/*.deb; do
  [[ "$(dpkg-deb -f "$deb" Description)" == *"development image"* ]] ||
    fail "the description of $deb does not say that it carries a development image"
done
make_system
check_command
check_windows
check_source_package
say "The packages pass"

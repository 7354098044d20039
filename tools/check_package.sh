#!/usr/bin/env bash
# Checks the package that ./package has built: first what Debian's and the desktop's own
# checkers say to it, then that it installs, updates a software QM5 and is purged without a
# trace in a fresh Debian. Pictures of its windows there go to build/package/screens.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/common.sh
. tools/fresh_system.sh

deb=$(echo build/package/qm5-updater_*.deb)
[ -f "$deb" ] || { say "There is no package yet: ./package builds it"; exit 1; }
deb=$(realpath "$deb")
readonly deb screens=build/package/screens
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
  say "The package fails: $*"
  exit 1
}

# What the checkers say; each is silent, or ends with a failure, when it finds something.
check_files() {
  local page warnings share=$work/files/usr/share
  say "Checking the package's files"
  lintian --allow-root --fail-on error,warning,info --display-info "$deb"
  [[ "$(dpkg-deb -f "$deb" Description)" == *"development image"* ]] ||
    fail "its description does not say that it carries a development image"
  dpkg-deb -x "$deb" "$work/files"
  desktop-file-validate "$share"/applications/*.desktop
  appstreamcli validate --no-net "$share"/metainfo/*.xml
  for page in "$share"/man/man1/*.gz; do
    warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 \
      man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
    warnings+=$(zcat "$page" | groff -ww -man -Tutf8 -z 2>&1)
    [ -z "$warnings" ] || fail "$page: $warnings"
  done
}

# within COMMAND...: runs it in the fresh Debian as root; what it prints shows when it fails.
within() {
  in_system "$root" "$@" >"$work/log" 2>&1 || { cat "$work/log"; fail "$*"; }
}

# A minimal system of this machine's release with all that the updater depends on and that the
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
  within apt-get satisfy -y --no-install-recommends "$(dpkg-deb -f "$deb" Depends)"
  install -m 755 build/release/bin/qm5-simulator "$root/usr/bin"
  cp "$deb" "$root/tmp/qm5-updater.deb"
}

files_of_system() {
  (cd "$root" && find usr etc var/lib \( -path var/lib/dpkg -o -path var/lib/apt \) -prune -o \
    -printf '%y %m %p\n' | sort)
}

# stand_in PROGRAM LINE...: puts a script of these lines there, until the purge is judged.
stand_in() {
  printf '%s\n' '#!/bin/sh' "${@:2}" >"$root/usr/bin/$1"
  chmod 755 "$root/usr/bin/$1"
}

# calls: what udevadm was asked since the last time.
calls() {
  cat "$root/tmp/udevadm-calls"
  rm "$root/tmp/udevadm-calls"
}

check_installing() {
  local reload trigger devices
  say "Installing the package, without udevd and without udevadm"
  within apt-get install -y --no-install-recommends /tmp/qm5-updater.deb
  stand_in udevadm 'echo "$*" >>/tmp/udevadm-calls' "exit 1" # as where no udevd runs
  within apt-get install -y --reinstall --no-install-recommends /tmp/qm5-updater.deb
  { read -r reload && read -r -a trigger; } < <(calls) || fail "it does not ask udevd for both"
  [ "$reload" = "control --reload" ] || fail "it does not reload the rules first: $reload"
  # What the real udevadm finds by that on a bus with a hub and a QM5.
  devices=$(build/release/bin/qm5-simulator -- \
    udevadm "${trigger[@]}" --dry-run --verbose | grep '^/sys/') || true
  [[ "$devices" =~ ^/sys/[^[:space:]]*/1-1\.2$ ]] || fail "it triggers: $devices"
}

# The report names the QM5 that is there, and neither the person nor the computer.
check_report() {
  local report line
  say "Collecting a report"
  stand_in journalctl "echo 'qm5-updater[1]: /home/$person on $computer: No such file'"
  chroot --userspec="$person" "$root" sh -c "cd /home/$person && qm5-simulator -- \
    qm5-updater-report" >"$work/log" 2>&1 || true # the verdict is that nothing was updated
  report=$(ls "$root/home/$person"/qm5-updater-report-*.txt) || fail "no report: $(cat "$work/log")"
  for line in "program: [0-9.]+" "firmware image: [0-9]+ bytes, .*" \
    "this is a development image: it is for the software QM5 alone" "  libqt6core6(t64)? .*" \
    "  libusb-1.0-0 .*" "  product: QM5" "  this user may open it: yes" \
    "/usr/lib/udev/rules.d/70-qm5.rules" "qm5-updater.*: No such file"; do
    grep -qxE "$line" "$report" || { cat "$report"; fail "the report lacks: $line"; }
  done
  ! grep -nE "$person|$computer" "$report" || fail "the report names the person or the computer"
  rm "$report"
}

check_files
make_system
files_of_system >"$work/before"
check_installing
say "Updating a software QM5 there"
tools/drive_windows.sh /usr/bin /usr/share/qm5-updater/QM5-combind-051723-secure-Cus-42.bin \
  "$screens" "$root" "$person" >"$work/log" || { cat "$work/log"; fail "no update"; }
tail -n 1 "$work/log"
check_report
say "Purging the package"
within apt-get purge -y qm5-updater
[ "$(calls)" = "control --reload" ] || fail "it does not reload the rules"
rm "$root/usr/bin/udevadm" "$root/usr/bin/journalctl"
diff "$work/before" <(files_of_system) || fail "the purge left a trace"
chown -R --reference=build/package "$screens"
say "The package passes"

# shellcheck shell=bash
# What ./run, ./test, ./package, ./bench and .ci/run share: installing what is missing, building.
# Sourced by bash from the project's folder.

say() { printf '== %s\n' "$*"; }

# The packages by what they are needed for, with the names that Debian 12 and 13 share.
# shellcheck disable=SC2034 # used by the scripts that source this one
{
  readonly packages_product=(g++ cmake ninja-build pkg-config qt6-base-dev libusb-1.0-0-dev
    libssl-dev)
  readonly packages_build=("${packages_product[@]}" qt6-base-private-dev libumockdev-dev umockdev
    libgtest-dev libgmock-dev locales dbus-daemon dbus-bin python3-jsonschema udev)
  readonly packages_screen=(xvfb openbox xdotool imagemagick fonts-dejavu-core
    qt6-gtk-platformtheme weston qt6-wayland at-spi2-core python3-pyatspi)
  readonly packages_bench_build=(libbenchmark-dev libxcb1-dev libxcb-damage0-dev)
  # qflipper and gnome-firmware are peers: only their start is looked at.
  readonly packages_bench=(valgrind binutils python3 qflipper gnome-firmware)
  readonly packages_check=(clang clang-tidy libclang-rt-dev pmccabe)
  readonly packages_style=(git clang-format shellcheck flake8 cppcheck)
  readonly packages_package=(git build-essential debhelper dpkg-dev pkgconf)
  readonly packages_package_check=(debootstrap autopkgtest desktop-file-utils appstream faketime lintian
    man-db)
  readonly packages_fleet_check=(debootstrap ansible-core ansible-lint)
  readonly packages_kernel_check=(debootstrap qemu-system-x86 e2fsprogs)
}

# as_root COMMAND...: runs it as root, or with sudo.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    say "Neither root nor sudo, for: $*" >&2
    exit 1
  fi
}

# apt_get ARGUMENT...: apt-get as root, which prints only its errors. Where another apt or dpkg holds
# a lock, it waits up to half an hour for that.
apt_get() {
  local errors end=$((SECONDS + 1800)) waiting=""
  until errors=$(as_root env LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
    apt-get -qq "$@" 2>&1 >/dev/null); do
    if [ $SECONDS -ge $end ] ||
      ! grep -qE 'Could not get lock|Unable to (acquire|lock)' <<<"$errors"; then
      printf '%s\n' "$errors" >&2
      exit 1
    fi
    [ -n "$waiting" ] || say "Waiting until another apt or dpkg has ended: it holds the lock"
    waiting=yes
    sleep 2
  done
}

# Set by the option --no-install, and passed on to the scripts that this one calls.
forbid_installing() { export QM5_NO_INSTALL=1; }

# install_missing PACKAGE...: installs those that are not installed, as root or with sudo, and says
# so first. With --no-install it names them and ends the script.
install_missing() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  if [ -n "${QM5_NO_INSTALL-}" ]; then
    say "These packages are missing, and --no-install forbids installing them:" >&2
    printf '%s\n' "${missing[*]}" >&2
    exit 1
  elif [ "$(id -u)" -eq 0 ]; then
    say "Installing ${missing[*]}"
  else
    say "Installing through sudo (not with --no-install): ${missing[*]}"
  fi
  apt_get update
  apt_get install -y --no-install-recommends "${missing[@]}"
}

# build PRESET [TARGET...]: configures once and builds these targets, or all.
build() {
  say "Building in build/$1"
  [ -f "build/$1/build.ninja" ] || cmake --preset "$1" >/dev/null
  cmake --build --preset "$1" -- --quiet "${@:2}"
}

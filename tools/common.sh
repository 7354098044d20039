# What ./run, ./test, ./package, ./bench and .ci/run share: installing what is missing, building.
# Sourced by bash from the project's folder.

say() { printf '== %s\n' "$*"; }

# The packages by what they are needed for.
readonly packages_build="g++ cmake ninja-build pkg-config qt6-base-dev qt6-base-private-dev
  libusb-1.0-0-dev libssl-dev libumockdev-dev umockdev libgtest-dev libgmock-dev locales
  dbus-daemon"
readonly packages_screen="xvfb openbox xdotool imagemagick fonts-dejavu-core"
# qflipper and gnome-firmware are peers: only their start is looked at.
readonly packages_bench_build="libbenchmark-dev libxcb1-dev libxcb-damage0-dev"
readonly packages_bench="valgrind binutils python3 qflipper gnome-firmware"
readonly packages_check="clang clang-format clang-tidy libclang-rt-dev"
readonly packages_package="dpkg-dev file"
readonly packages_package_check="debootstrap desktop-file-utils appstream lintian man-db udev"

# as_root COMMAND...: runs it as root, or with sudo.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    say "Neither root nor sudo, for: $*"
    exit 1
  fi
}

# install_missing PACKAGE...: installs those that are not installed, as root or with sudo.
install_missing() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  say "Installing ${missing[*]}"
  as_root apt-get update -qq
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -qq -y --no-install-recommends "${missing[@]}" >/dev/null
}

# build PRESET [TARGET...]: configures once and builds these targets, or all.
build() {
  say "Building in build/$1"
  [ -f "build/$1/build.ninja" ] || cmake --preset "$1" >/dev/null
  cmake --build --preset "$1" -- --quiet "${@:2}"
}

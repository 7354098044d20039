# What ./run, ./test and .ci/run share: installing what is missing, building, a virtual
# screen. Sourced by bash from the project's folder.

say() { printf '== %s\n' "$*"; }

# The packages by what they are needed for.
readonly packages_build="g++ cmake ninja-build pkg-config qt6-base-dev libusb-1.0-0-dev libssl-dev
  libumockdev-dev umockdev libgtest-dev libgmock-dev locales"
readonly packages_screen="xvfb openbox xdotool imagemagick fonts-dejavu-core"
readonly packages_check="clang clang-format clang-tidy libclang-rt-dev"

# install_missing PACKAGE...: installs those that are not installed, as root or with sudo.
install_missing() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  local as_root=()
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  say "Installing ${missing[*]}"
  "${as_root[@]}" apt-get update -qq
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -qq -y --no-install-recommends "${missing[@]}" >/dev/null
}

# build PRESET: configures once and builds all of it.
build() {
  say "Building $1 in build/$1"
  [ -f "build/$1/build.ninja" ] || cmake --preset "$1" >/dev/null
  cmake --build --preset "$1" -- --quiet
}

#!/usr/bin/env bash
# Builds the source package that ./package has left twice, with the same image, and fails where the
# packages are not the same byte for byte. Folder, date, age of the files, time zone, locale, umask
# and the count of processors differ. Both builds stay in build/reproducible. No folder's name has a
# space: dpkg-buildflags leaves paths with one in the debug symbols.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/common.sh

readonly folder=$PWD/build/reproducible image=$PWD/tests/fuzz/corpus/image/small.bin
readonly first=$folder/first second=$folder/in/another/folder/second
compgen -G "build/package/all/*.dsc" >/dev/null ||
  { say "There is no source package yet: ./package builds it"; exit 1; }
install_missing "${packages_product[@]}" "${packages_package[@]}" "${packages_package_check[@]}" locales

# build_in FOLDER COMMAND...: by COMMAND, which gets dpkg-buildpackage's command line at its end.
build_in() {
  say "Building in $1"
  mkdir -p "$1"
  (
    dpkg-source --no-check --extract build/package/all/*.dsc "$1/source"
    cd "$1/source"
    find . -exec touch {} +
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME="$1" QM5_FIRMWARE_IMAGE="$image" "${@:2}" \
      dpkg-buildpackage --no-sign --build=binary
  ) >"$1.log" 2>&1 || { tail -n 60 "$1.log"; say "The build has failed"; exit 1; }
}

rm -rf "$folder"
mkdir -p "$folder/locales"
# In Turkish, i and I are not the same letter.
localedef --no-archive -i tr_TR -f UTF-8 "$folder/locales/tr_TR.UTF-8"
umask 022
build_in "$first" LC_ALL=C.UTF-8 TZ=Pacific/Kiritimati DEB_BUILD_OPTIONS=parallel="$(nproc)"
umask 077
build_in "$second" LOCPATH="$folder/locales" LC_ALL=tr_TR.UTF-8 TZ=America/Adak \
  DEB_BUILD_OPTIONS=parallel=$(($(nproc) + 1)) faketime -f +400d

status=0
for file in "$first"/*.deb; do
  cmp "$file" "$second/$(basename "$file")" || status=1
done
[ $status -eq 0 ] || { say "The two builds are not the same"; exit 1; }
say "The two builds are the same: $(cd "$first" && echo *.deb)"

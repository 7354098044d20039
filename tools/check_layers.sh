#!/usr/bin/env bash
# Fails where an include runs upwards, where a foreign header stands outside its folder, and at a
# folder or a foreign header that this script does not know. Prints each offence.
set -euo pipefail
cd "$(dirname "$0")/.."
shopt -s nullglob
offences=0

offend() {
  printf '%s\n' "$1"
  offences=1
}

# What the files right in each folder may include of the project.
declare -A may=(
  [platform]=""
  [device_monitor]="platform"
  [device_monitor/libusb]="device_monitor platform"
  [device_link]="device_monitor platform"
  [update_engine]="device_link platform"
  [computer]="platform"
  [computer/package]="computer platform"
  [computer/wakefulness]="computer platform"
  [computer/process]="platform"
  [main_queue]=""
  [update_run]="update_engine device_link computer platform"
  [app_shell/ports]="platform"
  [app_shell/process]="app_shell/ports computer/process platform"
  [app_shell/notifications]="app_shell/ports platform"
  [app_shell/qt]="app_shell/ports main_queue computer platform"
  [app_shell]="app_shell/ports update_run computer update_engine device_link platform"
  [app_command]="update_run computer main_queue device_link platform"
  [firmware_image]="platform"
  [simulator/device]="firmware_image platform"
  [simulator/direct_bus]="simulator/device device_monitor platform"
  [simulator/usb_bus]="simulator/device platform"
  [simulator/usbip]="simulator/device platform"
  [simulator/command]="simulator/usb_bus simulator/usbip simulator/device firmware_image platform"
  [benchmarks]="app_command app_shell app_shell/ports app_shell/qt computer computer/package
    computer/wakefulness update_engine device_link firmware_image simulator/device simulator/direct_bus tests/support
    platform"
)
# The entry points alone include the adapters behind the ports, and what makes up a process.
declare -A entry_points=(
  [app_shell/main.cpp]="app_shell/process app_shell/notifications app_shell/qt"
  [app_command/main.cpp]=""
)
readonly adapters="computer/process computer/package computer/wakefulness device_monitor/libusb"

# The folders in which each library's headers may be included; the C and C++ standard headers and
# POSIX's may be everywhere.
declare -A homes=(
  ['Q[A-Za-z]+']="app_command app_shell/qt app_shell/notifications computer/package
    computer/wakefulness main_queue benchmarks"
  ['qpa/.*']="app_shell/qt"
  ['IOKit/.*']="computer/wakefulness"
  ['libusb(-1\.0/libusb)?\.h']="device_monitor/libusb benchmarks"
  ['(umockdev|glib)\.h']="simulator/usb_bus"
  ['linux/usb/ch9\.h']="simulator/usbip"
  ['openssl/.*']="firmware_image"
  ['(xcb/|benchmark/).*']="benchmarks"
)
readonly standard='[a-z_]+|((sys|net|netinet|linux)/)?[a-z_]+\.h'

# files_in FOLDER: its C and C++ files, without those of its folders.
files_in() { printf '%s\n' "$1"/*.{h,c,cpp}; }

# includes_of FILE: what it includes, one per line, without the closing bracket or quotation mark.
includes_of() {
  sed -nE 's/^\s*#\s*(include|include_next|import)\b\s*//; T; s/^([<"][^>"]*)[>"].*/\1/; p' "$1"
}

# c_files [ENDING...]: the project's files with these endings, also those not yet committed.
c_files() {
  git ls-files --cached --others --exclude-standard -- "$@" | grep -v '^tests/' |
    xargs -rd '\n' ls 2>/dev/null || true
}

check_project_header() { # FILE HEADER
  local folder=${1%/*} of=${2%/*} allowed
  [[ "$2" =~ ^ui_[A-Za-z]+\.h$|^[^/]+\.moc$ ]] && return
  [[ "$2" == *.h ]] || offend "$1 includes \"$2\", which is no header"
  allowed="$folder ${may[$folder]}"
  [ -z "${entry_points[$1]+known}" ] || allowed+=" $adapters ${entry_points[$1]}"
  [[ " ${allowed//$'\n'/ } " == *" $of "* ]] || offend "$1 may not include \"$2\""
}

check_foreign_header() { # FILE HEADER
  local pattern folder=${1%/*}
  for pattern in "${!homes[@]}"; do
    [[ "$2" =~ ^($pattern)$ ]] || continue
    [[ " ${homes[$pattern]//$'\n'/ } " == *" $folder "* ]] || offend "$1 may not include <$2>"
    return
  done
  [[ "$2" =~ ^($standard)$ ]] || offend "$1 includes <$2>, which tools/check_layers.sh does not know"
}

while IFS= read -r folder; do
  if [ -z "${may[$folder]+known}" ]; then
    offend "$folder: a folder that tools/check_layers.sh does not know"
    continue
  fi
  while IFS= read -r file; do
    while IFS= read -r include; do
      case "$include" in
        '"'*) check_project_header "$file" "${include#?}" ;;
        '<'*) check_foreign_header "$file" "${include#?}" ;;
        *) offend "$file includes $include, which tools/check_layers.sh can't read" ;;
      esac
    done < <(includes_of "$file")
  done < <(files_in "$folder")
done < <(c_files '*.h' '*.c' '*.cpp' | sed 's|/[^/]*$||' | sort -u)

while IFS= read -r file; do
  offend "$file: an ending that tools/check_layers.sh does not know"
done < <(c_files '*.hpp' '*.hh' '*.hxx' '*.inc' '*.ipp' '*.cc' '*.cxx' '*.c++')
exit $offences

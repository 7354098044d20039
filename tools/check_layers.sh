#!/usr/bin/env bash
# Fails where an include runs upwards, or a foreign header stands outside its one adapter.
# Prints each offence.
set -euo pipefail
cd "$(dirname "$0")/.."
offences=0

# may FOLDER "FOLDERS": the files right in FOLDER include project headers of FOLDERS only.
may() {
  local folder=$1 allowed=${2// /|} found
  found=$(grep -nE '^#include "' "$folder"/*.h "$folder"/*.cpp 2>/dev/null |
    grep -vE "#include \"(($allowed)/[^/\"]+|ui_[A-Za-z]+\.h|[^/\"]+\.moc)\"" || true)
  if [ -n "$found" ]; then
    printf '%s may include only %s:\n%s\n' "$folder" "$2" "$found"
    offences=1
  fi
}
may platform "platform"
may device_monitor "device_monitor platform"
may device_monitor/libusb "device_monitor/libusb device_monitor platform"
may device_link "device_link device_monitor platform"
may update_engine "update_engine device_link platform"
may app_shell "app_shell app_shell/qt update_engine device_link device_monitor/libusb platform"
may app_shell/qt "app_shell/qt app_shell platform"
may tools "tools platform"
may simulator "simulator tools device_monitor platform"
may benchmarks "benchmarks app_shell app_shell/qt update_engine device_link simulator tools platform"

# only PATTERN FOLDERS: headers that match PATTERN are included in these folders alone.
only() {
  local found
  found=$(grep -nE "^#include <$1" "${sources[@]}" | grep -vE "^(${2// /|})/" || true)
  if [ -n "$found" ]; then
    printf '<%s> belongs to %s alone:\n%s\n' "$1" "$2" "$found"
    offences=1
  fi
}
mapfile -t sources < <(find app_shell device_link device_monitor platform simulator tools \
  update_engine -name '*.h' -o -name '*.cpp')
only 'Q[A-Za-z/]*>' app_shell/qt
only 'libusb' device_monitor/libusb
only '(umockdev|glib)' simulator
only 'openssl' 'tools simulator'


# The entry point alone knows which adapters stand behind the ports.
found=$(grep -lE '#include "(app_shell/qt|device_monitor/libusb)/' app_shell/*.cpp app_shell/*.h |
  grep -v '^app_shell/main.cpp$' || true)
if [ -n "$found" ]; then
  printf 'an adapter is included by %s\n' "$found"
  offences=1
fi
exit $offences

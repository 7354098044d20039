#!/usr/bin/env bash
# Takes a picture of every window and alert of the real program on a software QM5, at one, two
# and three pixels a point, in light and dark colours, in the usual font and one twice as large.
# usage: tools/take_screens.sh BIN_FOLDER SCREENS_FOLDER [SETTING...]
# A setting is SCALExSHADExFONT, as in 2xdarkx1; its pictures go into a folder of that name.
set -euo pipefail
readonly bin=$1 screens=$2
shift 2
[ $# -gt 0 ] || set -- {1,2,3}x{light,dark}x{1,2}
top=$(mktemp -d)
trap 'rm -rf "$top"' EXIT

# A prefix of its own with an image that is written in seconds, and one without an image.
readonly in_prefix=share/qm5-updater/QM5-combind-051723-secure-Cus-42.bin
for prefix in whole bare; do
  mkdir "$top/$prefix"
  cp -r "$bin" "$bin/../share" "$top/$prefix"
  rm "$top/$prefix/$in_prefix"
done
"$bin/qm5-image-builder" --payload-size 8192 "$top/whole/$in_prefix"

# colours SHADE: a desktop's own, as Qt reads them from a Plasma desktop's settings.
# shellcheck disable=SC2034 # view and button are read by their names
colours() {
  local window=239,240,241 view=252,252,252 button=252,252,252 text=35,38,41
  [ "$1" = light ] || { window=42,46,50 view=27,30,32 button=49,54,59 text=252,252,252; }
  local group background
  for group in Window View Button Tooltip Selection; do
    background=${group,,}
    background=${!background-$window}
    [ $group != Selection ] || background=61,174,233
    cat <<INI
[Colors:$group]
BackgroundNormal=$background
BackgroundAlternate=$background
ForegroundNormal=$([ $group = Selection ] && echo 252,252,252 || echo $text)
ForegroundInactive=161,169,177
ForegroundLink=29,153,243
ForegroundVisited=155,89,182
INI
  done
}

# desktop SHADE FONT
desktop() {
  mkdir -p "$work/config"
  {
    colours "$1"
    printf '[General]\nfont=Sans,%s,-1,5,50,0,0,0,0,0\n' $((10 * $2))
  } >"$work/config/kdeglobals"
  export XDG_CONFIG_HOME=$work/config XDG_CURRENT_DESKTOP=KDE KDE_SESSION_VERSION=5
}

# start PREFIX OPTION...: the program in that prefix, on a software QM5 with these options.
start() {
  local prefix=$1
  shift
  "$bin/qm5-simulator" "$@" -- "$top/$prefix/bin/qm5-updater" >"$work/lines" 2>&1 &
  simulator=$!
  on_screen "QM5 Updater"
  sleep 0.3 # until the bus has been looked at
}

end() {
  kill $simulator
  sleep 0.3
  kill $simulator 2>/dev/null || true # in an update, the first one only asks
  wait $simulator || true
}

# whole NAME: a picture of all windows as they stand on the screen.
whole() {
  sleep 0.5
  import -window root "$folder/$1.png"
  mogrify -bordercolor black -border 1 -trim +repage "$folder/$1.png"
}

two_windows() { [ "$(window "QM5 Updater" | wc -l)" -eq 2 ]; }
alert() {
  within 30 two_windows || fail "the alert \"$1\" did not come"
  whole "$1"
}

# outcome NAME PREFIX OPTION...: the alert that an update on such a device ends in.
outcome() {
  start "${@:2}"
  xdotool key Return
  alert "$1"
  end
}

chunk() { grep -q "Writing SFWd chunk $1\$" "$work/lines"; }

# update_to CHUNK OPTION...: an update that has come that far, its window held for a picture.
update_to() {
  start whole --latency-ms 4 "${@:2}"
  xdotool key Return
  on_screen "Updating the QM5"
  within 60 chunk "$1" || fail "the update did not get to block $1"
}

take_windows() {
  start whole
  save "QM5 Updater" "$folder/main.png"
  xdotool key Escape alt+x
  alert exit
  end
  start whole --no-permission
  save "QM5 Updater" "$folder/main-not-permitted.png"
  end
  start whole --attach-after 60
  save "QM5 Updater" "$folder/main-absent.png"
  xdotool key Return
  alert alert-no-device
  end
}

take_update() {
  start whole
  xdotool key Return
  on_screen "Updating the QM5"
  save "Updating the QM5" "$folder/progress-looking.png"
  end
  update_to 96
  hold $simulator save "Updating the QM5" "$folder/progress.png"
  xdotool key alt+a
  whole progress-abort
  xdotool key Escape
  on_screen "Firmware update successful!"
  save "Firmware update successful!" "$folder/finish.png"
  whole finish-over-main
  end
  update_to 8 --fault SFWd:9=silent
  sleep 8 # longer than the program finds usual
  save "Updating the QM5" "$folder/progress-waiting.png"
  end
  update_to 127 --fault SFWs:1=busy
  sleep 1.5
  save "Updating the QM5" "$folder/progress-checking.png"
  end
}

take_alerts() {
  outcome alert-version whole --fault request:1=stall
  outcome alert-no-need whole --version 4208
  outcome alert-data bare
  outcome alert-flash whole --fault SFWi:1=result:1
}

# In a shell of its own, whose screen ends with it.
take_setting() (
  IFS=x read -r scale shade font <<<"$1"
  folder=$screens/$1
  mkdir -p "$folder"
  . "$(dirname "$0")/virtual_screen.sh"
  desktop "$shade" "$font"
  export QT_SCALE_FACTOR=$scale
  start_screen $((1280 * scale))x$((800 * scale))
  take_windows
  take_update
  take_alerts
)

for setting in "$@"; do
  take_setting "$setting"
  printf '== Screenshots: %s\n' "$screens/$setting"
done

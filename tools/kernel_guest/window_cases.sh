# shellcheck shell=bash
# shellcheck disable=SC2154 # guest.sh sets the names that are not set here
# The program with windows, driven by the keyboard on a virtual screen in the person's session.

window() { as_person timeout 60 xdotool search --onlyvisible --name "^$1$"; }
has_window() { [ -n "$(window "$1")" ]; }
has_no_window() { ! has_window "$1"; }
focus() { comes has_window "$1" && as_person timeout 60 xdotool windowfocus "$(window "$1" | tail -n 1)"; }
press() { as_person timeout 60 xdotool key "$1"; }

# press_until KEY CONDITION...: a window that has come up by itself takes no press in its first moments.
press_until() {
  local end=$((SECONDS + 120))
  until "${@:2}"; do
    [ $SECONDS -lt $end ] && sleep 1 && press "$1" || return 1
  done
}

start_screen() {
  [ ${#person_environment[@]} -eq 0 ] || return 0 # another group of cases has started it
  # shellcheck disable=SC2034 # guest.sh has it
  person_environment=(DISPLAY=:1 QT_QPA_PLATFORM=xcb)
  become_person Xvfb :1 -screen 0 1280x900x24 -br -noreset -nolisten tcp >/run/screen.log 2>&1 &
  comes test -S /tmp/.X11-unix/X1
  become_person openbox --startup "touch /home/person/managed" >>/run/screen.log 2>&1 &
  comes test -e /home/person/managed
}

start_windows() {
  start qm5-updater
  focus "QM5 Updater" && comes has_opened
}
begins() { focus "QM5 Updater" && press Return && comes says "Writing SFWd chunk 0"; }
finishes() { begins && focus "Firmware update successful!"; }
# Behind the requests of the update comes the one for the version.
is_confirmed() {
  power_cycle && comes has_requests $(($(wc -l <requests) + 1))
}
ends_at_confirm() { press_until Return is_over && ends_with 0; }
alerts() { unplug && comes has_no_window "Updating the QM5"; }
is_acknowledged() { focus "QM5 Updater"; }

window_cases() {
  hold "a virtual screen starts" start_screen
  start_simulator
  attach
  hold "the windows come, and take the QM5" start_windows
  hold "they update it, to the finish dialog" finishes
  hold "request for request as prescribed" are_as_prescribed
  hold "after a power cycle, they read the version" is_confirmed
  hold "the finish dialog ends the program" ends_at_confirm
  hold "the QM5 has nothing to complain of" stop_simulator
}

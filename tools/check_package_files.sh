#!/usr/bin/env bash
# Shows what ./package has built to Debian's own checkers and the desktop's. Each is silent, or ends
# with a failure, when it finds something.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/common.sh

readonly folder=build/package
compgen -G "$folder/all/*.changes" >/dev/null ||
  { say "There are no packages yet: ./package builds them"; exit 1; }
install_missing "${packages_package_check[@]}"
files=$(mktemp -d)
readonly files share=$files/usr/share
trap 'rm -r "$files"' EXIT

# Findings that stay. Each suite's checkers know only their own names of findings, so an override in
# the packages would itself be a finding of the other suite.
readonly overridden=(
  # The metainfo's comments say why of these.
  cid-maybe-not-rdns url-homepage-missing developer-name-tag-deprecated developer-info-missing
  appstream-metadata-validation-failed # which is lintian's word for them
  # The metainfo is for the program with windows, so it is not in the package of the udev rule.
  appstream-metadata-missing-modalias-provide
  # The packages follow the policy of Debian 12, whose lintian knows no newer one.
  out-of-date-standards-version
)

# judge STATUS COMMAND...: fails where it finds anything else, or ends with neither 0 nor STATUS, its
# status when it has found something.
judge() {
  local output findings status=0
  output=$("${@:2}" 2>&1) || status=$?
  findings=$(grep -E '^[EWIP]: ' <<<"$output" |
    grep -vE ": ($(IFS='|'; echo "${overridden[*]}"))( |$)" || true)
  if [ -n "$findings" ] || { [ $status -ne 0 ] && [ $status -ne "$1" ]; }; then
    printf '%s\n' "$output"
    exit 1
  fi
}

check_manual_pages() {
  local page warnings
  for page in "$share"/man/man1/*.gz; do
    warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 \
      man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
    warnings+=$(zcat "$page" | groff -ww -man -Tutf8 -z 2>&1)
    [ -z "$warnings" ] || { say "$page: $warnings"; exit 1; }
  done
}

say "Checking the packages' files"
judge 2 lintian --allow-root --pedantic --display-info --fail-on error,warning,info,pedantic \
  "$folder"/all/*.changes
for deb in "$folder"/*.deb; do
  dpkg-deb -x "$deb" "$files"
done
desktop-file-validate "$share"/applications/*.desktop
judge 3 appstreamcli validate --pedantic --no-net --no-color "$share"/metainfo/*.xml
check_manual_pages

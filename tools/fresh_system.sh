# shellcheck shell=bash
# Bare Debian systems in folders, from where this machine has its packages. Sourced by bash.

# The suite that this machine runs, by its code name.
# shellcheck disable=SC2034 # used by the scripts that source this one
own_suite=$(. /etc/os-release && echo "${VERSION_CODENAME-unknown}")

# in_system ROOT COMMAND...: runs it there as root, in an environment of its own but for the way to
# the network.
in_system() {
  env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
    LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive http_proxy="${http_proxy-}" \
    https_proxy="${https_proxy-}" chroot "$@"
}

# package_sources SUITE: lines for a sources.list. For this machine's own suite, all that it has
# itself, updates included.
package_sources() {
  local own
  # shellcheck disable=SC2016 # apt's variables
  own=$(apt-get indextargets --format 'deb $(SITE) $(RELEASE) $(COMPONENT)' \
    'Created-By: Packages' 'Origin: Debian' | sort -u)
  if [ "$1" = "$own_suite" ]; then
    printf '%s\n' "$own"
  else
    awk -v own="$own_suite" -v suite="$1" '$3 == own { print $1, $2, suite, $4; exit }' <<<"$own"
  fi
}

# make_bare_system SUITE ROOT: as root. ROOT is an empty folder or none. Fails when the suite can't
# be fetched, or not within ten minutes.
make_bare_system() {
  local sources certificates=/etc/ssl/certs/ca-certificates.crt
  sources=$(package_sources "$1")
  timeout 600 debootstrap --variant=minbase "$1" "$2" \
    "$(awk -v suite="$1" '$3 == suite { print $2; exit }' <<<"$sources")" || return
  chmod 755 "$2"
  [ -z "$sources" ] || printf '%s\n' "$sources" >"$2/etc/apt/sources.list"
  apt-config dump Acquire >"$2/etc/apt/apt.conf.d/90-this-machine"
  [ ! -f $certificates ] || install -D -m 644 $certificates "$2$certificates"
  in_system "$2" apt-get update
}

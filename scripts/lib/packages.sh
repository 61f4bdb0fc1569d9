# Installs the packages that a script needs. Source this file.
# shellcheck shell=bash

# Packages needed to build the library, the daemon and the command line.
# shellcheck disable=SC2034 # used by the scripts that source this file
build_packages=(cmake g++ ninja-build pkg-config libboost-dev libboost-filesystem-dev libcli11-dev
  libjsoncpp-dev liblmdb-dev libsimdjson-dev nettle-dev)

# Installs those of the named Debian packages that are missing.
ensure_packages() {
  local package missing=()
  for package in "$@"; do
    dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null | grep -q '^ii' ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  local root=()
  [ "$(id -u)" -eq 0 ] || root=(sudo)
  echo "installing ${missing[*]}"
  "${root[@]}" apt-get update -q >/dev/null
  "${root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -q -y --no-install-recommends "${missing[@]}" >/dev/null
}

#!/bin/sh
# Holds the service file against systemd, as if the program were installed.
# Usage: service_file.sh SERVICE PROGRAM
set -eu
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
unit=$directory/zelttokenmgrd.service
sed "s|^ExecStart=[^ ]*|ExecStart=$2|" "$1" >"$unit"

problems=$(systemd-analyze verify --man=no "$unit" 2>&1) || problems="exit status $?: $problems"
if [ -n "$problems" ]; then
  echo "$problems"
  exit 1
fi
systemd-analyze security --offline=true --threshold=10 --no-pager "$unit"
# They would hide the socket in /tmp, and turn every client into nobody.
! grep -E '^(PrivateTmp|PrivateUsers|DynamicUser)=' "$unit"

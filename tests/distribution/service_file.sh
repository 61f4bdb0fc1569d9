#!/bin/sh
# Checks the units with systemd, as if the program were installed.
# Usage: service_file.sh SERVICE SOCKET PROGRAM
set -eu
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
unit=$directory/zelttokenmgrd.service
sed "s|^ExecStart=[^ ]*|ExecStart=$3|" "$1" >"$unit"
cp "$2" "$directory"

problems=$(systemd-analyze verify --man=no "$unit" "$directory/zelttokenmgrd.socket" 2>&1) ||
  problems="exit status $?: $problems"
if [ -n "$problems" ]; then
  echo "$problems"
  exit 1
fi
systemd-analyze security --offline=true --threshold=10 --no-pager "$unit"
# They would hide the socket in /tmp, turn every client into nobody, and hide the owners of tokens.
! grep -E '^(PrivateTmp|PrivateUsers|DynamicUser|ProtectProc|ProcSubset)=' "$unit"

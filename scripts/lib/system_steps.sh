#!/bin/bash
# The steps of scripts/test-system, inside the system. Usage: system_steps.sh [STEP...]
# Each step is a function. It ends its process if an expectation fails.
set -euo pipefail
cd /test

readonly socket=/tmp/zelttokenmgr.sock second=/run/zelttokenmgr/socket store=/run/zelttokenmgr/tokens.mdb
readonly service=zelttokenmgrd.service sockets=zelttokenmgrd.socket grants=/etc/zelttokenmgr/installed
export grant='[{"api":"Demo.Item","method":"get"}]'
export use='{"api":"Demo.Item","method":"get","runner":"demo"}'

fail() {
  printf '    %s\n' "$@"
  exit 1
}

as() { setpriv --reuid "$1" --regid "$1" --init-groups "${@:2}"; }

# expect STATUS TEXT COMMAND...: TEXT is a pattern that the whole output must match.
expect() {
  local status=0 text
  text=$("${@:3}" 2>&1) || status=$?
  # shellcheck disable=SC2053 # it is a pattern
  [[ $status == "$1" && $text == $2 ]] || fail "'${*:3}' gives $status '$text' instead of $1 '$2'"
}

# Polls until the command succeeds.
await() {
  local end=$((SECONDS + 60))
  until "$@" >/dev/null 2>&1; do
    ((SECONDS < end)) || fail "'$*' never succeeds"
    sleep 0.1
  done
}

main_pid() { systemctl show --value -p MainPID $service; }
is_new() { [ "$(main_pid)" != "$1" ] && systemctl -q is-active $service; }

# Takes a token through all operations in one process of the user demo.
# shellcheck disable=SC2016 # the other shell's parameters
life_of_a_token() {
  as demo bash -ec 'token=$(zelttoken issue fastapi "$grant" --owner $$)
    [ "$(zelttoken validate fastapi "$token" "$use")" = permitted ]
    exec zelttoken revoke fastapi "$token"'
}

live_on() {
  until [ -e load.end ]; do life_of_a_token && echo lives >>"load.$1" || echo fails >>load.errors; done
}

lives_again() {
  local lived=0
  [ ! -e "load.$1" ] || lived=$(wc -l <"load.$1")
  await eval "[ \$(wc -l <load.$1) -gt $((lived + 5)) ]"
}

# Runs the command while clients take tokens through their lives without pause; nothing may fail.
under_load() {
  local client
  rm -f load.*
  trap 'touch load.end' EXIT
  for client in 1 2 3 4; do live_on $client 2>>load.errors & done
  lives_again 1
  "$@"
  lives_again 2
  touch load.end
  wait
  trap - EXIT
  [ ! -s load.errors ] || fail "$(sort load.errors | uniq -c | sort -rn | head -5)"
}

# Makes the package "notes", which brings its grants with it.
make_notes() {
  mkdir -p other notes/{DEBIAN,$grants,/var/packages/notes/conf}
  printf '%s: %s\n' Package notes Version 1 Architecture all Maintainer demo Description notes >notes/DEBIAN/control
  echo '{"username": "demo"}' >notes/var/packages/notes/conf/privilege
  echo '{"fastapi": [{"api": "Demo.Item", "method": "get"}]}' >notes/$grants/notes
  dpkg-deb -b notes other >/dev/null
}

# -- the steps, in their order ------------------------------------------------------------------

# Files that other users created at the socket's path before the installation do no harm.
install() {
  useradd -m mallory
  useradd -m demo
  useradd -m bob
  useradd dave
  as mallory mkdir -p $socket/full
  make_notes
  dpkg -i other/*.deb >/dev/null
  dpkg -i ./*.deb >/dev/null
  expect 0 $'active\nactive' systemctl is-active $service $sockets
  expect 0 $'enabled\nenabled' systemctl is-enabled $service $sockets
  expect 0 'root 666 socket' stat -c '%U %a %F' $socket
  expect 0 'root 666 socket' stat -c '%U %a %F' $second
  expect 0 'zelttokenmgr 600' stat -c '%U %a' $store
  expect 0 '' systemctl list-units --failed --no-legend
  expect 0 '' journalctl -q --no-pager -u $service -p warning
  rmdir $socket.??????/full || fail "the file at the path was changed"
  rmdir $socket.??????
  expect 0 'root 644' stat -c '%U %a' $grants/notes
  life_of_a_token
}

# Runs one command in the one shell of the user demo, which may end with it.
in_demos_shell() {
  local line
  echo "$1; echo END" >&"${DEMO[1]}"
  while read -r line <&"${DEMO[0]}" && [ "$line" != END ]; do echo "$line"; done
}

# Follows the README: creates the files, and compares the output of each command with it.
readme() {
  local line command='' printed='' shown='' compared=''
  mkdir -m 777 session
  cd session
  coproc DEMO { as demo bash 2>&1; }
  while IFS= read -r line; do
    case $line in
      'demo$ '* | '$ '* | '```' | 'root# '*)
        if [[ $command == cat* ]]; then
          printf '%s' "$shown" >"${command#cat }"
        elif [ -n "$compared" ] && [ "$printed" != "${shown%$'\n'}" ]; then
          fail "$command" "prints: $printed" "README: $shown"
        fi
        command=${line#*\$ } shown='' printed='' compared=yes
        ;;&
      'demo$ '*) printed=$(in_demos_shell "$command") ;;
      'root# '*) compared='' ;; # what it prints has process ids in it
      '$ cat '* | '```') ;;
      '$ '*) printed=$(as bob bash -c "$command" 2>&1) || true ;;
      zelttokenmgrd*) ;; # the log's
      *) shown+=$line$'\n' ;;
    esac
  done < <(sed -n "/^## A token's life/,/^## Build/{/^\`\`\`$/,/^\`\`\`$/p}" ../README.md)
  [ "$command" = '```' ] || fail "no session found"
}

# Rebuilds the packages with another version.
repack() {
  local package directory
  for package in ./*.deb; do
    directory=$(mktemp -d)
    dpkg-deb -R "$package" "$directory"
    sed -i -E "s/^(Version: .*)-1\$/\\1-$1/" "$directory/DEBIAN/control"
    dpkg-deb -Znone -b "$directory" "$2" >/dev/null
    rm -r "$directory"
  done
}

up_and_down() {
  local i
  dpkg -i newer/*.deb >/dev/null
  for ((i = 1; i <= 50; ++i)); do systemctl restart $service || fail "restart $i"; done
  dpkg -i ./*.deb >/dev/null
}

upgrade() {
  mkdir newer
  repack 2 newer
  under_load up_and_down
  expect 0 $'active\nactive' systemctl is-active $service $sockets
}

# The daemon comes back when it is killed, and when it hangs.
restarted() {
  local before
  before=$(main_pid)
  kill -KILL "$before"
  await is_new "$before"
  expect 0 30s systemctl show --value -p WatchdogUSec $service
  mkdir -p /run/systemd/system/$service.d
  printf '[Service]\nWatchdogSec=3\n' >/run/systemd/system/$service.d/watchdog.conf
  systemctl daemon-reload
  systemctl restart $service
  before=$(main_pid)
  kill -STOP "$before"
  await is_new "$before"
  life_of_a_token
  rm -r /run/systemd/system/$service.d
  systemctl daemon-reload
  systemctl restart $service
}

with_options() { echo "ZELTTOKENMGRD_OPTIONS='$1'" >/etc/default/zelttokenmgr; }

# A start that cannot succeed is not repeated, even for waiting clients. Afterwards, a
# restart of the sockets alone.
# shellcheck disable=SC2016 # evaluated later
failed_start() {
  with_options '--store /etc/hostname'
  systemctl restart $service 2>/dev/null || true
  expect 69 '*' as demo zelttoken issue fastapi "$grant"
  await eval '[ "$(systemctl is-active $service $sockets)" = $'"'failed\\ninactive'"' ]'
  expect 69 '*cannot be reached*' as demo zelttoken issue fastapi "$grant"
  with_options ''
  systemctl start $service
  life_of_a_token
  systemctl restart $sockets
  life_of_a_token
}

# Runs the commands of the page for administrators. Clients in services with PrivateTmp= or
# DynamicUser= reach the daemon.
# shellcheck disable=SC2016 # the marks of code
administration() {
  sed -n '/^```sh$/,/^```$/{/^```/!p}' administration.md >page.sh
  bash -euxo pipefail page.sh >page.log 2>&1 || fail "$(tail -5 page.log)"
  [ "$(grep -c ' orphan ' page.log)" = 2 ] || fail "$(cat page.log)"
  expect 0 'zelttokenmgr 600' stat -c '%U %a' /var/lib/tokens/tokens.mdb
  expect 1 '*' systemd-run --quiet --wait -p DynamicUser=yes zelttoken validate fastapi none "$use"
  systemctl -q disable --now zelttoken-metrics.timer
  rm -r /etc/systemd/system/{zelttoken-metrics.*,$service.d} /var/lib/{prometheus,tokens} /var/backups/*
  systemctl daemon-reload
  with_options ''
  systemctl restart $service
}

# Prints what a purge leaves behind, apart from the user.
left_behind() {
  find / -xdev \( -iname '*zelttoken*' -o -nouser -o -user zelttokenmgr \) \
    ! -path '/proc/*' ! -path '/sys/*' ! -path '/test/*' ! -path '/var/log/*' ! -path "${grants%/*}*" 2>/dev/null
  find /run /tmp -iname '*zelttoken*' ! -path '/run/log/*'
}

# Neither package takes files of the other along.
purge() {
  local state=/var/lib/zelttokenmgr
  dpkg -P notes >/dev/null
  expect 0 'root 755' stat -c '%U %a' $grants
  expect 0 'root 755' stat -c '%U %a' /var/packages
  dpkg -i other/*.deb >/dev/null
  (umask 77 && touch $state/tokens.mdb $state/other)
  ln -sf /etc/passwd $state/tokens.mdb-lock
  dpkg -P zelttokenmgr libzelttokenmanager1 >/dev/null 2>purge.log
  expect 0 '*lib/zelttokenmgr holds other files*' cat purge.log
  expect 3 $'inactive\ninactive' systemctl is-active $service $sockets
  expect 0 other ls $state
  expect 0 '' dpkg -V notes
  expect 0 'root:*' getent passwd root
  rm -r $state
  expect 0 '' left_behind
}

readonly all=(install readme upgrade restarted failed_start administration purge)

run_steps() {
  local step
  for step in "$@"; do
    SECONDS=0
    echo "  $step"
    "$0" --step "$step" || {
      journalctl -q --no-pager -u $service -u $sockets | grep -v ' refused ' | tail -20
      echo "$step fails"
      return 1
    }
    echo "  $step holds ($SECONDS s)"
  done
}

case ${1-} in
  --step) "${@:2}" ;;
  '') run_steps "${all[@]}" ;;
  *) run_steps install "$@" ;;
esac

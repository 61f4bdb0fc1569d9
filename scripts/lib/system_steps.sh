#!/bin/bash
# The steps of scripts/test-system, inside the system. Usage: system_steps.sh [--machine] [STEP...]
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
workers() { pgrep -P "$(main_pid)"; }
is_new() { [ "$(main_pid)" != "$1" ] && systemctl -q is-active $service; }

all_workers() { [ "$(workers | wc -l)" = "$(nproc)" ]; }
none_of() { ! workers | grep -qxF "$1"; }

# Takes a token through all operations in one process of the user demo.
# shellcheck disable=SC2016 # the other shell's parameters
life_of_a_token() {
  as demo bash -ec 'token=$(zelttoken issue fastapi "$grant" --owner $$)
    [ "$(zelttoken validate fastapi "$token" "$use")" = permitted ]
    exec zelttoken revoke fastapi "$token"'
}

live_on() {
  until [ -e load.end ]; do life_of_a_token || echo "zelttoken fails"; done
}

# Runs the command while five clients send requests without pause; at most FAILURES requests may
# fail.
# under_load FAILURES COMMAND...
under_load() {
  rm -f load.*
  trap 'touch load.end; pkill -f "^perl system_load.pl"' EXIT
  local client clients=() asked=0 failed made wrong
  for client in 1 2 3 4; do
    as demo perl system_load.pl /dev/null >load.$client 2>>load.errors &
    clients+=($!)
  done
  live_on >>load.errors 2>&1 &
  clients+=($!)
  sleep 0.5
  "${@:2}"
  sleep 0.5
  touch load.end
  pkill -f '^perl system_load.pl'
  wait "${clients[@]}"
  trap - EXIT
  failed=$(grep -c 'zelttoken fails' load.errors || true)
  while read -r made wrong; do asked=$((asked + made)) failed=$((failed + wrong)); done < <(cat load.[1-4])
  echo "    $failed of $asked requests failed"
  ((asked > 100)) || fail "too little load"
  ((failed <= $1)) || fail "$(sort load.errors | uniq -c | sort -rn | head -5)"
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
  expect 0 'root 666 socket' stat -c '%U %a %F' $socket
  expect 0 'root 666 socket' stat -c '%U %a %F' $second
  expect 0 'root 755' stat -c '%U %a' /var/packages
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

restart_often() {
  local i
  for ((i = 1; i <= $1; ++i)); do systemctl restart $service || fail "restart $i"; done
}

restart() { under_load 0 restart_often 50; }

reload_all() {
  local before
  before=$(main_pid) before+=" $(workers)"
  for _ in {1..20}; do
    systemctl reload $service
    systemctl kill --signal=HUP $service # the workers too
  done
  [ "$before" = "$(main_pid) $(workers)" ] || fail "a process was replaced"
}

reload() { under_load 0 reload_all; }

# Rebuilds the packages with another version.
repack() {
  local package directory
  for package in ./*.deb; do
    directory=$(mktemp -d)
    dpkg-deb -R "$package" "$directory"
    sed -i -E "s/^(Version: .*)-1\$/\\1-$1/" "$directory/DEBIAN/control"
    dpkg-deb -Znone -b "$directory" "$2" >/dev/null
  done
}

up_and_down() {
  dpkg -i newer/*.deb >/dev/null
  dpkg -i ./*.deb >/dev/null
}

upgrade() {
  mkdir newer
  repack 2 newer
  under_load 0 up_and_down
  expect 0 $'active\nactive' systemctl is-active $service $sockets
}

# Each killed worker may have been serving a request.
kill_workers() {
  for _ in {1..20}; do
    kill -KILL "$(workers | head -1)"
    await all_workers
  done
}

killed_workers() { under_load 20 kill_workers; }

end_daemon() {
  local signal before
  for signal in KILL TERM KILL; do
    before=$(main_pid)
    kill -$signal "$before"
    await is_new "$before"
  done
}

# The daemon is restarted with and without clients.
ended_daemon() {
  end_daemon
  under_load $((2 * $(nproc))) end_daemon
}

# Repeatedly tries to occupy the socket's path.
# shellcheck disable=SC2016 # perl's parameters
squat() {
  as mallory perl -MIO::Socket::UNIX -e 'my $path = shift;
    while (1) {
      unlink $path; rmdir $path; mkdir "$path.dir"; rename "$path.dir", $path; mkdir $path;
      IO::Socket::UNIX->new(Local => $path, Listen => 1);
    }' $socket 2>/dev/null
}

# Stops the sockets too, so that the path is free, and lets another user create a file there.
take_path() {
  systemctl stop $sockets $service
  rm -rf $socket
  as mallory "$@"
  systemctl start $sockets $service
  expect 0 'root socket' stat -c '%U %F' $socket
  life_of_a_token
}

squatting() {
  (squat &) 2>/dev/null
  under_load 0 restart_often 20
  pkill -u mallory
  expect 0 'root socket' stat -c '%U %F' $socket
  take_path mkdir $socket
  take_path touch $socket
  take_path ln -s /home $socket
  take_path perl -MIO::Socket::UNIX -e 'IO::Socket::UNIX->new(Local => shift, Listen => 1) or die' $socket
  rmdir $socket.?*
}

# shellcheck disable=SC2016 # perl's parameters
# Serves at the path, posing as the daemon.
listen_as() { as "$1" perl -MIO::Socket::UNIX -e '
  my $server = IO::Socket::UNIX->new(Local => shift, Listen => 9) or die; sleep' "$2"; }

# A client does not send anything to another user's socket at the first address, and finds the
# daemon at the second.
stranger() {
  [ "${1-}" = --inside ] || exec unshare --mount "$0" --step stranger --inside
  mount -t tmpfs -o mode=1777 tmpfs /tmp
  (listen_as mallory $socket &) 2>/dev/null
  await test -S $socket
  life_of_a_token
  mount -t tmpfs tmpfs ${second%/*}
  expect 69 '*mallory*' as demo zelttoken issue fastapi "$grant"
  pkill -u mallory
}

as_service() { systemd-run --quiet --wait --pipe "$@"; }

# shellcheck disable=SC2016 # the other shell's parameters
hardened_clients() {
  expect 0 permitted as_service -p User=demo -p PrivateTmp=yes -p ProtectSystem=strict -E use="$use" \
    zelttoken run fastapi "$grant" -- sh -c 'zelttoken validate fastapi $ZELT_TOKEN "$use"'
  local token
  token=$(as demo zelttoken issue fastapi "$grant")
  expect 0 permitted as_service -p DynamicUser=yes zelttoken validate fastapi "$token" "$use"
}

# When old files are removed from /tmp, the socket is kept, even while no daemon serves it.
cleaning() {
  systemctl stop $sockets $service
  echo 'q /tmp 1777 root root 0' >/etc/tmpfiles.d/tmp.conf
  touch /tmp/old
  systemd-tmpfiles --clean
  rm /etc/tmpfiles.d/tmp.conf
  [ ! -e /tmp/old ] || fail "the old file was not removed"
  expect 0 '*' ls $socket $second $store
  systemctl start $sockets $service
  life_of_a_token
}

# The space for tokens is allocated when the daemon starts, so other programs cannot use it up.
full_run() {
  local token size
  size=$(findmnt -nbo SIZE /run)
  token=$(as demo zelttoken issue fastapi "$grant")
  mount -o "remount,size=$(($(findmnt -nbo USED /run) + 8192))" /run
  head -c 1M /dev/zero >/run/full 2>/dev/null || true
  under_load 0 restart_often 10
  expect 0 permitted zelttoken validate fastapi "$token" "$use"
  mount -o "remount,size=$size" /run
  rm /run/full
}

# A worker or supervisor that hangs does not keep the service down.
hanging() {
  local before
  expect 0 30s systemctl show --value -p WatchdogUSec $service
  before=$(workers)
  # shellcheck disable=SC2086 # several
  kill -STOP $before
  life_of_a_token
  await none_of "$before"

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

# The service from the documentation, which revokes its token when it is stopped.
wrapped_service() {
  cat >/etc/systemd/system/wrapped.service <<EOF
[Unit]
Wants=$service
After=$service
[Service]
User=demo
PrivateTmp=yes
ExecStart=/usr/bin/zelttoken run fastapi '$grant' -- sh -c 'echo \$ZELT_TOKEN >/home/demo/token; exec sleep infinity'
SuccessExitStatus=143
EOF
  systemctl daemon-reload
  systemctl start wrapped
  await test -s /home/demo/token
  expect 0 permitted zelttoken validate fastapi @/home/demo/token "$use"
  systemctl stop wrapped
  expect 3 inactive systemctl is-active wrapped
  expect 1 '*' zelttoken validate fastapi @/home/demo/token "$use"
}

# A service that systemd starts for its socket, awaits and watches. It owns its token.
replaced_service() {
  cat >/home/demo/service.pl <<'EOF'
use IO::Socket::UNIX;
$ENV{LISTEN_PID} == $$ && $ENV{WATCHDOG_PID} == $$ or die "another process is meant";
IO::Socket::UNIX->new(Type => SOCK_DGRAM, Peer => $ENV{NOTIFY_SOCKET})->send("READY=1") or die;
my $server = IO::Socket::UNIX->new_from_fd(3, "r+");
while (my $client = $server->accept) { print $client $ENV{ZELT_TOKEN} }
EOF
  printf '%s\n' '[Socket]' ListenStream=/run/replaced.sock >/etc/systemd/system/replaced.socket
  printf '%s\n' '[Service]' User=demo Type=notify WatchdogSec=60 \
    "ExecStart=/usr/bin/zelttoken exec fastapi '$grant' -- perl /home/demo/service.pl" \
    >/etc/systemd/system/replaced.service
  systemctl daemon-reload
  systemctl start replaced.socket
  local token
  token=$(timeout 30 perl -MIO::Socket::UNIX -e 'print IO::Socket::UNIX->new("/run/replaced.sock")->getline')
  expect 0 permitted zelttoken validate fastapi "$token" "$use"
  expect 0 active systemctl is-active replaced
  expect 0 "* $(systemctl show --value -p MainPID replaced) *perl *alive *" zelttoken list
  systemctl stop replaced.socket replaced.service
  expect 0 '* orphan *' zelttoken list
}

with_options() { echo "ZELTTOKENMGRD_OPTIONS='$1'" >/etc/default/zelttokenmgr; }

# A start that cannot succeed is not repeated, even for waiting clients. Afterwards, a store on a disk
# and a restart of the sockets alone.
failed_start() {
  with_options '--store /etc/hostname'
  systemctl restart $service 2>/dev/null || true
  expect 69 '*cannot be reached*' as demo zelttoken issue fastapi "$grant"
  await eval '[ "$(systemctl is-active $service $sockets)" = $'"'failed\\ninactive'"' ]'
  with_options '--store /var/lib/zelttokenmgr/tokens.mdb'
  systemctl start $service
  life_of_a_token
  systemctl restart $sockets
  life_of_a_token
  expect 0 'zelttokenmgr 600' stat -c '%U %a' /var/lib/zelttokenmgr/tokens.mdb
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
  ln -s /etc/passwd $state/tokens.mdb-lock
  dpkg -P zelttokenmgr libzelttokenmanager1 >/dev/null 2>purge.log
  expect 0 '*lib/zelttokenmgr holds other files*' cat purge.log
  expect 3 $'inactive\ninactive' systemctl is-active $service $sockets
  expect 0 other ls $state
  expect 0 '' dpkg -V notes
  expect 0 'root:*' getent passwd root
  rm -r $state
  expect 0 '' left_behind
}

# -- the steps of the virtual machine, which reboots after each of the first two --------------------

readonly on_disk=/var/lib/zelttokenmgr/tokens.mdb kept=/var/lib/test-system

# This kernel passes descriptors on. Other clients are served however long closing them takes.
descriptors() {
  for _ in {1..4}; do (as mallory perl system_descriptors.pl &) 2>/dev/null; done
  export -f life_of_a_token as
  timeout 120 bash -ec 'for _ in {1..20}; do life_of_a_token; done' || fail "other clients are not served"
  pkill -u mallory || fail "no descriptors were sent"
}

# Leaves one token in a store that survives a reboot, and one in a store that does not.
before_reboot() {
  install
  descriptors
  mkdir -p $kept /etc/systemd/system/$service.d
  as demo zelttoken issue fastapi "$grant" >$kept/lost
  printf '[Service]\nExecStart=\nExecStart=/usr/sbin/zelttokenmgrd --store %s\n' $on_disk \
    >/etc/systemd/system/$service.d/store.conf
  systemctl daemon-reload
  systemctl restart $service
  (as demo sleep infinity &)
  pgrep -u demo sleep >$kept/owner
  as demo zelttoken issue fastapi "$grant" --owner "$(cat $kept/owner)" >$kept/token
}

# Runs a command of the user demo as the process with this id.
with_number() {
  local status=250
  while [ $status = 250 ]; do
    status=0
    echo $(($1 - 1)) >/proc/sys/kernel/ns_last_pid
    (
      [ $BASHPID = "$1" ] || exit 250
      exec setpriv --reuid demo --regid demo --clear-groups "${@:2}"
    ) || status=$?
  done
  return $status
}

# A process with the id of an owner from the previous boot does not own its token. Then the machine
# is reset under load.
after_reboot() {
  local owner token
  owner=$(cat $kept/owner) token=$(cat $kept/token)
  [ ! -e "/proc/$owner" ] || fail "the process id is in use"
  expect 1 '*' zelttoken validate fastapi "@$kept/lost" "$use"
  expect 1 '*refused*' with_number "$owner" zelttoken revoke fastapi "$token"
  expect 1 '*refused*' with_number "$owner" zelttoken transfer fastapi "$token" $$
  expect 0 permitted zelttoken validate fastapi "$token" "$use"
  expect 0 '1 token dropped' zelttoken drop --orphans
  expect 1 '*' zelttoken validate fastapi "$token" "$use"
  for client in 1 2 3 4; do as demo perl /test/system_load.pl /home/demo/journal.$client & done
  await grep -q -m 1 revoked /home/demo/journal.4
  await eval "[ \$(cat /home/demo/journal.* | wc -l) -gt 100 ]"
  echo reset >$kept/stage
  sync $kept/stage
  echo b >/proc/sysrq-trigger
  sleep infinity
}

# Answered requests still hold after the reset.
after_reset() {
  local journal
  for journal in /home/demo/journal.*; do expect 0 '[1-9]* 0' perl system_load.pl --check "$journal"; done
}

readonly container=(install readme restart reload upgrade killed_workers ended_daemon squatting stranger
  hardened_clients cleaning full_run hanging wrapped_service failed_start replaced_service purge)

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

run_machine() {
  case $(cat $kept/stage 2>/dev/null) in
    '')
      run_steps before_reboot
      echo reboot >$kept/stage
      systemctl reboot
      ;;
    reboot) run_steps after_reboot ;;
    reset)
      run_steps after_reset
      echo "all steps hold"
      ;;
  esac
}

case ${1-} in
  --step) "${@:2}" ;;
  --machine) run_machine ;;
  '') run_steps "${container[@]}" ;;
  *) run_steps install "$@" ;;
esac

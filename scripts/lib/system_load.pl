#!/usr/bin/perl
# Sends requests of all four types to the daemon continuously until SIGTERM, then prints how many
# were sent, and how many got a wrong response or none.
# Usage: system_load.pl JOURNAL          records the responses, bypassing all caches
#        system_load.pl --check JOURNAL  compares the recorded responses with the daemon
use strict;
use warnings;
use Fcntl;
use IO::Socket::UNIX;

my $grant = '"api":"Demo.Item","method":"get"';
my $use = qq({$grant,"runner":"demo"});
my ($asked, $failed, $stop) = (0, 0, 0);
$SIG{TERM} = sub { $stop = 1 };
$SIG{PIPE} = 'IGNORE';

sub ask {
  my ($type, $token, $payload) = @_;
  my $socket = IO::Socket::UNIX->new(Peer => '/tmp/zelttokenmgr.sock') or return "connect: $!";
  $socket->print(qq({"type":"$type","service":"fastapi","token":"$token","payload":$payload}\n));
  $socket->flush;
  return scalar(<$socket>) // 'no answer';
}

# Returns the pattern's capture, or 1, if the response matches.
sub fits {
  my ($pattern, @request) = @_;
  my $answer = ask(@request);
  $asked++;
  return $1 // 1 if $answer =~ $pattern;
  $failed++;
  chomp $answer;
  warn "$request[0]: $answer\n";
  return 0;
}

my $permitted = qr/"permitted":true/;
my $refused = qr/"success":false/;
my $done = qr/"success":true/;

if ($ARGV[0] eq '--check') {
  my %state;
  open my $journal, '<', $ARGV[1] or die "$ARGV[1]: $!";
  while (<$journal>) { $state{$2} = $1 if /^(issued|revoking|revoked) (\S+)\n/ }
  for my $token (keys %state) {
    fits($permitted, 'validate', $token, $use) if $state{$token} eq 'issued';
    fits($refused, 'validate', $token, $use) if $state{$token} eq 'revoked';
  }
} else {
  sysopen my $journal, $ARGV[0], O_WRONLY | O_CREAT | O_APPEND | O_SYNC or die "$ARGV[0]: $!";
  my @tokens;
  until ($stop) {
    if (my $token = fits(qr/"token":"([^"]+)"/, 'issue', '', "[{$grant}]")) {
      push @tokens, $token;
      syswrite $journal, "issued $token\n";
    }
    fits($permitted, 'validate', $_, $use) && fits($done, 'transfer', $_, $$) for @tokens;
    next if @tokens < 4;
    my $token = shift @tokens;
    syswrite $journal, "revoking $token\n";
    fits($done, 'revoke', $token, 'null') or next;
    syswrite $journal, "revoked $token\n";
    fits($refused, 'validate', $token, $use);
  }
  fits($done, 'revoke', $_, 'null') for @tokens;
}
print "$asked $failed\n";

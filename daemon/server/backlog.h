// Accepting connections.
#pragma once

#include <chrono>
#include <vector>

#include "passed_descriptors.h"
#include "poll.h"

/// A listening socket.
struct Listener {
  int fd = -1;

  /// Another process (systemd) holds the socket too, and keeps the backlog when this daemon ends.
  bool inherited = false;
};

/// Accepts connections from listening sockets, which other processes may share, alternately. A
/// connection wakes one process (EPOLLEXCLUSIVE). Pauses when descriptors or memory run out,
/// because retrying at once would spin. Meanwhile connections wake the other processes.
class Backlog {
 public:
  using Clock = std::chrono::steady_clock;

  /// `poll` must outlive the backlog. The caller keeps the descriptors, which are made
  /// non-blocking.
  Backlog(Poll& poll, const std::vector<Listener>& listeners);

  /// Returns an accepted connection, non-blocking and close-on-exec, or none if there is nothing to
  /// accept. Its descriptors are handled by `descriptors` if the kernel lets any through.
  ClientSocket Accept(PassedDescriptors& descriptors);

  /// Whether there may be something to accept.
  bool Pending() const;

  /// Looks at all listening sockets, since a process that was woken may have died.
  void LookAgain() noexcept;

  /// Stops accepting for a moment because of `error` (errno(3)). Throws `std::system_error` if that
  /// has been the only result for long.
  void Pause(int error);

  /// Ends a pause that is over. Returns when to call this again.
  Clock::time_point Resume(Clock::time_point now);

  /// Stops accepting from inherited sockets, and stops pausing.
  void BeginDraining();

 private:
  struct Source final : Awaiting {
    void BecomeReady() noexcept override { pending = true; }

    Listener listener;
    bool refuses_descriptors = false;
    bool pending = false;
  };

  ClientSocket AcceptFrom(Source& source, PassedDescriptors& descriptors);
  void StopWaiting();

  Poll& events;
  std::vector<Source> sources;
  std::size_t next = 0;
  int failures = 0;  // since a connection was accepted
  bool draining = false;
  Clock::time_point resume;  // the epoch when accepting
  Clock::time_point next_log;
};

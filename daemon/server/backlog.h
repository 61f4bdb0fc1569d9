// Accepting connections.
#pragma once

#include <vector>

#include "passed_descriptors.h"
#include "poll.h"

/// Accepts connections from listening sockets that do not block, and which other processes may
/// share, alternately. A connection wakes one process (EPOLLEXCLUSIVE).
class Backlog {
 public:
  /// `poll` must outlive the backlog, and tells it where there is something to accept. The caller
  /// keeps the descriptors, and calls `Listen`.
  Backlog(Poll& poll, const std::vector<int>& listeners)
      : events(poll), sources(listeners.begin(), listeners.end()) {}

  /// Returns an accepted connection, non-blocking and close-on-exec, or none if no socket is
  /// pending.
  ClientSocket Accept();

  /// Sets whether all sockets are pending. Each is from when `poll` tells so until it has nothing.
  void SetPending(bool pending) {
    for (Source& each : sources) each.is_pending = pending;
  }

  /// Looks at all sockets anew, since a process that was woken may have died. Ends a pause. Call
  /// this about once a second.
  void Listen();

  /// Stops accepting until `Listen` is called, because of `error` (errno(3)): retrying at once
  /// would spin. Meanwhile connections wake other processes. Throws `std::system_error` if nothing
  /// was accepted for long.
  void Pause(int error);

  /// Stops waiting for connections until `Listen` is called.
  void StopListening();

 private:
  struct Source final : Awaiting {
    explicit Source(int listener) : fd(listener), refuses_descriptors(RefusesDescriptors(fd)) {}
    void BecomeReady() noexcept override { is_pending = true; }

    int fd;
    bool refuses_descriptors;
    bool is_pending = false;
  };

  Poll& events;
  std::vector<Source> sources;
  std::size_t next = 0;
  bool is_paused = false;
  int pauses = 0;  // since a connection was accepted
};

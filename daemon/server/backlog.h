// Accepting connections.
#pragma once

#include <chrono>
#include <vector>

#include "events.h"

/// A listening socket.
struct Listener {
  int fd = -1;

  /// Another process (systemd) holds the socket too, and keeps the backlog when this daemon ends.
  bool inherited = false;
};

/// Accepts connections from listening sockets that other processes may share. Wakes the event loop
/// when there is something to accept. Pauses when descriptors or memory run out, because retrying
/// at once would spin.
class Backlog {
 public:
  /// `base` must outlive the backlog. The caller keeps the descriptors, which are made
  /// non-blocking.
  Backlog(const EventBase& base, const std::vector<Listener>& listeners);
  Backlog(const Backlog&) = delete;
  Backlog& operator=(const Backlog&) = delete;

  /// Returns the descriptor of an accepted connection, non-blocking and close-on-exec, or -1 if
  /// there is nothing to accept.
  int Accept();

  /// Returns whether each listening socket has been empty once. If so, all further connections are
  /// younger than this object.
  bool WasEmpty() const;

  /// Stops accepting for a moment because of `error` (errno(3)).
  void Pause(int error);

  /// Stops accepting from inherited sockets, and stops pausing.
  void BeginDraining();

 private:
  struct Source {
    Listener listener;
    bool pending = true;  // there may be something to accept
    bool was_empty = false;
    Event acceptable;
  };

  int AcceptFrom(Source& source);

  std::vector<Source> sources;
  Event resume;
  bool draining = false;
  std::chrono::steady_clock::time_point next_log;
};

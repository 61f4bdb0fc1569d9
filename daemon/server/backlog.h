// Connections that are still to be accepted.
#pragma once

#include <chrono>
#include <vector>

#include "events.h"

/// A listening socket.
struct Listener {
  int fd = -1;

  /// Somebody else has the socket too and keeps the backlog when this daemon ends (systemd).
  bool inherited = false;
};

/// Accepts from some listening sockets, which other processes may accept from as well. Wakes the
/// event loop when there is something to accept. When descriptors or memory run out it stops for a
/// moment, because trying again at once would spin.
class Backlog {
 public:
  /// `base` must outlive the backlog. Does not own the descriptors, but makes them non-blocking.
  Backlog(const EventBase& base, const std::vector<Listener>& listeners);
  Backlog(const Backlog&) = delete;
  Backlog& operator=(const Backlog&) = delete;

  /// Returns the descriptor of an accepted connection, non-blocking and closed by exec; -1 when
  /// there is nothing to accept.
  int Accept();

  /// Whether each listening socket has been found empty once: then no further connection is older
  /// than this object.
  bool WasEmpty() const;

  /// Stops accepting for a moment, because of the lack that `error` names (errno(3)).
  void Pause(int error);

  /// Leaves the backlogs of inherited sockets alone from now on, and pauses no more.
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

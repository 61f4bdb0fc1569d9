// The sockets that the daemon serves.
#pragma once

#include <string>
#include <vector>

struct Listeners {
  std::vector<int> sockets;
  bool are_inherited = false;  ///< systemd holds them too, and keeps their backlogs
  std::string names;           ///< for the log
};

/// Returns the sockets that were passed on or, without any, listens at both of the daemon's
/// addresses. Throws `std::runtime_error` if the first address fails. A failure of the second is
/// only logged, because not every user may create it.
Listeners OpenListeners();

/// Refuses new connections on all sockets that are not inherited.
void StopListening(const Listeners& listeners);

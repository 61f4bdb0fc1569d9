// The sockets that the daemon serves.
#pragma once

#include <string>
#include <vector>

#include "backlog.h"

struct Listeners {
  std::vector<Listener> sockets;
  std::string names;  ///< for the log
};

/// Returns the sockets that were passed on or, without any, listens at both of the daemon's
/// addresses. Throws `std::runtime_error` if the first address fails. A failure of the second is
/// only logged, because not every user may create it.
Listeners OpenListeners();

/// Refuses new connections on all sockets that are not inherited.
void StopListening(const Listeners& listeners);

// The sockets that the daemon serves.
#pragma once

#include <string>
#include <vector>

#include "backlog.h"

struct Listeners {
  std::vector<Listener> sockets;
  std::string names;  ///< for the log
};

/// Takes the sockets that were passed on; without any, listens at both of the daemon's addresses.
/// Throws `std::runtime_error` when the first cannot be had; the second is not for everybody to
/// make, so a failure there is logged.
Listeners OpenListeners(int backlog);

/// Has connections refused that come from now on, unless somebody else keeps the socket.
void StopListening(const Listeners& listeners);

// The process at the other end of a connection.
#pragma once

#include <sys/socket.h>

#include <chrono>

#include "line_allowance.h"

/// A client as the kernel reported it when its connection was accepted.
struct Peer {
  ucred credential{.pid = 0, .uid = static_cast<uid_t>(-1), .gid = static_cast<gid_t>(-1)};

  /// CLOCK_BOOTTIME at acceptance. A process that started later cannot be the one that connected,
  /// even if it has the same process id.
  std::chrono::nanoseconds accepted{0};

  int connection = -1;  ///< its descriptor, for as long as the request is served

  LineAllowance* lines = nullptr;  ///< of its account; null: without a limit
};

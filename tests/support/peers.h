// Processes that ask the daemon's code.
#pragma once

#include <unistd.h>

#include "peer.h"
#include "record.h"

namespace ZELT {

/// One of `user` that connects now.
inline Peer From(uid_t user, pid_t process = getpid()) {
  return {.credential = {.pid = process, .uid = user, .gid = 0},
          .accepted = std::chrono::nanoseconds(Now().boot_time)};
}

}  // namespace ZELT

// The limits of the messages on a stream socket. A message is one line of text.
#pragma once

#include <chrono>
#include <cstddef>

namespace zeltdaemon {

/// Maximum bytes of a message, without its newline: far more than any sensible request needs, but
/// too few for a peer to tie up much memory.
constexpr std::size_t kMaxMessageBytes = 1U << 20;

/// Maximum bytes of a request. A record holds at most 64 KiB, so nothing useful is longer.
constexpr std::size_t kMaxRequestBytes = 128U << 10;

/// How long a client waits for the daemon, as one deadline for a whole message.
constexpr std::chrono::seconds kClientDeadline{30};

}  // namespace zeltdaemon

// What clients can take from a worker.
#pragma once

#include <chrono>
#include <cstddef>

/// At a limit the connection that was accepted first makes room for each further one. Limits are at
/// least 1.
struct ServerLimits {
  /// Connections that a worker has accepted and not yet answered: with the rest of the process
  /// within the usual 1024 descriptors. At this limit the user with the most loses one.
  unsigned int waiting = 512;

  /// Those of one user: more than a whole backlog.
  unsigned int waiting_per_user = 256;

  /// Bytes of requests that are still to arrive in whole, and of answers that are still to be
  /// taken, for one user. Several of the longest messages (message.h).
  std::size_t bytes_per_user = std::size_t{8} << 20;

  /// Connections that the kernel keeps for each listening socket until they are accepted
  /// (listen(2)); further clients wait in connect(2). The kernel keeps the order of arrival, so a
  /// client waits behind this many of others, whose they may be.
  int backlog = 64;

  /// For a whole request, from its acceptance on, however slowly it trickles in.
  std::chrono::milliseconds request_deadline{5000};

  /// For a whole answer that the client does not take at once.
  std::chrono::milliseconds answer_deadline{5000};

  /// Whether the kernel is asked to refuse descriptors sent along. Kernels before 6.16 cannot.
  bool refuse_descriptors = true;
};

// Limits on what clients can use of a worker.
#pragma once

#include <chrono>
#include <cstddef>

/// At a limit, each further connection closes the one that was accepted first. Limits are at least
/// 1.
struct ServerLimits {
  /// Connections that a worker has accepted and not yet answered. Together with the rest of the
  /// process they stay within the usual 1024 descriptors. At this limit, the user with the most
  /// connections loses one.
  unsigned int waiting = 512;

  /// The same, for one user. More than a whole backlog.
  unsigned int waiting_per_user = 256;

  /// Bytes of incomplete requests and unsent answers of one user: several messages of maximum
  /// length (message.h).
  std::size_t bytes_per_user = std::size_t{8} << 20;

  /// Connections that the kernel keeps for each listening socket until they are accepted
  /// (listen(2)); further clients wait in connect(2). The kernel keeps the order of arrival, so a
  /// client waits behind at most this many others, whichever user they belong to.
  int backlog = 96;

  /// For a whole request, counted from acceptance, however slowly it arrives.
  std::chrono::milliseconds request_deadline{5000};

  /// For a whole answer, if the client does not take it at once.
  std::chrono::milliseconds answer_deadline{5000};

  /// Whether the kernel is asked to refuse descriptors sent along. Kernels before 6.16 cannot.
  bool refuse_descriptors = true;
};

// Limits on what clients can use of a worker.
#pragma once

#include <chrono>
#include <cstddef>

/// What connections use of a worker.
struct Usage {
  std::size_t connections = 0;
  std::size_t bytes = 0;  ///< of incomplete requests and unsent answers
};

/// At a limit, connections are given up that wait for their client: those that were read and have
/// sent no whole request, and those whose answer is not fetched.
struct ServerLimits {
  /// Of a worker. A connection takes 3 KiB, most of it in the kernel. Reduced to what the limit on
  /// descriptors allows (RLIMIT_NOFILE, getrlimit(2)).
  Usage worker{.connections = 16384, .bytes = std::size_t{32} << 20};

  /// Of an account: connections that wait for their client. Several answers of maximum length.
  Usage account{.connections = 8192, .bytes = std::size_t{8} << 20};

  /// For a whole request, counted from when the connection is first read, however slowly the
  /// request arrives.
  std::chrono::milliseconds request_deadline{5000};

  /// For a whole answer, if the client does not take it at once.
  std::chrono::milliseconds answer_deadline{5000};
};

// Making and inheriting listening sockets.
#pragma once

#include <string>
#include <vector>

/// Returns the listening sockets that the service manager passed on (sd_listen_fds(3)), if any, and
/// unsets the environment variables about them.
std::vector<int> InheritedSockets();

/// Listens on a socket file at `path` that is open to every local user, and returns the descriptor.
/// Replaces a socket of the same user that nobody serves: the new one is bound beside `path` and
/// renamed, so that there is always one at the path, which nobody else can take. Throws
/// `std::runtime_error` if the socket is served, if a file of another user or type is at the path,
/// and if a system call fails.
int ListenAt(const std::string& path);

/// Returns the path of a socket that was passed on. Throws `std::runtime_error` if it is not a
/// listening Unix socket.
std::string AddressOf(int socket);

// Sockets on which clients connect.
#pragma once

#include <string>
#include <vector>

/// Returns the listening sockets that whoever started this process has passed on
/// (sd_listen_fds(3)), none if there are none, and takes the variables that say so out of the
/// environment. Throws `std::runtime_error` when one of them is no listening Unix stream socket.
std::vector<int> InheritedSockets();

/// Listens on a socket file at `path` that is open to every local user, and returns the descriptor.
/// The socket is bound beside `path` and renamed, so that the path is never without one. Replaces a
/// socket of this process's user that nobody serves. Throws `std::runtime_error` when somebody
/// serves it, when something of another user or of another kind is there, and when the system
/// refuses.
int ListenAt(const std::string& path, int backlog);

/// The address of a socket that was passed on, as its clients name it.
std::string AddressOf(int socket);

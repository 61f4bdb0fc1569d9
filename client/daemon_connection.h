// A client's connection to the daemon.
#pragma once

#include <sys/socket.h>

#include <memory>

#include "daemon_socket.h"
#include "zeltdaemon/domain_sock_connection.h"

namespace ZELT::TokenManager {

/// A connection to one of the daemon's addresses, which checks who listens there.
class DaemonConnection : public zeltdaemon::DomainSockConnection {
 public:
  explicit DaemonConnection(const char* socket_path)
      : DomainSockConnection(socket_path), path(socket_path) {}

  /// Connects, and returns whether the daemon is listening. Never waits on another user's socket
  /// whose backlog is full.
  bool ConnectToDaemon() { return !ForeignOwner(path) && Connect() && IsDaemon(); }

 private:
  bool IsDaemon() const {
    ucred listener{};
    socklen_t length = sizeof listener;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &listener, &length) == 0 &&
           IsDaemonUser(listener.uid);
  }

  const char* path;
};

/// Returns a connection to the first address at which the daemon listens, or null.
inline std::unique_ptr<DaemonConnection> ConnectToDaemon() {
  for (const char* path : kSocketPaths) {
    auto connection = std::make_unique<DaemonConnection>(path);
    if (connection->ConnectToDaemon()) return connection;
  }
  return nullptr;
}

}  // namespace ZELT::TokenManager

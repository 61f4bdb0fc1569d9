// A server in the test's own process.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <csignal>

#include "server.h"
#include "support/testing.h"

namespace ZELT {

/// Serves a socket at a path, in `Run` or in another thread while `Use` runs.
class TestServer {
 public:
  explicit TestServer(const std::string& path, const ServerLimits& server_limits = {})
      : limits(server_limits), listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    fs::remove(path);
    Check(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), path);
    Check(listen(listener, limits.backlog), path);
    fs::permissions(path, fs::perms::all);
  }
  ~TestServer() { close(listener); }
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  /// To be called by the handler.
  static void Stop() { kill(getpid(), SIGTERM); }

  void Run(const Server::Handler& handler, bool inherited = false) {
    Server server({{.fd = listener, .inherited = inherited}}, limits, slot);
    server.Serve(handler);
  }

  const ServerLimits limits;
  const int listener;
  WorkerSlot slot;
};

}  // namespace ZELT

// A server in the test's own process, and a client that writes what it likes.
#pragma once

#include <csignal>

#include "listening_socket.h"
#include "server.h"
#include "support/fake_daemon.h"
#include "zeltdaemon/domain_sock_connection.h"

namespace ZELT {

inline std::string Echo(const Peer& /*peer*/, const std::string& request) { return request; }

struct Client : zeltdaemon::DomainSockConnection {
  explicit Client(const std::string& socket_path, const std::string& bytes = "")
      : DomainSockConnection(socket_path) {
    EXPECT_TRUE(Connect() && Write(bytes));
  }
  bool Write(const std::string& bytes) const {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  /// Returns what arrives until the end of the stream, less a newline there.
  std::string Answer() const {
    std::array<char, 16384> piece{};
    std::string answer;
    for (ssize_t count = 1; count > 0;
         answer.append(piece.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)))) {
      count = recv(fd, piece.data(), piece.size(), 0);
    }
    if (answer.empty()) return "none";
    return answer.ends_with('\n') ? answer.substr(0, answer.size() - 1) : answer;
  }
  bool IsClosed() const {
    std::array<char, 1> byte{};
    return Eventually([&] { return recv(fd, byte.data(), byte.size(), MSG_DONTWAIT) == 0; });
  }
  int Descriptor() const { return fd; }
};

/// Listens on sockets, at a path and at the same with "2", and serves them when told to.
struct TestServer {
  explicit TestServer(const std::string& socket_path, const ServerLimits& server_limits = {})
      : path(socket_path),
        limits(server_limits),
        listener(::ListenAt(path)),
        second(::ListenAt(path + "2")) {
    fs::permissions(path, fs::perms::all);
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
  }

  /// Serves until SIGTERM, or until a client sends "stop".
  void Run(
      const Server::Handler& handler, const std::function<void()>& every_second = [] {}) {
    const auto answer = [&](const Peer& peer, const std::string& request) {
      if (request == "stop") kill(getpid(), SIGTERM);
      return handler(peer, request);
    };
    Server({listener.Get(), second.Get()}, limits, slot, lines, answer, every_second, [] {
    }).Serve();
    const timespec none{};
    sigtimedwait(&ending, nullptr, &none);  // takes it
  }

  /// Serves on a thread of its own while `use` runs.
  void While(const Server::Handler& handler, const std::function<void()>& use) {
    const std::jthread thread([&] { Run(handler); });
    use();
    kill(getpid(), SIGTERM);
  }

  const std::string path;
  const ServerLimits limits;
  const OwnedDescriptor listener;
  const OwnedDescriptor second;
  sigset_t ending{};
  WorkerSlot slot;
  LineTotal lines;
};

}  // namespace ZELT

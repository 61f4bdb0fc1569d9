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
    while (const auto count = std::max<ssize_t>(recv(fd, piece.data(), piece.size(), 0), 0)) {
      answer.append(piece.data(), static_cast<std::size_t>(count));
    }
    if (answer.empty()) return "none";
    return answer.ends_with('\n') ? answer.substr(0, answer.size() - 1) : answer;
  }
  int Descriptor() const { return fd; }
};

/// Listens on sockets, at a path and at the same with "2", and serves them when told to.
struct TestServer {
  explicit TestServer(const std::string& socket_path, const ServerLimits& server_limits = {})
      : limits(server_limits),
        listener(::ListenAt(socket_path)),
        second(::ListenAt(socket_path + "2")) {
    fs::permissions(socket_path, fs::perms::all);
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
    Server({listener.Get(), second.Get()}, limits, slot, lines, answer, every_second, [&] {
      ++after_answers;
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

  const ServerLimits limits;
  const OwnedDescriptor listener;
  const OwnedDescriptor second;
  sigset_t ending{};
  std::size_t after_answers = 0;
  WorkerSlot slot;
  LineTotal lines;
};

}  // namespace ZELT

#include "zeltdaemon/domain_sock_connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>

#include "json_end.h"
#include "message.h"
#include "unix_address.h"

namespace zeltdaemon {
namespace {

using Clock = std::chrono::steady_clock;

// Waits until `fd` is ready for `events`; false when the deadline passes first.
bool Await(int fd, short events, Clock::time_point deadline) {
  pollfd wanted{.fd = fd, .events = events, .revents = 0};
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    const int ready = poll(&wanted, 1, static_cast<int>(std::max<long>(left.count(), 0)));
    if (ready >= 0) return ready > 0;
    if (errno != EINTR) return false;
  }
}

// Limits how long connect(2) waits for a full backlog (SO_SNDTIMEO, socket(7)). Returns false when
// the deadline has passed.
bool LimitConnect(int fd, Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::microseconds>(deadline - Clock::now()).count();
  if (left <= 0) return false;
  const timeval limit{.tv_sec = left / 1000000, .tv_usec = left % 1000000};
  return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

bool ConnectTo(int fd, const std::string& path) {
  const ZELT::TokenManager::UnixAddress address(path);
  const auto deadline = Clock::now() + kClientDeadline;
  while (LimitConnect(fd, deadline)) {
    if (address.Connect(fd) == 0) return true;
    if (errno != EINTR) return false;
  }
  return false;
}

}  // namespace

SockConnection::~SockConnection() { Disconnect(); }

bool SockConnection::Recv(std::string& message) {
  if (fd == -1) return false;  // poll(2) would wait
  const auto deadline = Clock::now() + kClientDeadline;
  shutdown(fd, SHUT_WR);          // a peer may answer only at the end of the stream
  std::array<char, 16384> piece;  // NOLINT(*-member-init): written before it is read
  std::string text;
  JsonEnd json;
  while (Await(fd, POLLIN, deadline)) {
    const ssize_t count = recv(fd, piece.data(), piece.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count < 0 || (count == 0 && text.empty())) return false;
    text.append(piece.data(), static_cast<std::size_t>(count));
    if (text.size() > kMaxMessageBytes) return false;
    if (count > 0 && !json.IsIn({piece.data(), static_cast<std::size_t>(count)})) continue;
    if (text.ends_with('\n')) text.pop_back();
    message = std::move(text);
    return true;
  }
  return false;
}

void SockConnection::Disconnect() {
  if (fd != -1) close(fd);
  fd = -1;
}

DomainSockConnection::DomainSockConnection(const std::string& socket_path) : path(socket_path) {}

bool DomainSockConnection::Connect() {
  Disconnect();
  fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd != -1 && ConnectTo(fd, path)) return true;
  Disconnect();
  return false;
}

bool DomainSockConnection::Send(const std::string& message) {
  if (message.size() > kMaxMessageBytes) return false;
  const auto deadline = Clock::now() + kClientDeadline;
  const std::string line = message + '\n';
  std::size_t sent = 0;
  while (sent < line.size()) {
    const ssize_t count =
        send(fd, line.data() + sent, line.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count >= 0) {
      sent += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN) {
      if (!Await(fd, POLLOUT, deadline)) return false;
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace zeltdaemon

#include "connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

#include "account.h"
#include "message.h"

Connection::Connection(ClientSocket accepted, const Peer& client, Account& owner)
    : peer(client), account(owner), socket(std::move(accepted)) {
  ++account.used.connections;
  ++account.accounts.total.connections;
}

// Closing the socket would remove it from the set, but that may be deferred.
Connection::~Connection() {
  if (awaited != nullptr) awaited->Control(EPOLL_CTL_DEL, socket.Get());
  Hold(0);
  --account.used.connections;
  --account.accounts.total.connections;
}

void Connection::Hold(std::size_t bytes) {
  account.used.bytes += bytes - held;
  account.accounts.total.bytes += bytes - held;
  held = bytes;
}

// A longest request is received at once. If it was left in part, it could be given up at a limit.
Connection::State Connection::Receive() {
  std::array<char, zeltdaemon::kMaxRequestBytes + 1> bytes;  // NOLINT(*-member-init): recv(2)
  const ssize_t count = socket.Receive(bytes.data(), bytes.size());
  if (count < 0) return errno == EAGAIN ? State::kIncomplete : State::kGone;
  if (count == 0) return request.empty() ? State::kGone : State::kWhole;
  const std::string_view received(bytes.data(), static_cast<std::size_t>(count));
  const std::size_t end = received.find('\n');
  request.append(received.substr(0, end).substr(0, bytes.size() - request.size()));
  return end == received.npos ? State::kIncomplete : State::kWhole;
}

void Connection::Send() {
  const ssize_t count =
      send(socket.Get(), answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (count < 0 && errno != EAGAIN) return answer.clear();
  answer.erase(0, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
}

bool Connection::Await(Poll& poll) {
  Hold(request.capacity() + answer.capacity());
  const int operation = awaited == nullptr ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
  const std::uint32_t events = EPOLLONESHOT | (answer.empty() ? EPOLLIN : EPOLLOUT);
  if (!poll.Control(operation, socket.Get(), events, this)) return false;
  awaited = &poll;
  return true;
}

void Connection::BecomeReady() noexcept {
  if (!std::exchange(waiting, false)) return;
  account.ready.splice(account.ready.end(), account.waiting, place);
  account.accounts.Charge(account, {});
}

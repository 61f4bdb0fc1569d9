#include "connection.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "account.h"
#include "message.h"

using zeltdaemon::kMaxRequestBytes;

namespace {

// Most requests take one piece, and one of maximum length a turn.
constexpr std::size_t kPieceBytes = 16384;
constexpr std::size_t kPiecesPerTurn = kMaxRequestBytes / kPieceBytes + 1;

}  // namespace

Charge::Charge(Usage& of_account, Usage& of_worker) : account(of_account), worker(of_worker) {
  ++account.connections;
  ++worker.connections;
}

Charge::~Charge() {
  Hold(0);
  --account.connections;
  --worker.connections;
}

void Charge::Hold(std::size_t bytes) {
  account.bytes += bytes - held;
  worker.bytes += bytes - held;
  held = bytes;
}

Connection::Connection(ClientSocket accepted, const Peer& client, Account& owner, Usage& worker)
    : peer(client), account(owner), charge(owner.used, worker), socket(std::move(accepted)) {}

Connection::State Connection::Receive() {
  std::array<char, kPieceBytes> piece;  // NOLINT(*-member-init): written before it is read
  unread = false;
  for (std::size_t i = 0; i < kPiecesPerTurn; ++i) {
    const ssize_t count = socket.Receive(piece.data(), piece.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno == EAGAIN ? State::kIncomplete : State::kGone;
    if (count == 0) return request.empty() ? State::kGone : State::kWhole;
    if (Append({piece.data(), static_cast<std::size_t>(count)})) return State::kWhole;
  }
  unread = true;
  return State::kIncomplete;
}

// Returns whether the request ends in the piece.
bool Connection::Append(std::string_view piece) {
  const std::size_t end = piece.find('\n');
  request.append(piece.substr(0, end).substr(0, kMaxRequestBytes + 1 - request.size()));
  return end != piece.npos;
}

void Connection::Send() {
  std::size_t sent = 0;
  while (sent < answer.size()) {
    const ssize_t count =
        send(socket.Get(), answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) break;
    if (count < 0) return answer.clear();
    sent += static_cast<std::size_t>(count);
  }
  answer.erase(0, sent);
}

// Edge-triggered: an out-of-band byte, which stays unread, does not wake the worker again.
bool Connection::Await(Poll& poll) {
  const std::uint32_t events = EPOLLET | (answer.empty() ? EPOLLIN : EPOLLOUT);
  const int operation = awaited == nullptr ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
  if (operation == EPOLL_CTL_ADD || unread || !answer.empty()) {
    if (!poll.Control(operation, socket.Get(), events, this)) return false;
  }
  awaited = &poll;
  charge.Hold(request.capacity() + answer.capacity());
  return true;
}

void Connection::BecomeReady() noexcept {
  if (!waiting) return;
  waiting = false;
  account.ready.splice(account.ready.end(), account.waiting, place);
  account.turns.Join(account);
}

// Closing the socket would do, but that may be deferred.
void Connection::Forget() {
  if (awaited != nullptr) awaited->Control(EPOLL_CTL_DEL, socket.Get(), 0, nullptr);
}

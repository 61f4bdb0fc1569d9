#include "connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

using State = zeltdaemon::MessageReader::State;

Connection::~Connection() {
  awaited.reset();  // before close(2) frees the number for reuse
  descriptors != nullptr ? descriptors->Close(fd) : static_cast<void>(close(fd));
}

// Receives one piece per call: a client that sends as fast as this process reads must not
// monopolize it.
State Connection::Receive(bool& more) {
  // Large enough that most messages take one call.
  std::array<char, 16384> piece;  // NOLINT(*-member-init): written before it is read
  const ssize_t count = descriptors != nullptr
                            ? PassedDescriptors::Receive(fd, piece.data(), piece.size())
                            : recv(fd, piece.data(), piece.size(), MSG_DONTWAIT);
  more = count == static_cast<ssize_t>(piece.size()) || (count < 0 && errno == EINTR);
  if (count >= 0) return reader.Add(piece.data(), static_cast<std::size_t>(count));
  return more || errno == EAGAIN ? State::kIncomplete : State::kFailed;
}

void Connection::Send() {
  std::size_t sent = 0;
  while (sent < answer.size()) {
    const ssize_t count =
        send(fd, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) break;
    if (count < 0) return answer.clear();
    sent += static_cast<std::size_t>(count);
  }
  answer.erase(0, sent);
}

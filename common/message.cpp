#include "message.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace zeltdaemon {

MessageReader::State MessageReader::Read(int fd) {
  // Large enough that most messages take one call.
  std::array<char, 16384> chunk;  // NOLINT(*-member-init): written before it is read
  for (;;) {
    const ssize_t count = recv(fd, chunk.data(), chunk.size(), MSG_DONTWAIT);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno == EAGAIN ? State::kIncomplete : State::kFailed;
    const State state = Add(chunk.data(), static_cast<std::size_t>(count));
    if (state != State::kIncomplete) return state;
  }
}

MessageReader::State MessageReader::Add(const char* bytes, std::size_t count) {
  if (count == 0) return text.empty() ? State::kFailed : State::kComplete;
  const void* newline = std::memchr(bytes, '\n', count);
  if (newline != nullptr)
    count = static_cast<std::size_t>(static_cast<const char*>(newline) - bytes);
  if (text.size() + count > kMaxMessageBytes) return State::kFailed;
  text.append(bytes, count);
  return newline != nullptr ? State::kComplete : State::kIncomplete;
}

std::string MessageReader::Take() { return std::exchange(text, {}); }

}  // namespace zeltdaemon

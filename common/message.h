// How both ends of a stream socket frame and limit messages. A message is one line of text, which
// ends at a newline or at the end of the stream. Anything after the newline is ignored.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace zeltdaemon {

/// Maximum bytes of a message, without its newline: far more than any sensible request needs, but
/// too few for a peer to tie up much memory.
constexpr std::size_t kMaxMessageBytes = 1U << 20;

/// Maximum bytes of a request. A record holds at most 64 KiB, so nothing useful is longer.
constexpr std::size_t kMaxRequestBytes = 128U << 10;

/// How long a client waits for the daemon, as one deadline for a whole message.
constexpr std::chrono::seconds kClientDeadline{30};

/// Assembles a message from the data received on a socket.
class MessageReader {
 public:
  enum class State {
    kIncomplete,  ///< more data may follow
    kComplete,
    kFailed,  ///< too long, an empty stream, or an error of the socket
  };

  /// Receives the data available on `fd`, without waiting.
  State Read(int fd);

  /// Adds `count` received bytes. A count of 0 means the end of the stream.
  State Add(const char* bytes, std::size_t count);

  /// The message, once complete.
  std::string Take();

  /// Bytes of memory used so far.
  std::size_t Held() const { return text.capacity(); }

 private:
  std::string text;
};

}  // namespace zeltdaemon

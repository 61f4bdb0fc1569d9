// Messages on a stream socket, as both ends frame and limit them: a message is one line of text,
// which ends at a newline or at the end of the stream. What follows the newline is ignored.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace zeltdaemon {

/// Bytes of a message, without its newline. Far more than any sensible request needs, and few
/// enough that a peer cannot make a process hold much memory.
constexpr std::size_t kMaxMessageBytes = 1U << 20;

/// How long a client waits for the daemon, as one deadline for a whole message.
constexpr std::chrono::seconds kClientDeadline{30};

/// Puts a message together from what arrives on a socket.
class MessageReader {
 public:
  enum class State {
    kIncomplete,  ///< there may be more to come
    kComplete,
    kFailed,  ///< too long, an empty stream, or an error of the socket
  };

  /// Receives what has arrived on `fd`, without waiting.
  State Read(int fd);

  /// Takes `count` bytes that have arrived. A count of 0 is the end of the stream.
  State Add(const char* bytes, std::size_t count);

  /// The message, once complete.
  std::string Take();

  /// Bytes of memory that the message holds so far.
  std::size_t Held() const { return text.capacity(); }

 private:
  std::string text;
};

}  // namespace zeltdaemon

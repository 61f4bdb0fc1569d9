// The client's end of a connection to a daemon.
#pragma once

#include <string>

namespace zeltdaemon {

/// A connected stream socket, or none. Not copyable; destruction closes the descriptor.
class SockConnection {
 public:
  SockConnection() = default;
  ~SockConnection();
  SockConnection(const SockConnection&) = delete;
  SockConnection& operator=(const SockConnection&) = delete;

  /// Ends the stream to the peer and receives one message into `message`, without a newline at its
  /// end. It is complete at the end of the peer's stream, or as soon as it holds one JSON value,
  /// whatever newlines stand before, in or after it. Returns false, leaving `message` as it was,
  /// when the stream is empty or fails, the message is longer than allowed, or the peer takes
  /// longer than allowed (see message.h).
  bool Recv(std::string& message);

  /// Closes the descriptor if it is open.
  void Disconnect();

 protected:
  int fd = -1;  ///< -1 when closed
};

/// A connection to the local domain socket at a path.
class DomainSockConnection : public SockConnection {
 public:
  explicit DomainSockConnection(const std::string& path);

  /// Opens the connection, waiting while the daemon's backlog is full. Returns false when nobody
  /// listens or the wait takes longer than allowed.
  bool Connect();

  /// Sends `message`, which must not hold a newline, and a newline. Returns false when it is longer
  /// than allowed, when the peer is gone, or when it takes longer than allowed.
  bool Send(const std::string& message);

 private:
  std::string path;
};

}  // namespace zeltdaemon

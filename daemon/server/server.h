// The daemon's end: listening on a local domain socket.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>

namespace zeltdaemon {

/// What a client can take from a server. A connection waits when its request has not arrived in
/// whole by the time it is accepted; one that has its request ready is served whatever the limits.
/// At a limit the connection that has waited longest is closed for each further one. Limits are at
/// least 1.
struct ServerLimits {
  /// Waiting connections in all: far more than honest clients leave waiting at a time, and with
  /// the rest of the process within the usual 1024 descriptors.
  unsigned int waiting = 512;

  /// Waiting connections of one user, so that it takes many users to reach the limit for all. There
  /// it is the user with the most who loses one.
  unsigned int waiting_per_user = 64;

  /// Connections that the kernel keeps until they are accepted, so that a burst of clients waits
  /// instead of failing. The kernel lowers it to net.core.somaxconn.
  int backlog = 4096;

  /// For a whole request, from its acceptance on, however slowly it trickles in.
  std::chrono::seconds request_deadline{5};

  /// For a whole answer that the client does not take at once.
  std::chrono::seconds answer_deadline{5};
};

/// Listens on a socket file that is open to every local user, and answers messages (message.h), one
/// on each connection and one at a time. Slow and silent clients do not hold up others.
///
/// Processes: forked processes may each call `Serve` on the object that they inherited; they share
/// the listening socket. Threads: one.
class DomainSockServer {
 public:
  /// Returns the response to the request that came over the descriptor `connection`. Must not
  /// throw.
  using Handler = std::function<std::string(int connection, const std::string& request)>;

  /// Makes the socket file and listens. A socket that nobody serves is replaced. Throws
  /// `std::runtime_error` when somebody serves it, when something else is at `path`, and when the
  /// system refuses.
  explicit DomainSockServer(const std::string& path, const ServerLimits& server_limits = {});

  /// Stops listening. In the process that made the socket file, removes it.
  ~DomainSockServer();

  DomainSockServer(const DomainSockServer&) = delete;
  DomainSockServer& operator=(const DomainSockServer&) = delete;

  /// Has `Serve` run `action` when the signal `number` arrives.
  void OnSignal(int number, std::function<void()> action);

  /// Serves until told to end. Unblocks the signals of `OnSignal` once it is ready for them. Throws
  /// `std::runtime_error` when there is no event loop to be had.
  void Serve(const Handler& handler);

  /// Ends `Serve` from within it, after answering all requests that have arrived, those of
  /// connections that are still to be accepted included.
  void Stop();

  /// The same, but leaves connections that are still to be accepted to another process.
  void HandOver();

  /// Removes the socket file, if it is still the one that this object made.
  void RemoveSocket();

 private:
  class Loop;

  std::string path;
  ServerLimits limits;
  int listener = -1;
  bool refuses_descriptors = false;
  dev_t device = 0;
  ino_t inode = 0;
  pid_t maker;
  std::map<int, std::function<void()>> signal_actions;
  Loop* loop = nullptr;  // while Serve runs
};

}  // namespace zeltdaemon

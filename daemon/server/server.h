// The daemon's end of the socket.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "backlog.h"
#include "board.h"
#include "passed_descriptors.h"
#include "peer.h"
#include "queues.h"
#include "server_limits.h"

/// Answers messages (message.h), one on each connection and one at a time, in one worker.
///
/// What a worker has accepted dies with it. So it accepts a connection only when it has served the
/// one before, as long as it finds its backlog empty every now and then. If it does not, it accepts
/// what there is in one go, to find the users who wait behind others.
///
/// Processes: make the object after fork(2). Several may serve the same listening sockets. Threads:
/// one. SIGTERM must be blocked or ignored until `Serve`.
class Server {
 public:
  /// Returns the answer to a request. Must not throw.
  using Handler = std::function<std::string(const Peer& peer, const std::string& request)>;

  /// `server_limits` and `worker_slot` must outlive the server; `listeners` stay the caller's.
  /// Has the kernel refuse descriptors sent along, where it can. Throws `std::bad_alloc` when there
  /// is no event loop to be had.
  Server(const std::vector<Listener>& listeners, const ServerLimits& server_limits,
         WorkerSlot& worker_slot);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Has `Serve` call `action` about once a second, under load as well. It must not throw.
  void OnIdle(std::function<void()> action) { on_idle = std::move(action); }

  /// Serves until SIGTERM, which it unblocks, arrives. Then answers what it has accepted, leaving
  /// those who have not sent their request in whole a second, and what is in the backlogs of the
  /// sockets that are not inherited.
  void Serve(const Handler& request_handler);

 private:
  using Clock = Connection::Clock;

  void Step();
  bool IsOverdue();
  void BeginTurn(bool overdue);
  void Wait(int flags);
  void RunEvents(int flags);
  bool AcceptOne();
  void TakeTurn(Connection& connection);
  void Read(Connection& connection);
  void Write(Connection& connection);
  void Respond(Connection& connection);
  void Await(Connection& connection, short what);
  void Drain();

  const ServerLimits& limits;
  WorkerSlot& slot;
  EventBase base;
  const bool descriptors_refused;      // by the kernel, on connections that are younger
  bool descriptors_can_arrive = true;  // on the next connection
  PassedDescriptors descriptors;
  Queues queues;
  Backlog backlog;
  Event tick;
  Event terminate;
  std::function<void()> on_idle;
  const Handler* handler = nullptr;
  Clock::time_point now;
  Clock::time_point turn_begin;
  std::optional<Clock::time_point> first_overdue;  // less what this process had been held up
  int accepted = 0;                                // in this turn
  bool second_passed = false;
  bool ending = false;
};

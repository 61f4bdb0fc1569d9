// The event loop of a worker.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "backlog.h"
#include "board.h"
#include "owned_descriptor.h"
#include "passed_descriptors.h"
#include "peer.h"
#include "queues.h"
#include "server_limits.h"

/// Answers messages (message.h), one on each connection and one at a time, in one worker.
///
/// Accepted connections are lost if the worker dies. So it serves each connection before it accepts
/// the next one, as long as the backlog is empty often enough. Otherwise it accepts the whole
/// backlog at once, to find users who wait behind others.
///
/// Processes: create the object after fork(2). Several may serve the same listening sockets.
/// Threads: one. SIGTERM must be blocked or ignored until `Serve`.
class Server {
 public:
  /// Returns the answer to a request. Must not throw.
  using Handler = std::function<std::string(const Peer& peer, const std::string& request)>;

  /// `server_limits` and `worker_slot` must outlive the server; `listeners` stay the caller's.
  /// Makes the kernel refuse descriptors sent along, if it can. Throws `std::bad_alloc` if there is
  /// no memory for the event loop.
  Server(const std::vector<Listener>& listeners, const ServerLimits& server_limits,
         WorkerSlot& worker_slot);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Makes `Serve` call `action` about once a second, also under load. It must not throw.
  void OnIdle(std::function<void()> action) { on_idle = std::move(action); }

  /// Serves until SIGTERM, which it unblocks. Then answers the connections that it has accepted and
  /// those in the backlogs of sockets that are not inherited. Clients with incomplete requests get
  /// one more second.
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
  const bool descriptors_refused;      // by the kernel, on connections younger than this object
  bool descriptors_can_arrive = true;  // on the next connection
  PassedDescriptors descriptors;
  Queues queues;
  const ZELT::TokenManager::OwnedDescriptor schedstat;
  Backlog backlog;
  Event tick;
  Event terminate;
  std::function<void()> on_idle;
  const Handler* handler = nullptr;
  Clock::time_point now;
  Clock::time_point turn_begin;
  std::optional<Clock::time_point> first_overdue;  // minus the time without a processor
  int accepted = 0;                                // in this turn
  bool second_passed = false;
  bool ending = false;
};

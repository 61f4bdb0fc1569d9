// The event loop of a worker.
#pragma once

#include <boost/intrusive/list.hpp>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "account.h"
#include "backlog.h"
#include "board.h"
#include "owned_descriptor.h"
#include "poll.h"

/// Answers requests, one on each connection and one at a time, in one worker. A request is one line
/// (message.h).
///
/// A connection that comes alone is served at once. If more are waiting, they are accepted first,
/// to find out whose they are. Accepted connections are lost if the worker dies.
///
/// Processes: create the object after fork(2). Several may serve the same listening sockets.
/// Threads: one. SIGTERM must be blocked in all threads.
class Server final : Awaiting {
 public:
  /// Returns the answer to a request. Requests that are longer than `kMaxRequestBytes` are cut
  /// after one more byte. Must not throw.
  using Handler = std::function<std::string(const Peer& peer, const std::string& request)>;

  /// Raises the limit on descriptors as far as permitted. `request_handler` is called for each
  /// request, `work_after_answer` in the turn of each that was answered, and `periodic_work` about
  /// once a second, also under load. None of them may throw. `worker_slot` and `all_lines` must
  /// outlive the server; `listeners` stay the caller's. `server_limits` are a seam: tests have
  /// lower ones. Throws `std::system_error` if there are no descriptors for it.
  Server(const std::vector<int>& listeners, const ServerLimits& server_limits,
         WorkerSlot& worker_slot, LineTotal& all_lines, Handler request_handler,
         std::function<void()> periodic_work, std::function<void()> work_after_answer);

  /// Serves until SIGTERM. Then accepts for one more second what is in the backlogs, gives clients
  /// that time for the rest of a request and to fetch an answer, and answers what it has accepted.
  /// Throws `std::system_error` if it can no longer accept or wait.
  void Serve();

 private:
  using Clock = Connection::Clock;

  void BecomeReady() noexcept override { terminating = true; }
  bool Step(bool sleeps, int round);
  void ServeNext();
  void Wait(bool sleeps);
  void EverySecond();
  bool AcceptOne();
  void Read(Connection& connection);
  void Respond(Connection& connection);
  void Write(Connection& connection);
  void SetDeadline(Connection& connection);
  void Await(Connection& connection);
  std::chrono::nanoseconds Advance();

  const ServerLimits limits;
  WorkerSlot& slot;
  Poll poll;
  Accounts accounts;
  boost::intrusive::list<Connection, boost::intrusive::constant_time_size<false>> due;
  Backlog backlog;
  const ZELT::TokenManager::OwnedDescriptor signals;
  const Handler handler;
  const std::function<void()> every_second;
  const std::function<void()> after_answer;
  Clock::time_point now;
  Clock::time_point next_second;
  bool terminating = false;
};

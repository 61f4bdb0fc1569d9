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
class Server {
 public:
  /// Returns the answer to a request. Requests that are longer than `kMaxRequestBytes` are cut
  /// after one more byte. Must not throw.
  using Handler = std::function<std::string(const Peer& peer, const std::string& request)>;

  /// `worker_slot` and `all_lines` must outlive the server; `listeners` stay the caller's.
  /// `server_limits` are a seam: tests have lower ones. Throws `std::system_error` if there are no
  /// descriptors for it.
  Server(const std::vector<Listener>& listeners, const ServerLimits& server_limits,
         WorkerSlot& worker_slot, LineTotal& all_lines);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Serves until SIGTERM. Then answers the connections that it has accepted and those in the
  /// backlogs of sockets that are not inherited. Clients with incomplete requests get one more
  /// second. Calls `periodic_work` about once a second, also under load, and `work_after_answer` in
  /// the turn of each request that it has answered. Both must not throw. Throws `std::system_error`
  /// if it can no longer accept or wait.
  void Serve(
      const Handler& request_handler, const std::function<void()>& periodic_work,
      const std::function<void()>& work_after_answer = [] {});

 private:
  using Clock = Connection::Clock;
  using Due = boost::intrusive::list<Connection, boost::intrusive::constant_time_size<false>>;

  struct Termination final : Awaiting {
    void BecomeReady() noexcept override { requested = true; }
    bool requested = false;
  };

  void Step();
  void Wait(bool sleeps);
  Clock::time_point Wake();
  void Expire(Due& due);
  void EverySecond();
  void AcceptRound(int most);
  bool AcceptOne();
  void ServeNext();
  void TakeTurn(Connection& connection);
  void Read(Connection& connection);
  void Respond(Connection& connection);
  void Write(Connection& connection);
  void SetDeadline(Connection& connection, Due& due, std::chrono::milliseconds time);
  void Await(Connection& connection);
  void Drain();

  const ServerLimits limits;
  WorkerSlot& slot;
  LineTotal& lines;
  Poll poll;
  PassedDescriptors descriptors;
  Accounts accounts;
  Due requests_due;  // connections by their deadlines
  Due answers_due;
  Backlog backlog;
  const ZELT::TokenManager::OwnedDescriptor signals;
  Termination termination;
  const Handler* handler = nullptr;
  const std::function<void()>* every_second = nullptr;
  const std::function<void()>* after_answer = nullptr;
  Clock::time_point now;
  Clock::time_point next_look;
  Clock::time_point next_second;
};

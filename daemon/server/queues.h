// The order in which connections are served.
#pragma once

#include <sys/types.h>

#include <list>
#include <unordered_map>

#include "connection.h"
#include "server_limits.h"

/// The connections of one user.
struct User : Hook {
  uid_t id = 0;
  std::list<Connection> connections;  // the oldest first
  Queue<Connection> ready;
  Queue<User>* turns = nullptr;  // contains the user while any connection is ready
  std::size_t bytes = 0;
  bool logged = false;
};

/// Keeps the connections that a worker has accepted, within the limits. Users take turns: each turn
/// serves the connection of the user that has been ready longest. A user at a limit does not affect
/// other users.
class Queues {
 public:
  /// `server_limits` must outlive the queues.
  explicit Queues(const ServerLimits& server_limits);

  /// Takes over the only connection in `accepted`, marks it as ready, and makes room for it.
  void Add(std::list<Connection>& accepted);

  /// Marks the connection as ready.
  static void MakeReady(Connection& connection) noexcept;

  /// Returns the connection to serve next, which is then no longer ready, or null if none is ready.
  Connection* Next();

  /// Updates the memory that the connection holds, and makes room for it.
  void Account(Connection& connection);

  void Remove(Connection& connection);

  /// Removes the connections that wait for the rest of their request.
  void RemoveIncomplete();

  bool Empty() const { return total == 0; }
  bool AnyReady() const { return !turns.empty(); }

 private:
  void RemoveOldest(User& user, const Connection& spared);
  User& BusiestUser();

  const ServerLimits& limits;
  unsigned int max_waiting;
  std::unordered_map<uid_t, User> users;  // only those with connections
  Queue<User> turns;                      // users with ready connections, next one first
  std::size_t total = 0;
};

// Whose turn it is.
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
  Queue<User>* turns = nullptr;  // which the user is in while any are ready
  std::size_t bytes = 0;
  bool logged = false;
};

/// Keeps the connections that a worker has accepted, within the limits, and lets the users take
/// turns: each in turn has one connection served, the one that has been ready longest. No user
/// notices another one's limit.
class Queues {
 public:
  /// `server_limits` must outlive the queues.
  explicit Queues(const ServerLimits& server_limits);

  /// Takes over the one connection in `accepted`, which is ready to be read, and makes room for it.
  void Add(std::list<Connection>& accepted);

  /// Notes that the connection can go on.
  static void MakeReady(Connection& connection) noexcept;

  /// Returns the connection to serve next, which is not ready any more; null if none is.
  Connection* Next();

  /// Notes how much memory the connection holds now, and makes room for it.
  void Account(Connection& connection);

  void Remove(Connection& connection);

  /// Removes the connections that wait for the rest of their request.
  void RemoveIncomplete();

  bool Empty() const { return total == 0; }
  bool AnyReady() const { return !turns.empty(); }

 private:
  void RemoveOldest(User& user, const Connection& spared);
  User& WithTheMost();

  const ServerLimits& limits;
  unsigned int max_waiting;
  std::unordered_map<uid_t, User> users;  // with connections
  Queue<User> turns;                      // users with ready connections, the next one first
  std::size_t total = 0;
};

// An account for each person: what it uses, and whose connection is served next.
#pragma once

#include <boost/intrusive/set.hpp>
#include <chrono>
#include <list>
#include <unordered_map>

#include "connection.h"
#include "line_allowance.h"
#include "people.h"
#include "server_limits.h"

class Turns;

// Removes itself from its set when it is destroyed. Adding it allocates no memory.
using TurnHook =
    boost::intrusive::set_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

/// What a person uses of a worker.
struct Account : TurnHook {
  Account(uid_t whose, LineTotal& all_lines, Turns& all_turns)
      : person(whose), lines(all_lines), turns(all_turns) {}
  bool operator<(const Account& other) const { return spent < other.spent; }

  const uid_t person;
  LineAllowance lines;
  Turns& turns;
  std::list<Connection> ready;    // to be served, in this order
  std::list<Connection> waiting;  // for their clients, the longest first
  Usage used;
  std::chrono::nanoseconds spent{0};
  unsigned int given_up = 0;  // connections, since the last line about it
};

/// The accounts with connections to serve. Next is the one that has spent the least time.
class Turns {
 public:
  bool Empty() const { return accounts.empty(); }

  /// Adds an account that has a connection to serve, if it is not among them. Whoever comes newly
  /// or after a rest has spent as much as the next one.
  void Join(Account& account);

  /// Removes the next account and returns it. Do not call this if there is none.
  Account& Take();

  /// Charges the time to an account that was taken, and adds it again if it has more to serve.
  void PutBack(Account& account, std::chrono::nanoseconds time);

 private:
  boost::intrusive::multiset<Account, boost::intrusive::constant_time_size<false>> accounts;
  std::chrono::nanoseconds least{0};
};

/// The accounts of a worker and their connections, within the limits.
class Accounts {
 public:
  /// Raises the limit on descriptors as far as permitted. `all_lines` and `server_limits` must
  /// outlive the object.
  Accounts(const ServerLimits& server_limits, LineTotal& all_lines);

  /// Takes over a connection, which is then to be served.
  void Add(ClientSocket socket, Peer peer);

  /// The connection to serve next. Do not call this if none is ready.
  Connection& Next();

  /// Charges the time to the account whose turn it was, and ends its turn.
  void EndTurn(std::chrono::nanoseconds time);

  // What becomes of the connection that is served:
  void AwaitClient(Connection& connection);  ///< gives up connections at a limit
  static void Remove(Connection& connection);

  /// Removes the connections that wait for the rest of their request.
  void RemoveIncomplete();

  /// Gives up a connection if there are more than the limit. Returns false if none can be given up;
  /// some are to be served then.
  bool MakeRoom() {
    return total.connections <= most_connections || GiveUpOne(&Usage::connections);
  }
  bool Empty() const { return total.connections == 0; }
  std::size_t Waiting() const;  ///< connections that wait for their client
  bool AnyReady() const { return !turns.Empty(); }

  /// Logs what was held back or given up, and forgets accounts that use nothing. Call this about
  /// once a second.
  void EverySecond();

 private:
  bool GiveUpOne(std::size_t Usage::*what);
  static bool GiveUpOldest(Account& account);

  const ServerLimits& limits;
  const std::size_t most_connections;
  LineTotal& lines;
  People people;
  Usage total;
  Turns turns;
  std::unordered_map<uid_t, Account> accounts;
  Account* served = nullptr;
};

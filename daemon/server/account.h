// An account for each person: what it uses, and whose connection is served next.
#pragma once

#include <boost/intrusive/set.hpp>
#include <chrono>
#include <cstddef>
#include <list>
#include <unordered_map>

#include "connection.h"
#include "line_allowance.h"
#include "people.h"

/// What connections use of a worker.
struct Usage {
  std::size_t connections = 0;
  std::size_t bytes = 0;  ///< of incomplete requests and unsent answers
};

/// At a limit, connections are given up that wait for their client: those that were read and have
/// sent no whole request, and those whose answer is not fetched.
struct ServerLimits {
  /// Of a worker. A connection takes 3 KiB, most of it in the kernel. Reduced to what the limit on
  /// descriptors allows (RLIMIT_NOFILE, getrlimit(2)).
  Usage worker{.connections = 16384, .bytes = std::size_t{32} << 20};

  /// Of an account: connections that wait for their client. Several answers of maximum length.
  Usage account{.connections = 8192, .bytes = std::size_t{8} << 20};

  /// For a whole request, counted from when the connection is first read, however slowly the
  /// request arrives. Then for a whole answer, if the client does not take it at once.
  std::chrono::milliseconds deadline{5000};
};

class Accounts;

/// What a person uses of a worker. Adding it to the accounts that are to be served allocates no
/// memory.
struct Account : boost::intrusive::set_base_hook<> {
  Account(uid_t whose, LineTotal& all_lines, Accounts& all)
      : person(whose), lines(all_lines), accounts(all) {}
  bool operator<(const Account& other) const { return spent < other.spent; }

  const uid_t person;
  LineAllowance lines;
  Accounts& accounts;
  Usage used;
  std::list<Connection> ready;    // to be served, in this order
  std::list<Connection> waiting;  // for their clients, the longest first
  std::chrono::nanoseconds spent{0};
  unsigned int given_up = 0;  // connections, since the last line about it
};

/// The accounts of a worker and their connections, within the limits. Next to be served is the
/// account that has spent the least time.
class Accounts {
 public:
  /// `server_limits` and `all_lines` must outlive the object.
  Accounts(const ServerLimits& server_limits, LineTotal& all_lines)
      : limits(server_limits), lines(all_lines) {}

  /// Takes over a connection, which is then to be served. Returns whose it is.
  Account& Add(ClientSocket socket, Peer peer);

  /// The connection to serve next. Do not call this if none is ready.
  Connection& Next() { return turns.begin()->ready.front(); }

  /// Adds the time to what the account has spent. Whoever had nothing to be served has spent at
  /// least as much as the next one.
  void Charge(Account& account, std::chrono::nanoseconds time);

  // What becomes of a connection:
  void AwaitClient(Connection& connection);  ///< gives up connections of the account at a limit
  static void Remove(Connection& connection);

  /// Gives up connections beyond the limits of the worker. Returns whether there is room for
  /// another one. If there is not, some are to be served.
  bool MakeRoom();

  bool Empty() const { return total.connections == 0; }
  bool AnyReady() const { return !turns.empty(); }

  /// Logs what was held back or given up, counts the lines that the log lost, and forgets accounts
  /// that use nothing. Returns how many connections wait for their client. Call this about once a
  /// second.
  std::size_t EverySecond();

  Usage total;  ///< of all accounts

 private:
  bool GiveUpOne(std::size_t Usage::*what);

  const ServerLimits& limits;
  LineTotal& lines;
  People people;
  std::unordered_map<uid_t, Account> accounts;
  boost::intrusive::multiset<Account> turns;  // those that have connections to serve
  std::chrono::nanoseconds least{0};          // spent by any of them
};

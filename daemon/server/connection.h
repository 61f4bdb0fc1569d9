// One accepted connection.
#pragma once

#include <boost/intrusive/list.hpp>
#include <chrono>
#include <list>
#include <string>
#include <string_view>

#include "passed_descriptors.h"
#include "peer.h"
#include "poll.h"
#include "server_limits.h"

struct Account;

/// A connection and the bytes that it holds, charged to its account and to its worker until it is
/// destroyed.
class Charge {
 public:
  Charge(Usage& of_account, Usage& of_worker);
  ~Charge();
  Charge(const Charge&) = delete;
  Charge& operator=(const Charge&) = delete;

  /// Sets how many bytes the connection holds.
  void Hold(std::size_t bytes);

 private:
  Usage& account;
  Usage& worker;
  std::size_t held = 0;
};

// Removes itself from its queue when it is destroyed. Adding it allocates no memory.
using DueHook =
    boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

/// Receives a request and sends the answer without waiting.
class Connection final : public DueHook, public Awaiting {
 public:
  using Clock = std::chrono::steady_clock;
  enum class State {
    kIncomplete,  ///< the rest has not arrived, or not been received in this turn
    kWhole,
    kGone,  ///< the client closed the connection, or sent descriptors
  };

  /// Charges the connection to `owner` and to `worker`.
  Connection(ClientSocket accepted, const Peer& client, Account& owner, Usage& worker);
  ~Connection() { Forget(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Receives what has arrived, up to a whole request. Of a longer one, only so much is kept that
  /// its length shows.
  State Receive();

  /// Sends as much of `answer` as the client takes, and leaves the rest in it. Clears `answer` if
  /// the client is gone.
  void Send();

  /// Makes `poll` tell when the client sends or, with an `answer`, takes more. Returns false and
  /// sets `errno` if it cannot.
  bool Await(Poll& poll);

  /// Makes the connection one to be served.
  void BecomeReady() noexcept override;

  const Peer peer;
  Account& account;
  std::string request;
  std::string answer;          ///< the part that is not sent yet
  Clock::time_point deadline;  ///< the epoch: not set yet

  // Maintained by `Accounts`.
  std::list<Connection>::iterator place;
  bool waiting = false;

 private:
  void Forget();
  bool Append(std::string_view piece);

  Charge charge;
  const ClientSocket socket;
  Poll* awaited = nullptr;
  bool unread = false;  // more may have arrived than was received
};

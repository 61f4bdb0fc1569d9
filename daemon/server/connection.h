// One accepted connection.
#pragma once

#include <boost/intrusive/list.hpp>
#include <chrono>
#include <list>
#include <string>

#include "passed_descriptors.h"
#include "peer.h"
#include "poll.h"

struct Account;

// Removes itself from the queue of deadlines when it is destroyed. Adding it allocates no memory.
using DueHook =
    boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

/// Receives a request and sends the answer without waiting. It is charged to its account, with the
/// bytes that it holds, until it is destroyed.
class Connection final : public DueHook, public Awaiting {
 public:
  using Clock = std::chrono::steady_clock;
  enum class State {
    kIncomplete,  ///< the rest has not arrived
    kWhole,
    kGone,  ///< the client closed the connection, or sent descriptors
  };

  Connection(ClientSocket accepted, const Peer& client, Account& owner);
  ~Connection();

  /// Receives what has arrived, up to a whole request. Of a longer one, only so much is kept that
  /// its length shows.
  State Receive();

  /// Sends as much of `answer` as the client takes, and leaves the rest in it. Clears `answer` if
  /// the client is gone.
  void Send();

  /// Makes `poll` tell once when the client sends or, with an `answer`, takes more. Returns false
  /// and sets `errno` if it cannot.
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
  void Hold(std::size_t bytes);

  const ClientSocket socket;
  std::size_t held = 0;
  Poll* awaited = nullptr;
};

// A store as the daemon uses it.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "peer.h"
#include "zelttokenmanager/token_storage.h"

/// Maximum grants of one token. Each validation searches them.
constexpr unsigned int kMaxGrants = 256;

/// Selects tokens for an administrator: those that meet all conditions.
struct TokenFilter {
  std::optional<uid_t> user{};       ///< who requested the token
  std::string service{};             ///< empty: any
  bool orphans = false;              ///< only those whose owner has ended
  std::vector<std::uint64_t> ids{};  ///< empty: any
};

/// A page of a list that may be long.
struct Page {
  Json::Value rows{Json::arrayValue};
  std::optional<std::uint64_t> next;  ///< where the next page begins; none: this is the last page
};

/// A `TokenStorage` with transactions, and with operations for administrators.
///
/// Processes: each worker creates its own object, after fork(2). Threads: one.
class TokenStore : public ZELT::TokenManager::TokenStorage {
 public:
  /// Begins a change on behalf of `peer`. From its first use of the store until `Commit`, there are
  /// no other changes, and others do not see this one. `Insert` and `Remove` may only be called in
  /// between.
  virtual void Begin(const Peer& peer) = 0;

  /// Commits the change. If it throws, nothing was changed.
  virtual void Commit() = 0;

  /// Undoes the changes since `Begin`.
  virtual void Rollback() noexcept = 0;

  /// The id of the token that the current change, or the last committed one, inserted or removed.
  virtual std::uint64_t ChangedId() const = 0;

  /// Returns a page of tokens with ids greater than `after`, in the order of their ids: objects
  /// with "id", "service", "requester", "uid", "pid", "owner" (the process's name), "alive", "age"
  /// (seconds) and "grants".
  virtual Page List(const TokenFilter& filter, std::uint64_t after) = 0;

  /// Drops the matching tokens of one page. Not to be called during a change. Rows: see `List`.
  virtual Page Drop(const TokenFilter& filter, std::uint64_t after) = 0;

  /// Returns a page of what users hold: objects with "uid", "service", "tokens" and "bytes".
  /// `after` is 0 or the last page's `next`.
  virtual Page Usage(std::uint64_t after) = 0;

  /// Returns "tokens", "used" and "size" (bytes).
  Json::Value GetStatistics() override = 0;

  /// Does a bounded amount of periodic work. Called about once a second.
  virtual void KeepHouse() = 0;
};

/// The scope of one change: rolls back unless it was committed.
class Change {
 public:
  Change(TokenStore& changed_store, const Peer& peer) : store(changed_store) { store.Begin(peer); }
  ~Change() {
    if (!committed) store.Rollback();
  }
  Change(const Change&) = delete;
  Change& operator=(const Change&) = delete;

  void Commit() {
    store.Commit();
    committed = true;
  }

 private:
  TokenStore& store;
  bool committed = false;
};

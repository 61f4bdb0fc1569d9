// A store as the daemon uses it.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "peer.h"
#include "zelttokenmanager/token_storage.h"

/// Maximum grants of one token. Each validation searches them.
constexpr unsigned int kMaxGrants = 256;

/// How many grants a payload holds: the elements of an array, or one that is no array.
Json::ArrayIndex GrantCount(const Json::Value& payload);

/// Throws `std::runtime_error` if a token with this data, and this text of it, would hold too many
/// grants or be too long.
void ExpectSmallToken(const Json::Value& data, std::string_view text);

/// A change found no space in the store. Trying it again may help, see `AwaitRoom`.
class NoRoom : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Selects tokens for an administrator: those that meet all conditions.
struct TokenFilter {
  std::optional<uid_t> user{};       ///< who requested the token
  std::string service{};             ///< empty: any
  bool orphans = false;              ///< only those whose owner has ended
  std::vector<std::uint64_t> ids{};  ///< empty: any
};

/// A token as administrators and services see it. Nothing in it can be used as a token.
struct TokenRow {
  std::uint64_t id = 0;  ///< never given to another token; 0 in a text store
  std::string service;
  std::string requester;  ///< the name of the user who requested it
  uid_t uid = 0;          ///< the same user's id
  pid_t pid = 0;          ///< the process that owns it
  bool alive = false;     ///< whether that process lives
  std::chrono::seconds age{0};
  std::optional<std::chrono::seconds> expires_in{};  ///< none: it does not expire
  Json::Value payload;                               ///< what it grants
};

/// The tokens of one service that a user holds.
struct UsageRow {
  uid_t uid = 0;
  std::string service;
  std::uint64_t tokens = 0;
  std::uint64_t bytes = 0;  ///< counted towards the limits
};

/// A page of a list that may be long.
template <typename Row>
struct Page {
  std::vector<Row> rows{};
  std::optional<std::uint64_t> next{};  ///< where the next page begins; none: this is the last page
};

/// A `TokenStorage` with transactions, and with operations for administrators.
///
/// Processes: each worker creates its own object, after fork(2). Threads: one.
class TokenStore : public ZELT::TokenManager::TokenStorage {
 public:
  /// Begins a change on behalf of `peer`. From its first use of the store until `Commit`, there are
  /// no other changes, and others do not see this one. `Insert`, `Remove` and `Drop` may only be
  /// called in between.
  virtual void Begin(const Peer& peer) = 0;

  /// Limits the life of the token that the current change issues. At least one second.
  virtual void ExpireAfter(std::chrono::seconds lifetime) = 0;

  /// Commits the change. If it throws, nothing was changed. If it returns, the change lasts.
  virtual void Commit() = 0;

  /// Undoes the changes since `Begin`.
  virtual void Rollback() noexcept = 0;

  /// After a change failed with `NoRoom` and was rolled back: waits until the cause is gone.
  /// Returns false if there is no cause that goes.
  virtual bool AwaitRoom() = 0;

  /// The id of the token that the current change, or the last committed one, inserted or removed.
  virtual std::uint64_t ChangedId() const = 0;

  /// Returns a page of tokens with ids greater than `after`, in the order of their ids.
  virtual Page<TokenRow> List(const TokenFilter& filter, std::uint64_t after) = 0;

  /// Drops the tokens of the page that `List` would return, and returns it. Part of a change.
  virtual Page<TokenRow> Drop(const TokenFilter& filter, std::uint64_t after) = 0;

  /// Throws what `GetAssociatedData` throws.
  virtual TokenRow Inspect(const std::string& token) = 0;

  /// Returns a page of what users hold. `after` is 0 or the last page's `next`.
  virtual Page<UsageRow> Usage(std::uint64_t after) = 0;

  /// Returns "tokens", and "used" and "size" in bytes; an indexed store also the limits on each
  /// user: "tokens_per_user" and "bytes_per_user".
  Json::Value GetStatistics() override = 0;

  /// Whether `TakeCare` has something to do: a user was refused a token at a limit, or a commit
  /// failed.
  virtual bool NeedsCare() const = 0;

  /// Drops some of the oldest orphans of users at a limit. Ends the process if the store refuses
  /// all further work in it. Takes some milliseconds at most. Not to be called during a change.
  virtual void TakeCare() = 0;

  /// Does a bounded amount of periodic work for all workers: drops what has expired.
  virtual void EverySecond() = 0;
};

/// The scope of one change: rolls back unless it was committed.
class StoreChange {
 public:
  StoreChange(TokenStore& changed_store, const Peer& peer) : store(changed_store) {
    store.Begin(peer);
  }
  ~StoreChange() {
    if (!committed) store.Rollback();
  }
  StoreChange(const StoreChange&) = delete;
  StoreChange& operator=(const StoreChange&) = delete;

  void Commit() {
    store.Commit();
    committed = true;
  }

 private:
  TokenStore& store;
  bool committed = false;
};

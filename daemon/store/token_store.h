// A store as the daemon uses it.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
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

/// A change found no space in the store.
class NoRoom : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Selects tokens for an administrator: those that meet all conditions.
struct TokenFilter {
  std::optional<uid_t> user{};    ///< who requested the token
  std::string service{};          ///< empty: any
  bool orphans = false;           ///< only those whose owner has ended
  std::set<std::uint64_t> ids{};  ///< empty: any
};

/// A token as administrators and services see it. Nothing in it can be used as a token.
struct TokenRow {
  std::uint64_t id = 0;  ///< no other token in the store has it; 0 in a text store
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
  /// Carries out a change on behalf of `peer`: what `work` does, or nothing if it throws. From its
  /// first use of the store on, there are no other changes, and others do not see this one. If this
  /// throws, nothing was changed. If it returns, the change lasts. `work` may be called twice:
  /// again when there is space that was missing. `ExpireAfter`, `Insert`, `Remove` and `Drop` may
  /// only be called by `work`.
  virtual void Change(const Peer& peer, const std::function<void()>& work) = 0;

  /// Returns the row of a token. Throws what `GetAssociatedData` throws.
  virtual TokenRow Inspect(const std::string& token) = 0;

  // A text store refuses these, by throwing `std::runtime_error`.

  /// Limits the life of the token that the change issues. At least one second.
  virtual void ExpireAfter(std::chrono::seconds lifetime);

  /// Returns a page of tokens with ids greater than `after`, in the order of their ids.
  virtual Page<TokenRow> List(const TokenFilter& filter, std::uint64_t after);

  /// Drops the tokens of the page that `List` would return, and returns it.
  virtual Page<TokenRow> Drop(const TokenFilter& filter, std::uint64_t after);

  /// Returns a page of what users hold. `after` is 0 or the last page's `next`.
  virtual Page<UsageRow> Usage(std::uint64_t after);

  // A text store does nothing in these.

  /// To be called after each answer. Ends the process if the store refuses all further work in it.
  virtual void AfterAnswer() {}

  /// Does a bounded amount of periodic work for all workers: drops what has expired.
  virtual void EverySecond() {}
};

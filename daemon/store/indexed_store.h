// The store of the daemon: one indexed, transactional file.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "board.h"
#include "database.h"
#include "store_options.h"
#include "tables.h"
#include "token_store.h"

/// Keeps tokens in an LMDB file, which `RebuildStore` has made.
///
/// Looking up takes no lock. Changes take turns, and are on the disk when `Change` returns; changes
/// of a worker that is killed before that are rolled back. Revoking works even if the store or its
/// file system is full.
///
/// The store identifies the owner of a token by process id, start time and boot. Only the owning
/// process can remove a token. Removing a token and inserting it again in one change transfers it
/// to the process that "pid" of the new data names. It keeps its user, age and lifetime.
///
/// Errors are `std::runtime_error`. Before a user is refused a token at a limit, their orphans go.
class IndexedStore : public TokenStore {
 public:
  /// Opens the existing file. `worker_slot` shows when this worker waits for the store.
  IndexedStore(const StoreOptions& store_options, WorkerSlot& worker_slot);

  void Change(const Peer& peer, const std::function<void()>& work) override;
  void ExpireAfter(std::chrono::seconds lifetime) override;
  void Insert(const std::string& token, const Json::Value& data) override;
  void Remove(const std::string& token) override;
  Json::Value GetAssociatedData(const std::string& token) override;

  Page<TokenRow> List(const TokenFilter& filter, std::uint64_t after) override;
  Page<TokenRow> Drop(const TokenFilter& filter, std::uint64_t after) override;
  TokenRow Inspect(const std::string& token) override;
  Page<UsageRow> Usage(std::uint64_t after) override;

  /// Returns "tokens", "used" and "size" in bytes, and the limits on each user: "tokens_per_user"
  /// and "bytes_per_user".
  Json::Value GetStatistics() override;

  void AfterAnswer() override;
  void EverySecond() override;

 private:
  struct Token {
    TokenKey key;
    RecordHeader header;
  };

  struct CurrentChange {
    Peer peer;
    std::int64_t lifetime = 0;  // nanoseconds

    // From the first use of the store on.
    std::optional<ProcessIdentity> process{};  // of the peer
    Transaction transaction{};
    std::optional<Token> removed{};  // unless it was inserted again
  };

  void TryChange(const Peer& peer, const std::function<void()>& work);
  MDB_txn* Writing();
  void ExpectRoomFor(const TokenKey& key, const Record& record);
  Record FindUsable(MDB_txn* transaction, const std::string& token) const;
  TokenRow RowOf(const TokenKey& key, const Record& record, bool alive) const;
  Page<TokenRow> Select(MDB_txn* transaction, const TokenFilter& filter, std::uint64_t after,
                        std::vector<TokenKey>& keys) const;

  bool Clean(std::uint64_t& after, std::size_t most, std::optional<uid_t> user);
  void Update(const Token& token);

  const StoreOptions options;
  WorkerSlot& slot;
  Database database;
  const Tables tables;

  std::optional<CurrentChange> change;
  bool has_failed = false;         // a change
  std::optional<uid_t> refused;    // who is being refused a token at a limit
  std::uint64_t searched = 0;      // up to this id, for such users
  std::uint64_t swept = 0;         // up to this id, by `EverySecond`
  std::uint64_t orphans_seen = 0;  // since it started over
};

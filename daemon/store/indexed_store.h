// The store of the daemon: one indexed, transactional file.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>

#include "board.h"
#include "database.h"
#include "expiry.h"
#include "store_options.h"
#include "tables.h"
#include "token_store.h"

/// Keeps tokens in an LMDB file, which `RebuildStore` has made.
///
/// Looking up takes no lock. Changes take turns, and are on the disk when `Commit` returns; changes
/// of a worker that is killed before that are rolled back. Revoking works even if the store or its
/// file system is full.
///
/// The store identifies the owner of a token by process id, start time and boot. Only the owning
/// process can remove a token. Removing a token and inserting it again in one change transfers it
/// to the process that "pid" of the new data names. It keeps its id, user, age and lifetime.
///
/// Errors are `std::runtime_error`. A failed change can only be rolled back.
class IndexedStore : public TokenStore {
 public:
  /// Opens the existing file. `worker_slot` shows when this worker waits for the store.
  IndexedStore(const StoreOptions& store_options, WorkerSlot& worker_slot);

  void Begin(const Peer& peer) override;
  void ExpireAfter(std::chrono::seconds lifetime) override;
  void Commit() override;
  void Rollback() noexcept override;
  bool AwaitRoom() override;
  std::uint64_t ChangedId() const override { return changed_id; }

  void Insert(const std::string& token, const Json::Value& data) override;
  void Remove(const std::string& token) override;
  Json::Value GetAssociatedData(const std::string& token) override;

  Page<TokenRow> List(const TokenFilter& filter, std::uint64_t after) override;
  Page<TokenRow> Drop(const TokenFilter& filter, std::uint64_t after) override;
  TokenRow Inspect(const std::string& token) override;
  Page<UsageRow> Usage(std::uint64_t after) override;
  Json::Value GetStatistics() override;
  bool NeedsCare() const override { return commit_failed || orphans.IsWanted(); }
  void TakeCare() override;
  void EverySecond() override;

 private:
  // The token that the current change removed, unless it is inserted again.
  struct Removed {
    std::string token;
    Holding holding;
  };

  // Begins a transaction on first use, so that others do not wait while package files are read.
  MDB_txn* Writing();
  void BeginWrite();
  void CommitWrite();
  void Issue(const std::string& token, const Json::Value& data, const std::string& text);
  void Transfer(const Json::Value& data, const std::string& text);
  void ExpectRoomFor(const Record& record);
  Record FindUsable(MDB_txn* transaction, const std::string& token) const;
  std::optional<Record> FindSame(const Holding& holding, bool same_owner);
  bool EraseIfSame(const Holding& holding, bool same_owner);
  bool Examine(const RecordHeader& header, Judge& judge);
  void DropOrMark(const Holding& holding);

  // Calls `change` for each token, a few in each transaction.
  using Changer = std::function<void(const Holding& holding)>;
  void ChangeEach(std::span<const Holding> holdings, const Changer& change);

  const StoreOptions options;
  WorkerSlot& slot;
  Database database;
  const Tables tables;
  OrphanSearch orphans;

  bool changing = false;  // between `Begin` and its end
  Transaction write;      // of the current change, from its first use of the store on
  Peer changer;
  std::uint64_t new_lifetime = 0;  // seconds
  std::optional<ProcessIdentity> changing_process;
  std::optional<Removed> removed;
  std::uint64_t changed_id = 0;
  std::uint64_t last_examined = 0;  // the last id that `EverySecond` examined
  std::uint64_t orphans_seen = 0;   // by `EverySecond` since it started over
  bool commit_failed = false;
};

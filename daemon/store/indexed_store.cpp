#include "indexed_store.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

#include "json_member.h"
#include "listing.h"
#include "write_json.h"

using ZELT::TokenManager::MemberOrNull;
using ZELT::TokenManager::TextOf;

namespace {

// Pages that new tokens leave to revocations, each of which needs about ten.
constexpr std::uint64_t kLeftForOthers = 256;

constexpr std::chrono::seconds kLongestLifetime = std::chrono::hours(100 * 365 * 24);

// Longer than the supervisor takes to replace a stopped reader.
constexpr std::chrono::seconds kPatience{12};
constexpr std::chrono::milliseconds kPause{2};

}  // namespace

IndexedStore::IndexedStore(const StoreOptions& store_options, WorkerSlot& worker_slot)
    : options(store_options),
      slot(worker_slot),
      database(options.path, Database::Use::kServe),
      tables(database),
      orphans(options) {
  database.ClearDeadReaders();
}

void IndexedStore::Begin(const Peer& peer) {
  Rollback();
  changer = peer;
  new_lifetime = 0;
  changing = true;
}

void IndexedStore::ExpireAfter(std::chrono::seconds lifetime) {
  new_lifetime = static_cast<std::uint64_t>(std::min(lifetime, kLongestLifetime).count());
}

void IndexedStore::BeginWrite() {
  if (write) throw std::logic_error("a change is already in progress");
  slot.activity = Activity::kWaitingForStore;
  write = database.BeginWrite();
  slot.seen = std::chrono::steady_clock::now().time_since_epoch().count();
  slot.activity = Activity::kServing;
}

MDB_txn* IndexedStore::Writing() {
  if (!write) {
    if (!changing) throw std::logic_error("no change has begun");
    changing_process = IdentifyPeer(changer.credential.pid);
    if (!IsPeerAlive(changer.connection)) changing_process.reset();
    BeginWrite();
  }
  return write.get();
}

void IndexedStore::CommitWrite() {
  commit_failed = true;
  database.Commit(std::move(write));
  commit_failed = false;
}

void IndexedStore::Commit() {
  if (removed) tables.Erase(Writing(), removed->holding.key);
  if (write) CommitWrite();
  removed.reset();
  changing = false;
}

void IndexedStore::Rollback() noexcept {
  write.reset();
  removed.reset();
  changing = false;
}

// If the store is not full, LMDB finds no pages because a worker was stopped while it read.
bool IndexedStore::AwaitRoom() {
  const std::uint64_t commit = database.LastCommit();
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  bool is_helped = database.ClearDeadReaders();
  slot.activity = Activity::kWaitingForStore;
  while (database.IsReadBefore(commit) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(kPause);
    database.ClearDeadReaders();
    is_helped = true;
  }
  slot.activity = Activity::kServing;
  return is_helped;
}

void IndexedStore::Insert(const std::string& token, const Json::Value& data) {
  const std::string text = WriteJson(data);
  if (removed && removed->token == token) return Transfer(data, text);
  Issue(token, data, text);
}

void IndexedStore::Issue(const std::string& token, const Json::Value& data,
                         const std::string& text) {
  ExpectSmallToken(data, text);
  Writing();  // identifies the peer's process
  if (!changing_process || !HadStarted(*changing_process, changer.accepted)) {
    throw std::runtime_error("the process that asked for the token is gone");
  }
  RecordHeader header;
  header.uid = changer.credential.uid;
  header.issued = Now();
  header.lifetime = new_lifetime;
  header.SetOwner(*changing_process);
  const std::string service = TextOf(MemberOrNull(data, "service"));
  const Record record{header, service, text};
  ExpectRoomFor(record);
  changed_id = tables.Add(Writing(), KeyOf(token), record);
}

void IndexedStore::Transfer(const Json::Value& data, const std::string& text) {
  const Json::Value& pid = MemberOrNull(data, "pid");
  const auto owner = IdentifyProcess(pid.isInt() ? pid.asInt() : 0);
  if (!owner) {
    throw std::runtime_error("no living process has the id " + TextOf(pid) +
                             ", so the token was not transferred");
  }
  auto& [key, header] = removed->holding;
  header.SetOwner(*owner);
  tables.Replace(Writing(), key, header, text);
  removed.reset();
}

void IndexedStore::ExpectRoomFor(const Record& record) {
  const std::uint64_t bytes = Footprint(record, database.PageBytes());
  const std::uint64_t share = options.bytes / options.users_share;
  const uid_t user = record.header.uid;
  const Total mine = tables.TotalOf(Writing(), user);
  if (mine.tokens >= options.tokens_per_user || mine.bytes + bytes > share) {
    orphans.Want(user);
    throw std::runtime_error(
        "user " + std::to_string(user) + " holds " + std::to_string(mine.tokens) + " of at most " +
        std::to_string(options.tokens_per_user) + " tokens, and " + std::to_string(mine.bytes) +
        " of at most " + std::to_string(share) + " bytes");
  }
  const Total all = tables.TotalOfAll(Writing());
  if (all.bytes + bytes > options.bytes ||
      tables.UsedPages(Writing()) + kLeftForOthers > database.Pages()) {
    throw std::runtime_error("the store is full: " + std::to_string(all.bytes) + " of " +
                             std::to_string(options.bytes) + " bytes are used");
  }
}

void IndexedStore::Remove(const std::string& token) {
  const TokenKey key = KeyOf(token);
  const auto record = tables.Find(Writing(), key);
  if (!record) return;
  if (!changing_process || record->header.Owner() != *changing_process ||
      !HadStarted(*changing_process, changer.accepted)) {
    throw std::runtime_error("the peer has the process id of the owner, but is another process");
  }
  removed = {token, {key, record->header}};
  changed_id = record->header.id;
}

Record IndexedStore::FindUsable(MDB_txn* transaction, const std::string& token) const {
  const auto record = tables.Find(transaction, KeyOf(token));
  if (!record || (removed && removed->token == token) || IsGone(record->header, options)) {
    throw std::runtime_error("the store has no such token");
  }
  return *record;
}

Json::Value IndexedStore::GetAssociatedData(const std::string& token) {
  if (changing) return ReadData(std::string(FindUsable(Writing(), token).text));
  const Database::ReadScope scope(database);
  return ReadData(std::string(FindUsable(scope.Get(), token).text));
}

TokenRow IndexedStore::Inspect(const std::string& token) {
  const Database::ReadScope scope(database);
  const Record record = FindUsable(scope.Get(), token);
  return RowOf(record, IsAlive(record.header.Owner()), options);
}

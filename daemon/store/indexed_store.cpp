#include "indexed_store.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

#include "json_member.h"
#include "json_text.h"
#include "store_file.h"
#include "strict_json.h"
#include "write_json.h"

using ZELT::TokenManager::fromString;
using ZELT::TokenManager::MemberOrNull;
using ZELT::TokenManager::TextOf;

namespace {

// Pages. A change rewrites the path from the root of each table. With merges and lists of free
// pages this takes about 30 pages, and the pages that it frees can be reused two commits later.
constexpr std::uint64_t kForChange = 64;
constexpr std::uint64_t kForEach = 6;          // additional token in the same change
constexpr std::uint64_t kLeftForOthers = 256;  // kept for revocations when a token is added

// Longer than the supervisor takes to kill a stopped reader.
constexpr std::chrono::seconds kPatience{12};
constexpr std::chrono::milliseconds kPause{2};

}  // namespace

IndexedStore::IndexedStore(const StoreOptions& store_options, WorkerSlot& worker_slot)
    : options(store_options),
      slot(worker_slot),
      database(options.path, MapBytes(options), Database::Use::kServe),
      tables(database, false),
      room(database),
      orphans(options) {
  database.ClearDeadReaders();
}

void IndexedStore::Begin(const Peer& peer) {
  Rollback();
  changer = peer;
  changing = true;
}

// Waits until there is room for the change. A worker that was stopped during a read holds freed
// pages until the supervisor kills it.
void IndexedStore::BeginWrite(std::size_t tokens_changed) {
  const std::uint64_t pages = kForChange + tokens_changed * kForEach;
  if (write) throw std::logic_error("a change is already in progress");
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  Set(slot.activity, Activity::kWaitingForStore);
  for (bool held = true;; std::this_thread::sleep_for(kPause)) {
    write = database.BeginWrite();
    if (room.Has(pages)) break;
    write.reset();
    if (!held || std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("no room for a change: " + room.Shortage());
    }
    held = room.ReadersHoldPages();
    database.ClearDeadReaders();
  }
  Set(slot.seen, std::chrono::steady_clock::now().time_since_epoch().count());
  Set(slot.activity, Activity::kServing);
}

// Begins the transaction on first use, so that others do not wait while package files are read.
MDB_txn* IndexedStore::Write() {
  if (!write) {
    if (!changing) throw std::logic_error("no change has begun");
    changing_process = IdentifyPeer(changer.credential.pid);
    if (!IsPeerAlive(changer.connection)) changing_process.reset();
    BeginWrite(1);
  }
  return write.get();
}

// If a large record finds no consecutive free pages and the file cannot grow, LMDB reports a short
// write, which looks like a failing disk.
void IndexedStore::CommitWrite() {
  try {
    database.Commit(std::move(write));
  } catch (const std::runtime_error& error) {
    if (!room.IsShort()) throw;
    throw std::runtime_error(std::string(error.what()) + ": " + room.Shortage());
  }
}

void IndexedStore::Commit() {
  if (removed) tables.Erase(Write(), std::exchange(removed, std::nullopt)->token);
  if (write) CommitWrite();
  changing = false;
}

void IndexedStore::Rollback() noexcept {
  write.reset();
  removed.reset();
  changing = false;
}

void IndexedStore::Insert(const std::string& token, const Json::Value& data) {
  const std::string text = WriteJson(data);
  if (removed && removed->token == token) return Transfer(data, text);
  Issue(token, data, text);
}

void IndexedStore::Issue(const std::string& token, const Json::Value& data,
                         const std::string& text) {
  ExpectSmallToken(data, text);
  Write();  // identifies the peer's process
  if (!changing_process || !HadStarted(*changing_process, changer.accepted)) {
    throw std::runtime_error("the process that asked for the token is gone");
  }
  RecordHeader header;
  header.uid = changer.credential.uid;
  header.issued = Now();
  header.SetOwner(*changing_process);
  const std::string service = TextOf(MemberOrNull(data, "service"));
  MakeRoom(Footprint(token, {header, service, text}));
  ExpectRoomForToken();
  changed_id = tables.Add(Write(), token, header, service, text);
}

void IndexedStore::Transfer(const Json::Value& data, const std::string& text) {
  const Json::Value& pid = MemberOrNull(data, "pid");
  const auto owner = IdentifyProcess(pid.isInt() ? pid.asInt() : 0);
  if (!owner) {
    throw std::runtime_error("no living process has the id " + TextOf(pid) +
                             ", so the token was not transferred");
  }
  removed->header.SetOwner(*owner);
  tables.Replace(Write(), removed->token, removed->header, text);
  removed.reset();
}

bool IndexedStore::Fits(std::uint64_t bytes) {
  const UserTotal total = tables.TotalOf(Write(), changer.credential.uid);
  return total.tokens < options.tokens_per_user &&
         total.bytes + bytes <= options.bytes / options.users_share;
}

// Drops orphans of the user until `bytes` more fit within the limits.
void IndexedStore::MakeRoom(std::uint64_t bytes) {
  if (Fits(bytes)) return;
  write.reset();  // nothing has changed yet, and the search is slow
  auto found = orphans.Find(database, tables, changer.credential.uid);
  found.resize(std::min(found.size(), kMostInChange));
  BeginWrite(found.size() + 1);
  for (const Holding& orphan : found) {
    if (Fits(bytes)) return;
    EraseIfSame(orphan, !IsTooOld(orphan.header, options));
  }
  if (Fits(bytes)) return;
  const UserTotal total = tables.TotalOf(Write(), changer.credential.uid);
  CommitWrite();  // keeps what was dropped, for the next request
  throw std::runtime_error(
      "user " + std::to_string(changer.credential.uid) + " holds " + std::to_string(total.tokens) +
      " of at most " + std::to_string(options.tokens_per_user) + " tokens, and " +
      std::to_string(total.bytes) + " of at most " +
      std::to_string(options.bytes / options.users_share) + " bytes, and no orphans were found");
}

void IndexedStore::ExpectRoomForToken() {
  const std::uint64_t limit = options.bytes / database.PageBytes();
  // A file that never had so many pages need not be asked how many of them are in use.
  const std::uint64_t used = database.LastPage() + 1 < limit ? 0 : tables.UsedPages(Write());
  if (used >= limit) {
    throw std::runtime_error("the store is full: " + std::to_string(used * database.PageBytes()) +
                             " of " + std::to_string(options.bytes) + " bytes are used");
  }
  if (!room.Has(kLeftForOthers)) {
    throw std::runtime_error("no room for a token: " + room.Shortage());
  }
}

void IndexedStore::Remove(const std::string& token) {
  const auto record = tables.Find(Write(), token);
  if (!record) return;
  if (!changing_process || record->header.Owner() != *changing_process ||
      !HadStarted(*changing_process, changer.accepted)) {
    throw std::runtime_error("the peer has the process id of the owner, but is another process");
  }
  removed = {token, record->header};
  changed_id = record->header.id;
}

std::string IndexedStore::Text(MDB_txn* transaction, const std::string& token) const {
  const auto record = tables.Find(transaction, token);
  if (!record || (removed && removed->token == token) || IsGone(record->header, options)) {
    throw std::runtime_error(kUnknownToken);
  }
  return std::string(record->text);
}

Json::Value IndexedStore::GetAssociatedData(const std::string& token) {
  const std::string text =
      changing ? Text(Write(), token) : Text(Database::ReadScope(database).Get(), token);
  Json::Value data;
  // What administrators wrote into a grant may be valid only for the library.
  if (!ReadStrictJson(text, data) && !fromString(text, data))
    throw std::runtime_error("the record of the token is damaged");
  return data;
}

// The token may have been removed or transferred since it was read.
std::optional<Record> IndexedStore::FindSame(const Holding& holding, bool same_owner) {
  auto record = tables.Find(Write(), holding.token);
  if (!record || record->header.id != holding.header.id) return std::nullopt;
  if (same_owner && record->header.Owner() != holding.header.Owner()) return std::nullopt;
  return record;
}

bool IndexedStore::EraseIfSame(const Holding& holding, bool same_owner) {
  const bool found = FindSame(holding, same_owner).has_value();
  if (found) tables.Erase(Write(), holding.token);
  return found;
}

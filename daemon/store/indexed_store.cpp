#include "indexed_store.h"

#include <algorithm>
#include <utility>

#include "json_member.h"
#include "json_text.h"
#include "strict_json.h"
#include "write_json.h"

using ZELT::TokenManager::MemberOrNull;
using ZELT::TokenManager::TextOf;

namespace {

// Pages that new tokens leave to revocations, each of which needs about ten.
constexpr std::uint64_t kLeftForOthers = 256;

constexpr std::chrono::seconds kLongestLifetime = std::chrono::hours(100 * 365 * 24);

constexpr std::size_t kMostSearched = 32'768;  // tokens, for a user who is refused one

// Longer than the supervisor takes to replace a stopped reader.
constexpr std::chrono::seconds kPatience{12};

Json::Value ReadData(const std::string& text) {
  Json::Value data;
  // What administrators wrote into a grant may be valid only for the library.
  if (ReadStrictJson(text, data) || ZELT::TokenManager::fromString(text, data)) return data;
  throw std::runtime_error("the record of the token is damaged");
}

// Returns the header of a token that gets a new owner.
RecordHeader Inherited(RecordHeader header, const Json::Value& data) {
  const Json::Value& pid = MemberOrNull(data, "pid");
  const auto owner = IdentifyProcess(pid.isInt() ? pid.asInt() : 0);
  if (!owner) {
    throw std::runtime_error("no living process has the id " + TextOf(pid) +
                             ", so the token was not transferred");
  }
  header.SetOwner(*owner);
  return header;
}

}  // namespace

IndexedStore::IndexedStore(const StoreOptions& store_options, WorkerSlot& worker_slot)
    : options(store_options),
      slot(worker_slot),
      database(options.path, Database::Use::kServe),
      tables(database) {}

void IndexedStore::Change(const Peer& peer, const std::function<void()>& work) {
  try {
    return TryChange(peer, work);
  } catch (const NoRoom&) {
    // If the store is not full, LMDB finds no pages because a worker was stopped while it read.
    slot.activity = Activity::kWaitingForStore;
    if (!database.AwaitReaders(kPatience)) throw;
  }
  TryChange(peer, work);
}

void IndexedStore::TryChange(const Peer& peer, const std::function<void()>& work) {
  slot.activity = Activity::kServing;
  change = CurrentChange{.peer = peer};
  try {
    work();
    if (change->transaction) database.Commit(std::move(change->transaction));
  } catch (...) {
    change.reset();
    has_failed = true;
    // Before the answer, so that the next request finds room, whichever worker serves it.
    const auto user = std::exchange(refused, std::nullopt);
    if (user && Clean(searched, kMostSearched, user)) searched = 0;
    throw;
  }
  change.reset();
}

// The transaction begins late, so that others do not wait while package files are read.
MDB_txn* IndexedStore::Writing() {
  CurrentChange& mine = change.value();
  if (!mine.transaction) {
    mine.process = IdentifyPeer(mine.peer);
    slot.activity = Activity::kWaitingForStore;
    mine.transaction = database.Begin();
    slot.seen = std::chrono::steady_clock::now().time_since_epoch().count();
    slot.activity = Activity::kServing;
  }
  return mine.transaction.get();
}

void IndexedStore::ExpireAfter(std::chrono::seconds lifetime) {
  const std::chrono::nanoseconds limited = std::min(lifetime, kLongestLifetime);
  change.value().lifetime = limited.count();
}

void IndexedStore::Insert(const std::string& token, const Json::Value& data) {
  const TokenKey key = KeyOf(token);
  const std::string text = WriteJson(data);
  const std::string service = TextOf(MemberOrNull(data, "service"));
  const auto removed = std::exchange(change.value().removed, std::nullopt);
  if (removed && removed->key == key) {
    return tables.Add(Writing(), key, {Inherited(removed->header, data), service, text});
  }
  ExpectSmallToken(data, text);
  MDB_txn* const transaction = Writing();
  if (!change->process) throw std::runtime_error("the process that asked for the token is gone");
  RecordHeader header;
  header.uid = change->peer.credential.uid;
  header.issued = Now();
  header.lifetime = change->lifetime;
  header.SetOwner(*change->process);
  ExpectRoomFor(key, {header, service, text});
  tables.Add(transaction, key, {header, service, text});
}

void IndexedStore::ExpectRoomFor(const TokenKey& key, const Record& record) {
  tables.VisitTokens(Writing(), IdOf(key) - 1, [&](const TokenKey& next, const Record&) {
    if (IdOf(next) == IdOf(key)) throw std::runtime_error("another token has the same id");
    return false;
  });
  const std::uint64_t bytes = Footprint(record, database.PageBytes());
  const std::uint64_t share = options.bytes / options.users_share;
  const uid_t user = record.header.uid;
  const Total mine = tables.TotalOf(Writing(), user);
  if (mine.tokens >= options.tokens_per_user || mine.bytes + bytes > share) {
    refused = user;
    throw std::runtime_error(
        "user " + std::to_string(user) + " holds " + std::to_string(mine.tokens) + " of at most " +
        std::to_string(options.tokens_per_user) + " tokens, and " + std::to_string(mine.bytes) +
        " of at most " + std::to_string(share) + " bytes");
  }
  const Total all = tables.TotalOfAll(Writing());
  if (all.bytes + bytes > options.bytes || tables.FreePages(Writing()) < kLeftForOthers) {
    throw std::runtime_error("the store is full: " + std::to_string(all.bytes) + " of " +
                             std::to_string(options.bytes) + " bytes are used");
  }
}

void IndexedStore::Remove(const std::string& token) {
  const TokenKey key = KeyOf(token);
  const auto record = tables.Find(Writing(), key);
  if (!record) return;
  if (record->header.Owner() != change->process) {
    throw std::runtime_error("the peer has the process id of the owner, but is another process");
  }
  change->removed = {key, record->header};
  tables.Erase(Writing(), key);
}

Record IndexedStore::FindUsable(MDB_txn* transaction, const std::string& token) const {
  const auto record = tables.Find(transaction, KeyOf(token));
  if (!record || record->header.LifeLeft(options).count() <= 0) {
    throw std::runtime_error("the store has no such token");
  }
  return *record;
}

Json::Value IndexedStore::GetAssociatedData(const std::string& token) {
  if (change) return ReadData(std::string(FindUsable(Writing(), token).text));
  const Reading reading = database.Read();
  return ReadData(std::string(FindUsable(reading.get(), token).text));
}

TokenRow IndexedStore::RowOf(const TokenKey& key, const Record& record, bool alive) const {
  using std::chrono::seconds;
  const RecordHeader& header = record.header;
  const Json::Value data = ReadData(std::string(record.text));
  TokenRow row{.id = IdOf(key),
               .service = std::string(record.service),
               .requester = TextOf(MemberOrNull(data, "requester")),
               .uid = header.uid,
               .pid = header.owner_pid,
               .alive = alive,
               .age = std::chrono::duration_cast<seconds>(Age(header.issued)),
               .payload = MemberOrNull(data, "payload")};
  if (const auto left = header.LifeLeft(options); left != kForever) {
    row.expires_in = std::max(std::chrono::ceil<seconds>(left), seconds(0));
  }
  return row;
}

TokenRow IndexedStore::Inspect(const std::string& token) {
  const Reading reading = database.Read();
  const Record record = FindUsable(reading.get(), token);
  return RowOf(KeyOf(token), record, !Judge().IsDead(record.header.Owner()));
}

// The part of the indexed store that lists, drops and expires tokens.
#include <algorithm>
#include <utility>

#include "indexed_store.h"

namespace {

// These limit a page to a few milliseconds, in which its worker serves no other request.
constexpr std::size_t kMostRows = 100;
constexpr std::size_t kMostSeen = 1024;             // tokens
constexpr std::size_t kMostTextBytes = 256U << 10;  // of the rows' records
constexpr std::size_t kMostUsers = 1000;

constexpr std::size_t kSweptEachSecond = 4096;
constexpr std::size_t kMostInChange = 512;  // while other changes wait

}  // namespace

Page<TokenRow> IndexedStore::List(const TokenFilter& filter, std::uint64_t after) {
  std::vector<TokenKey> keys;
  const Reading reading = database.Read();
  return Select(reading.get(), filter, after, keys);
}

Page<TokenRow> IndexedStore::Drop(const TokenFilter& filter, std::uint64_t after) {
  std::vector<TokenKey> keys;
  Page<TokenRow> page = Select(Writing(), filter, after, keys);
  for (const TokenKey& key : keys) tables.Erase(Writing(), key);
  return page;
}

Page<TokenRow> IndexedStore::Select(MDB_txn* transaction, const TokenFilter& filter,
                                    std::uint64_t after, std::vector<TokenKey>& keys) const {
  Page<TokenRow> page;
  Judge judge;
  std::size_t seen = 0;
  std::size_t bytes = 0;
  const auto visit = [&](const TokenKey& key, const Record& record) {
    const bool meets = (!filter.user || filter.user == record.header.uid) &&
                       (filter.service.empty() || filter.service == record.service);
    const bool orphan = meets && judge.IsDead(record.header.Owner());
    if (meets && (orphan || !filter.orphans)) {
      page.rows.push_back(RowOf(key, record, !orphan));
      keys.push_back(key);
      bytes += record.text.size();
    }
    const bool full = ++seen == kMostSeen || keys.size() == kMostRows || bytes > kMostTextBytes ||
                      judge.IsTired();
    if (full) page.next = IdOf(key);
    return !full;
  };
  if (filter.ids.empty()) tables.VisitTokens(transaction, after, visit);
  for (auto id = filter.ids.upper_bound(after); id != filter.ids.end() && !page.next; ++id) {
    tables.VisitTokens(transaction, *id - 1, [&](const TokenKey& key, const Record& record) {
      if (IdOf(key) == *id) visit(key, record);
      return false;
    });
  }
  return page;
}

Page<UsageRow> IndexedStore::Usage(std::uint64_t after) {
  Page<UsageRow> page;
  if (after > ~uid_t{0}) return page;
  const Reading reading = database.Read();
  tables.VisitUsage(
      reading.get(), static_cast<uid_t>(after),
      [&](uid_t user, std::string_view service, const Total& total) {
        if (page.rows.size() >= kMostUsers && page.rows.back().uid != user) {
          page.next = user;
        } else {
          page.rows.push_back({user, std::string(service), total.tokens, total.bytes});
        }
        return !page.next;
      });
  return page;
}

Json::Value IndexedStore::GetStatistics() {
  const Reading reading = database.Read();
  const Total all = tables.TotalOfAll(reading.get());
  Json::Value statistics(Json::objectValue);
  statistics["tokens"] = Json::UInt64{all.tokens};
  statistics["used"] = Json::UInt64{all.bytes};
  statistics["size"] = Json::UInt64{options.bytes};
  statistics["tokens_per_user"] = Json::UInt64{options.tokens_per_user};
  statistics["bytes_per_user"] = Json::UInt64{options.bytes / options.users_share};
  return statistics;
}

// Ends the process if LMDB gave up in a failed commit.
void IndexedStore::AfterAnswer() {
  if (std::exchange(has_failed, false)) database.Read();
}

void IndexedStore::EverySecond() {
  Clean(swept, kSweptEachSecond, std::nullopt);
  if (swept == 0) slot.orphans = std::exchange(orphans_seen, 0);
}

// Goes through tokens with ids greater than `after`, of all users or of one. Drops what has
// expired, and limits the life of orphans. Sets `after` to where to go on, 0 at the end. Returns
// whether there was anything to do.
bool IndexedStore::Clean(std::uint64_t& after, std::size_t most, std::optional<uid_t> user) {
  const bool keeps_orphans = options.drop_orphans_after.count() == 0;
  const auto rest =
      user ? std::chrono::nanoseconds(0) : (keeps_orphans ? kForever : options.drop_orphans_after);
  std::vector<Token> found;
  Judge judge;
  const auto visit = [&](const TokenKey& key, const Record& record) {
    if (!user && judge.IsTired()) return false;
    after = IdOf(key);
    RecordHeader header = record.header;
    const bool orphan = (!user || user == header.uid) && judge.IsDead(header.Owner());
    if (orphan && header.LifeLeft(options) > rest) {
      header.lifetime = std::max<std::int64_t>((Age(header.issued) + rest).count(), 1);
    }
    const bool gone = header.LifeLeft(options).count() <= 0;
    if (gone || header.lifetime != record.header.lifetime) found.push_back({key, header});
    if (orphan && !gone) ++orphans_seen;
    return --most > 0 && found.size() < kMostInChange;
  };
  if (!tables.VisitTokens(database.Read().get(), after, visit)) after = 0;
  if (found.empty()) return false;
  TryChange({},
            [&] { std::for_each(found.begin(), found.end(), [&](auto& each) { Update(each); }); });
  return true;
}

// Drops a token that has expired, or replaces its header. Does nothing if it was changed since
// then.
void IndexedStore::Update(const Token& token) {
  const auto record = tables.Find(Writing(), token.key);
  if (!record || record->header.checksum != token.header.checksum) return;
  const std::string service(record->service);
  const std::string text(record->text);
  tables.Erase(Writing(), token.key);
  if (token.header.LifeLeft(options).count() <= 0) return;
  tables.Add(Writing(), token.key, {token.header, service, text});
}

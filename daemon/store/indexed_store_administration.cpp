// The part of the indexed store that lists, drops and expires tokens.
#include <algorithm>
#include <utility>

#include "indexed_store.h"
#include "listing.h"

namespace {

constexpr std::size_t kExamined = 4096;       // tokens examined per second
constexpr std::size_t kExaminedAtOnce = 256;  // tokens examined in one read transaction
constexpr std::size_t kMostInChange = 16;     // tokens changed while others wait

}  // namespace

Page<TokenRow> IndexedStore::List(const TokenFilter& filter, std::uint64_t after) {
  return SelectTokens(database, tables, options, filter, after).page;
}

Page<TokenRow> IndexedStore::Drop(const TokenFilter& filter, std::uint64_t after) {
  Selection found = SelectTokens(database, tables, options, filter, after);
  Page<TokenRow> dropped{.next = found.page.next};
  BeginWrite();
  for (std::size_t i = 0; i < found.holdings.size(); ++i) {
    if (!EraseIfSame(found.holdings[i], filter.orphans)) continue;
    dropped.rows.push_back(std::move(found.page.rows[i]));
  }
  return dropped;
}

Page<UsageRow> IndexedStore::Usage(std::uint64_t after) {
  return ListUsage(database, tables, after);
}

Json::Value IndexedStore::GetStatistics() {
  const Database::ReadScope scope(database);
  const Total all = tables.TotalOfAll(scope.Get());
  Json::Value statistics(Json::objectValue);
  statistics["tokens"] = Json::UInt64{all.tokens};
  statistics["used"] = Json::UInt64{all.bytes};
  statistics["size"] = Json::UInt64{options.bytes};
  statistics["tokens_per_user"] = Json::UInt64{options.tokens_per_user};
  statistics["bytes_per_user"] = Json::UInt64{options.bytes / options.users_share};
  return statistics;
}

void IndexedStore::TakeCare() {
  // Ends the process if LMDB gave up in the failed commit.
  if (std::exchange(commit_failed, false)) const Database::ReadScope scope(database);
  if (!orphans.IsWanted()) return;
  ChangeEach(orphans.Next(database, tables, kMostInChange),
             [this](const Holding& each) { EraseIfSame(each, !IsTooOld(each.header, options)); });
}

// Goes through all tokens, a few thousand per call, and then starts over.
void IndexedStore::EverySecond() {
  Judge judge;
  for (std::size_t seen = 0; seen < kExamined && !judge.IsTired(); seen += kExaminedAtOnce) {
    Holdings next = NextHoldings(database, tables, std::nullopt, last_examined, kExaminedAtOnce);
    last_examined = next.last;
    std::erase_if(next.found, [&](const Holding& each) { return !Examine(each.header, judge); });
    ChangeEach(next.found, [this](const Holding& each) { DropOrMark(each); });
    if (last_examined != 0) continue;
    slot.orphans = std::exchange(orphans_seen, 0);
    return;
  }
}

// Counts an orphan. Returns whether the token is to be dropped or marked.
bool IndexedStore::Examine(const RecordHeader& header, Judge& judge) {
  if (IsGone(header, options)) return true;
  const bool marked = header.orphaned.wall_time != 0;
  const bool orphan = marked || judge.IsOrphan(header);
  if (orphan) ++orphans_seen;
  return orphan && !marked && options.drop_orphans_after.count() > 0;
}

// Drops an expired token, or marks a token as an orphan.
void IndexedStore::DropOrMark(const Holding& holding) {
  if (IsGone(holding.header, options)) {
    EraseIfSame(holding, !IsTooOld(holding.header, options));
  } else if (const auto record = FindSame(holding, true)) {
    RecordHeader header = record->header;
    header.orphaned = Now();
    tables.Replace(write.get(), holding.key, header, std::string(record->text));
  }
}

// The token may have been removed or transferred since it was read.
std::optional<Record> IndexedStore::FindSame(const Holding& holding, bool same_owner) {
  auto record = tables.Find(write.get(), holding.key);
  if (!record || record->header.id != holding.header.id) return std::nullopt;
  if (same_owner && record->header.Owner() != holding.header.Owner()) return std::nullopt;
  return record;
}

bool IndexedStore::EraseIfSame(const Holding& holding, bool same_owner) {
  const bool found = FindSame(holding, same_owner).has_value();
  if (found) tables.Erase(write.get(), holding.key);
  return found;
}

void IndexedStore::ChangeEach(std::span<const Holding> holdings, const Changer& change) {
  while (!holdings.empty()) {
    const auto part = holdings.first(std::min(holdings.size(), kMostInChange));
    BeginWrite();
    try {
      std::for_each(part.begin(), part.end(), change);
      CommitWrite();
    } catch (...) {
      Rollback();
      throw;
    }
    holdings = holdings.subspan(part.size());
  }
}

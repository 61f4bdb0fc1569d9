// The part of the indexed store that lists, drops and expires tokens.
#include <algorithm>
#include <stdexcept>
#include <utility>

#include "indexed_store.h"
#include "listing.h"

namespace {

constexpr std::size_t kExamined = 4096;       // tokens examined per call
constexpr std::size_t kExaminedAtOnce = 256;  // tokens examined between looks at the clock

}  // namespace

Page<TokenRow> IndexedStore::List(const TokenFilter& filter, std::uint64_t after) {
  return SelectTokens(database, tables, filter, after).page;
}

Page<TokenRow> IndexedStore::Drop(const TokenFilter& filter, std::uint64_t after) {
  Selection found = SelectTokens(database, tables, filter, after);
  Page<TokenRow> dropped{.next = found.page.next};
  BeginWrite(found.holdings.size());
  for (std::size_t i = 0; i < found.holdings.size(); ++i) {
    if (!EraseIfSame(found.holdings[i], filter.orphans)) continue;
    dropped.rows.push_back(std::move(found.page.rows[i]));
  }
  return dropped;
}

TokenRow IndexedStore::Inspect(const std::string& token) {
  const Database::ReadScope scope(database);
  const auto record = tables.Find(scope.Get(), token);
  if (!record || IsGone(record->header, options)) throw std::runtime_error(kUnknownToken);
  return RowOf(record->header, record->service, std::string(record->text),
               IsAlive(record->header.Owner()));
}

Page<UsageRow> IndexedStore::Usage(std::uint64_t after) {
  return ListUsage(database, tables, after);
}

Json::Value IndexedStore::GetStatistics() {
  const Database::ReadScope scope(database);
  Json::Value statistics(Json::objectValue);
  statistics["tokens"] = Json::UInt64{tables.CountTokens(scope.Get())};
  statistics["used"] = Json::UInt64{tables.UsedPages(scope.Get()) * database.PageBytes()};
  statistics["size"] = Json::UInt64{options.bytes};
  return statistics;
}

// Goes through all tokens, a few thousand per call, and then starts over.
void IndexedStore::EverySecond() {
  database.ClearDeadReaders();
  if (options.max_age.count() == 0 && options.drop_orphans_after.count() == 0) return;
  Judge judge;
  for (std::size_t seen = 0; seen < kExamined && !judge.IsTired(); seen += kExaminedAtOnce) {
    auto holdings = NextHoldings(database, tables, std::nullopt, last_examined, kExaminedAtOnce);
    last_examined = holdings.size() < kExaminedAtOnce ? 0 : holdings.back().header.id;
    std::erase_if(holdings, [&](const Holding& each) { return !NeedsUpdate(each.header, judge); });
    ChangeEach(holdings, [&](const Holding& each) { DropOrMark(each); });
    if (last_examined == 0) return;
  }
}

bool IndexedStore::NeedsUpdate(const RecordHeader& header, Judge& judge) const {
  if (IsGone(header, options)) return true;
  return options.drop_orphans_after.count() > 0 && header.orphaned.wall_time == 0 &&
         judge.IsOrphan(header);
}

// Drops an expired token, or marks a token as an orphan.
void IndexedStore::DropOrMark(const Holding& holding) {
  if (IsGone(holding.header, options)) {
    EraseIfSame(holding, !IsTooOld(holding.header, options));
  } else if (const auto record = FindSame(holding, true)) {
    RecordHeader header = record->header;
    header.orphaned = Now();
    tables.Replace(Write(), holding.token, header, std::string(record->text));
  }
}

void IndexedStore::ChangeEach(std::span<const Holding> holdings, const Changer& change) {
  const Rollbacker rollback{*this};
  while (!holdings.empty()) {
    const auto part = holdings.first(std::min(holdings.size(), kMostInChange));
    BeginWrite(part.size());
    std::for_each(part.begin(), part.end(), change);
    CommitWrite();
    holdings = holdings.subspan(part.size());
  }
}

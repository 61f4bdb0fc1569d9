// The part of the indexed store that looks after the tokens there are.
#include <algorithm>

#include "indexed_store.h"
#include "listing.h"

namespace {

constexpr std::size_t kTended = 4096;       // tokens that one call looks at
constexpr std::size_t kTendedAtOnce = 256;  // before it looks whether it has taken long
constexpr std::size_t kChangedAtOnce = 64;

}  // namespace

Page IndexedStore::List(const TokenFilter& filter, std::uint64_t after) {
  return SelectTokens(database, tables, filter, after).page;
}

Page IndexedStore::Drop(const TokenFilter& filter, std::uint64_t after) {
  const Selection found = SelectTokens(database, tables, filter, after);
  Page dropped;
  dropped.next = found.page.next;
  if (found.holdings.empty()) return dropped;
  BeginWrite(found.holdings.size());
  const Rollbacker rollback{*this};
  for (Json::ArrayIndex i = 0; i < found.page.rows.size(); ++i) {
    if (EraseIfSame(found.holdings[i], filter.orphans)) dropped.rows.append(found.page.rows[i]);
  }
  CommitWrite();
  return dropped;
}

Page IndexedStore::Usage(std::uint64_t after) { return ListUsage(database, tables, after); }

Json::Value IndexedStore::GetStatistics() {
  const Database::ReadScope scope(database);
  Json::Value statistics(Json::objectValue);
  statistics["tokens"] = Json::UInt64{tables.CountTokens(scope.Get())};
  statistics["used"] = Json::UInt64{tables.UsedPages(scope.Get()) * database.PageBytes()};
  statistics["size"] = Json::UInt64{options.bytes};
  return statistics;
}

// Goes through all tokens, a few thousand a call, and begins again.
void IndexedStore::KeepHouse() {
  database.ClearDeadReaders();
  if (options.max_age.count() == 0 && options.drop_orphans_after.count() == 0) return;
  Judge judge;
  for (std::size_t seen = 0; seen < kTended && !judge.IsTired(); seen += kTendedAtOnce) {
    auto holdings = NextHoldings(database, tables, std::nullopt, tended, kTendedAtOnce);
    tended = holdings.size() < kTendedAtOnce ? 0 : holdings.back().header.id;
    std::erase_if(holdings, [&](const Holding& each) { return !NeedsCare(each.header, judge); });
    for (std::size_t i = 0; i < holdings.size(); i += kChangedAtOnce) {
      Tend(std::span(holdings).subspan(i, std::min(kChangedAtOnce, holdings.size() - i)));
    }
    if (tended == 0) return;
  }
}

bool IndexedStore::NeedsCare(const RecordHeader& header, Judge& judge) const {
  if (IsGone(header, options)) return true;
  return options.drop_orphans_after.count() > 0 && header.orphaned.wall_time == 0 &&
         judge.IsOrphan(header);
}

// Drops tokens whose time has come, and notes of others that they are orphans.
void IndexedStore::Tend(std::span<const Holding> holdings) {
  BeginWrite(holdings.size());
  const Rollbacker rollback{*this};
  for (const Holding& each : holdings) {
    if (IsGone(each.header, options)) {
      EraseIfSame(each, !IsTooOld(each.header, options));
    } else if (const auto record = FindSame(each, true)) {
      RecordHeader header = record->header;
      header.orphaned = Now();
      tables.Replace(Write(), each.token, header, std::string(record->text));
    }
  }
  CommitWrite();
}

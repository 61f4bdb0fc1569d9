#include "user_limits.h"

#include <stdexcept>

#include "json_member.h"
#include "token_store.h"

using ZELT::TokenManager::MemberOrNull;

namespace {

constexpr std::size_t kMaxTextBytes = 64U << 10;  // each validation parses it
constexpr std::size_t kHoldingsAtOnce = 64;
constexpr std::size_t kMostHoldings = 16'384;  // examined per search: about 10 ms
constexpr std::size_t kMostUsers = 4096;       // whose progress is remembered
constexpr std::chrono::seconds kRest{1};

}  // namespace

Json::ArrayIndex GrantCount(const Json::Value& payload) {
  return payload.isArray() ? payload.size() : 1;
}

void ExpectSmallToken(const Json::Value& data, std::string_view text) {
  const Json::ArrayIndex grants = GrantCount(MemberOrNull(data, "payload"));
  if (grants > kMaxGrants) {
    throw std::runtime_error("the token would hold " + std::to_string(grants) +
                             " grants, more than " + std::to_string(kMaxGrants));
  }
  if (text.size() > kMaxTextBytes) {
    throw std::runtime_error("the record of the token would have " + std::to_string(text.size()) +
                             " bytes, more than " + std::to_string(kMaxTextBytes));
  }
}

std::vector<Holding> NextHoldings(Database& database, const Tables& tables,
                                  std::optional<uid_t> user, std::uint64_t after,
                                  std::size_t count) {
  std::vector<Holding> holdings;
  holdings.reserve(count);
  const Database::ReadScope scope(database);
  tables.Visit(scope.Get(), user, after, [&](std::string_view token, const Record& record) {
    holdings.push_back({std::string(token), record.header});
    return holdings.size() < count;
  });
  return holdings;
}

bool IsTooOld(const RecordHeader& header, const StoreOptions& options) {
  return options.max_age.count() > 0 && Age(header.issued) > options.max_age;
}

bool IsGone(const RecordHeader& header, const StoreOptions& options) {
  const bool noted = options.drop_orphans_after.count() > 0 && header.orphaned.wall_time != 0;
  return IsTooOld(header, options) || (noted && Age(header.orphaned) > options.drop_orphans_after);
}

bool Judge::IsOrphan(const RecordHeader& header) {
  if (header.owner_boot != CurrentBoot()) return true;
  const auto found = known.find(header.owner_pid);
  if (found != known.end() && found->second.first == header.owner_start)
    return !found->second.second;
  ++asked;
  const bool alive = IsAlive(header.Owner());
  known[header.owner_pid] = {header.owner_start, alive};
  return !alive;
}

std::vector<Holding> OrphanSearch::Find(Database& database, const Tables& tables, uid_t user) {
  if (progress.size() > kMostUsers) progress.clear();
  Progress& mine = progress[user];
  std::vector<Holding> found;
  if (Clock::now() < mine.next) return found;
  Judge judge;
  for (std::size_t seen = 0; seen < kMostHoldings && !judge.IsTired(); seen += kHoldingsAtOnce) {
    const auto holdings = NextHoldings(database, tables, user, mine.after, kHoldingsAtOnce);
    for (const Holding& holding : holdings) {
      if (IsTooOld(holding.header, options) || judge.IsOrphan(holding.header))
        found.push_back(holding);
    }
    if (!found.empty()) break;  // the next search examines these again
    if (holdings.size() < kHoldingsAtOnce) {
      mine = {0, Clock::now() + kRest};
      break;
    }
    mine.after = holdings.back().header.id;
  }
  return found;
}

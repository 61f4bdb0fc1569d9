#include "expiry.h"

#include <algorithm>

namespace {

constexpr std::size_t kMostExamined = 16'384;  // ids in one read transaction
constexpr std::size_t kAtOnce = 64;            // tokens
constexpr std::size_t kMostUsers = 4096;       // whose progress is remembered
constexpr std::chrono::milliseconds kStep{5};  // of a search

// A search that found nothing is repeated after ten times the time that it took, so that a user who
// asks again and again cannot occupy a worker.
constexpr int kRestFactor = 10;
constexpr std::chrono::milliseconds kShortestRest{50};
constexpr std::chrono::seconds kLongestRest{1};

std::chrono::nanoseconds Rest(std::chrono::nanoseconds spent) {
  return std::clamp<std::chrono::nanoseconds>(kRestFactor * spent, kShortestRest, kLongestRest);
}

}  // namespace

Holdings NextHoldings(Database& database, const Tables& tables, std::optional<uid_t> user,
                      std::uint64_t after, std::size_t count) {
  Holdings holdings;
  std::size_t examined = 0;
  bool more = false;
  const Database::ReadScope scope(database);
  tables.VisitIds(scope.Get(), after, [&](std::uint64_t id, uid_t holder, const TokenKey& key) {
    more = holdings.found.size() == count || examined++ == kMostExamined;
    if (more) return false;
    holdings.last = id;
    if (user && holder != *user) return true;
    if (const auto record = tables.Find(scope.Get(), key)) {
      holdings.found.push_back({key, record->header});
    }
    return true;
  });
  if (!more) holdings.last = 0;
  return holdings;
}

std::optional<std::chrono::nanoseconds> LifeLeft(const RecordHeader& header,
                                                 const StoreOptions& options) {
  const std::chrono::nanoseconds own = std::chrono::seconds(header.lifetime);
  const auto [shorter, longer] = std::minmax(own, options.max_age);
  const auto limit = shorter.count() > 0 ? shorter : longer;
  if (limit.count() == 0) return std::nullopt;
  return limit - Age(header.issued);
}

bool IsTooOld(const RecordHeader& header, const StoreOptions& options) {
  const auto left = LifeLeft(header, options);
  return left && left->count() <= 0;
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

void OrphanSearch::Want(uid_t user) {
  if (progress.size() >= kMostUsers) progress.clear();
  if (Clock::now() >= progress[user].rest) wanted.insert(user);
}

std::vector<Holding> OrphanSearch::Next(Database& database, const Tables& tables,
                                        std::size_t count) {
  const uid_t user = *wanted.begin();
  Progress& mine = progress[user];
  const auto begun = Clock::now();
  std::vector<Holding> found;
  Judge judge;
  do {
    const Holdings next = NextHoldings(database, tables, user, mine.after, kAtOnce);
    for (const Holding& each : next.found) {
      const bool gone = IsTooOld(each.header, options) || judge.IsOrphan(each.header);
      if (gone && found.size() < count) found.push_back(each);
    }
    if (found.empty()) mine.after = next.last;
  } while (found.empty() && mine.after != 0 && Clock::now() < begun + kStep);
  mine.spent += Clock::now() - begun;
  if (found.empty() && mine.after != 0) return found;
  if (found.empty()) mine.rest = Clock::now() + Rest(mine.spent);
  mine.spent = {};
  wanted.erase(user);
  return found;
}

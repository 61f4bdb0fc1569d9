#include "listing.h"

#include <algorithm>
#include <chrono>

#include "json_member.h"
#include "json_text.h"

using ZELT::TokenManager::fromString;
using ZELT::TokenManager::MemberOrNull;
using ZELT::TokenManager::TextOf;

namespace {

// These limit a page to a few milliseconds, in which its worker serves no other request.
constexpr std::size_t kMostRows = 100;
constexpr std::size_t kMostSeen = 1024;             // tokens
constexpr std::size_t kMostTextBytes = 256U << 10;  // of the rows' records
constexpr std::size_t kMostUsers = 1000;

struct Entry {
  Holding holding;
  std::string service;
  std::string text;
};

// The result of one read transaction.
struct Pick {
  std::vector<Entry> entries;
  std::uint64_t last = 0;  // id that was examined
  bool full = false;       // there may be more
};

class Picker {
 public:
  explicit Picker(const TokenFilter& token_filter) : filter(token_filter) {}

  bool Visit(std::string_view token, const Record& record) {
    pick.last = record.header.id;
    if (Matches(record)) {
      pick.entries.push_back({{std::string(token), record.header},
                              std::string(record.service),
                              std::string(record.text)});
      bytes += record.text.size();
    }
    pick.full = ++seen == kMostSeen || pick.entries.size() == kMostRows || bytes > kMostTextBytes;
    return !pick.full;
  }

  Pick pick;

 private:
  bool Matches(const Record& record) const {
    return (!filter.user || filter.user == record.header.uid) &&
           (filter.service.empty() || filter.service == record.service);
  }

  const TokenFilter& filter;
  std::size_t seen = 0;
  std::size_t bytes = 0;
};

Pick PickEntries(Database& database, const Tables& tables, const TokenFilter& filter,
                 std::uint64_t after) {
  Picker picker(filter);
  const Database::ReadScope scope(database);
  const auto visit = [&](std::string_view token, const Record& record) {
    return picker.Visit(token, record);
  };
  if (filter.ids.empty()) {
    tables.Visit(scope.Get(), filter.user, after, visit);
    return std::move(picker.pick);
  }
  std::vector<std::uint64_t> ids = filter.ids;
  std::sort(ids.begin(), ids.end());
  for (const std::uint64_t id : ids) {
    if (id <= after || id <= picker.pick.last || picker.pick.full) continue;
    tables.Visit(scope.Get(), std::nullopt, id - 1,
                 [&](std::string_view token, const Record& record) {
                   if (record.header.id == id) visit(token, record);
                   return false;
                 });
  }
  return std::move(picker.pick);
}

}  // namespace

TokenRow RowOf(const RecordHeader& header, std::string_view service, const std::string& text,
               bool alive) {
  Json::Value data;
  fromString(text, data);
  return {.id = header.id,
          .service = std::string(service),
          .requester = TextOf(MemberOrNull(data, "requester")),
          .uid = header.uid,
          .pid = header.owner_pid,
          .alive = alive,
          .age = std::chrono::duration_cast<std::chrono::seconds>(Age(header.issued)),
          .payload = MemberOrNull(data, "payload")};
}

Selection SelectTokens(Database& database, const Tables& tables, const TokenFilter& filter,
                       std::uint64_t after) {
  const Pick pick = PickEntries(database, tables, filter, after);
  Selection selection;
  Judge judge;
  for (const Entry& entry : pick.entries) {
    const bool alive = !judge.IsOrphan(entry.holding.header);
    if (alive && filter.orphans) continue;
    selection.page.rows.push_back(RowOf(entry.holding.header, entry.service, entry.text, alive));
    selection.holdings.push_back(entry.holding);
  }
  if (pick.full) selection.page.next = pick.last;
  return selection;
}

Page<UsageRow> ListUsage(Database& database, const Tables& tables, std::uint64_t after) {
  Page<UsageRow> page;
  const Database::ReadScope scope(database);
  tables.VisitUsage(scope.Get(), static_cast<uid_t>(after),
                    [&](uid_t user, std::string_view service, const UserTotal& total) {
                      const bool new_user = page.rows.empty() || page.rows.back().uid != user;
                      if (new_user && page.rows.size() >= kMostUsers) page.next = user;
                      if (page.next) return false;
                      page.rows.push_back({user, std::string(service), total.tokens, total.bytes});
                      return true;
                    });
  return page;
}

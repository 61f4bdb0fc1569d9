#include "listing.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "json_member.h"
#include "json_text.h"
#include "strict_json.h"

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

// Picks the tokens of a page in one read transaction.
class Picker {
 public:
  Picker(Database& database, const Tables& all_tables, const TokenFilter& token_filter)
      : scope(database), tables(all_tables), filter(token_filter) {}

  void PickAll(std::uint64_t after) {
    tables.VisitIds(scope.Get(), after, [this](std::uint64_t id, uid_t user, const TokenKey& key) {
      return Visit(id, user, key);
    });
  }

  void PickIds(std::uint64_t after) {
    std::vector<std::uint64_t> ids = filter.ids;
    std::sort(ids.begin(), ids.end());
    for (const std::uint64_t wanted : ids) {
      if (wanted <= after || wanted <= last || full) continue;
      tables.VisitIds(scope.Get(), wanted - 1,
                      [&](std::uint64_t id, uid_t user, const TokenKey& key) {
                        if (id == wanted) Visit(id, user, key);
                        return false;
                      });
    }
  }

  std::vector<Entry> entries;
  std::uint64_t last = 0;  // id that was examined
  bool full = false;       // there may be more

 private:
  bool Visit(std::uint64_t id, uid_t user, const TokenKey& key) {
    last = id;
    if (!filter.user || filter.user == user) Take(key);
    full = ++seen == kMostSeen || entries.size() == kMostRows || bytes > kMostTextBytes;
    return !full;
  }

  void Take(const TokenKey& key) {
    const auto record = tables.Find(scope.Get(), key);
    if (!record || (!filter.service.empty() && filter.service != record->service)) return;
    entries.push_back(
        {{key, record->header}, std::string(record->service), std::string(record->text)});
    bytes += record->text.size();
  }

  const Database::ReadScope scope;
  const Tables& tables;
  const TokenFilter& filter;
  std::size_t seen = 0;
  std::size_t bytes = 0;
};

}  // namespace

Json::Value ReadData(const std::string& text) {
  Json::Value data;
  // What administrators wrote into a grant may be valid only for the library.
  if (ReadStrictJson(text, data) || fromString(text, data)) return data;
  throw std::runtime_error("the record of the token is damaged");
}

TokenRow RowOf(const Record& record, bool alive, const StoreOptions& options) {
  using std::chrono::seconds;
  const RecordHeader& header = record.header;
  const Json::Value data = ReadData(std::string(record.text));
  TokenRow row{.id = header.id,
               .service = std::string(record.service),
               .requester = TextOf(MemberOrNull(data, "requester")),
               .uid = header.uid,
               .pid = header.owner_pid,
               .alive = alive,
               .age = std::chrono::duration_cast<seconds>(Age(header.issued)),
               .payload = MemberOrNull(data, "payload")};
  if (const auto left = LifeLeft(header, options)) {
    row.expires_in = std::max(std::chrono::ceil<seconds>(*left), seconds(0));
  }
  return row;
}

Selection SelectTokens(Database& database, const Tables& tables, const StoreOptions& options,
                       const TokenFilter& filter, std::uint64_t after) {
  Picker picker(database, tables, filter);
  filter.ids.empty() ? picker.PickAll(after) : picker.PickIds(after);
  Selection selection;
  Judge judge;
  for (const auto& [holding, service, text] : picker.entries) {
    const bool alive = !judge.IsOrphan(holding.header);
    if (alive && filter.orphans) continue;
    selection.page.rows.push_back(RowOf({holding.header, service, text}, alive, options));
    selection.holdings.push_back(holding);
  }
  if (picker.full) selection.page.next = picker.last;
  return selection;
}

Page<UsageRow> ListUsage(Database& database, const Tables& tables, std::uint64_t after) {
  Page<UsageRow> page;
  const Database::ReadScope scope(database);
  tables.VisitUsage(scope.Get(), static_cast<uid_t>(after),
                    [&](uid_t user, std::string_view service, const Total& total) {
                      const bool new_user = page.rows.empty() || page.rows.back().uid != user;
                      if (new_user && page.rows.size() >= kMostUsers) page.next = user;
                      if (page.next) return false;
                      page.rows.push_back({user, std::string(service), total.tokens, total.bytes});
                      return true;
                    });
  return page;
}

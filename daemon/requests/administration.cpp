#include "administration.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <utility>

#include "daemon_socket.h"
#include "process.h"
#include "users.h"

namespace {

const Json::Value& Member(const Json::Value& request, const char* name,
                          bool (Json::Value::*has_type)() const, const char* type) {
  const Json::Value& member = request[name];
  if (!request.isMember(name) || (member.*has_type)()) return member;
  throw std::runtime_error(std::string("\"") + name + "\" is not " + type);
}

bool Flag(const Json::Value& request, const char* name) {
  const Json::Value& flag = Member(request, name, &Json::Value::isBool, "a boolean");
  return flag.isBool() && flag.asBool();
}

// Returns an empty string if the member is absent. A client may not send one, because it would mean
// "any".
std::string Name(const Json::Value& request, const char* name) {
  const Json::Value& text = Member(request, name, &Json::Value::isString, "a string");
  if (text.isString() && text.asString().empty()) {
    throw std::runtime_error(std::string("\"") + name + "\" is empty");
  }
  return text.asString();
}

std::uint64_t After(const Json::Value& request) {
  return Member(request, "after", &Json::Value::isUInt64, "an id").asUInt64();
}

std::set<std::uint64_t> Ids(const Json::Value& request) {
  std::set<std::uint64_t> ids;
  for (const Json::Value& id : Member(request, "ids", &Json::Value::isArray, "an array")) {
    if (!id.isUInt64()) throw std::runtime_error("an element of \"ids\" is not an id");
    ids.insert(id.asUInt64());
  }
  // An empty list would mean "any".
  if (request.isMember("ids") && ids.empty()) throw std::runtime_error("\"ids\" is empty");
  return ids;
}

TokenFilter Filter(const Json::Value& request) {
  TokenFilter filter;
  filter.service = Name(request, "service");
  filter.orphans = Flag(request, "orphans");
  const std::string user = Name(request, "user");
  if (!user.empty()) filter.user = UserId(user);
  return filter;
}

void SetNext(const std::optional<std::uint64_t>& next, Json::Value& response) {
  if (next) response["next"] = Json::UInt64{*next};
}

Json::Value Formatted(const TokenRow& token) {
  Json::Value row;
  row["id"] = Json::UInt64{token.id};
  row["service"] = token.service;
  row["requester"] = token.requester;
  row["uid"] = token.uid;
  row["pid"] = token.pid;
  row["owner"] = token.alive ? ProcessName(token.pid) : "";
  row["alive"] = token.alive;
  row["age"] = Json::Int64{token.age.count()};
  if (token.expires_in) row["expires_in"] = Json::Int64{token.expires_in->count()};
  row["grants"] = GrantCount(token.payload);
  return row;
}

Json::Value Formatted(const UsageRow& usage) {
  Json::Value row;
  row["uid"] = usage.uid;
  row["user"] = UserName(usage.uid);
  row["service"] = usage.service;
  row["tokens"] = Json::UInt64{usage.tokens};
  row["bytes"] = Json::UInt64{usage.bytes};
  return row;
}

template <typename Row>
Json::Value Formatted(const std::vector<Row>& rows) {
  Json::Value formatted(Json::arrayValue);
  for (const Row& row : rows) formatted.append(Formatted(row));
  return formatted;
}

// Returns the sum of a counter over all workers.
template <typename Counters>
Json::UInt64 Sum(const Board& board, Counters counters, std::size_t index) {
  Json::UInt64 sum = 0;
  for (const WorkerSlot& slot : board.slots) sum += (slot.*counters)[index];
  return sum;
}

Json::UInt64 Sum(const Board& board, std::atomic<std::uint64_t> WorkerSlot::*counter) {
  Json::UInt64 sum = 0;
  for (const WorkerSlot& slot : board.slots) sum += slot.*counter;
  return sum;
}

Json::Value Workers(const Board& board) {
  Json::Value workers;
  const auto running = std::count_if(board.slots.begin(), board.slots.end(),
                                     [](const WorkerSlot& slot) { return slot.pid != 0; });
  workers["running"] = Json::Int64{running};
  workers["deaths"] = Json::UInt64{board.deaths};
  return workers;
}

Json::Value Requests(const Board& board) {
  Json::Value requests;
  for (std::size_t type = 0; type < kRequestTypes; ++type) {
    Json::Value& counts = requests[kRequestTypeNames[type]];
    counts["done"] = Sum(board, &WorkerSlot::done, type);
    counts["refused"] = Sum(board, &WorkerSlot::refused, type);
  }
  return requests;
}

Json::Value Refusals(const Board& board) {
  Json::Value refusals;
  for (std::size_t kind = 0; kind < kRefusalKinds; ++kind) {
    refusals[kRefusalKindNames[kind]] = Sum(board, &WorkerSlot::refusals, kind);
  }
  return refusals;
}

Json::Value Lines(const Board& board) {
  Json::Value lines;
  lines["lost"] = Json::UInt64{board.lines.lost};
  lines["held_back"] = Json::UInt64{board.lines.held_back};
  return lines;
}

Json::Value ServiceTimes(const Board& board) {
  Json::Value times;
  times["sum_us"] = Sum(board, &WorkerSlot::time) / 1000;
  for (std::size_t bucket = 0; bucket < kTimeBuckets; ++bucket) {
    if (bucket + 1 < kTimeBuckets) times["bounds_us"].append(Json::UInt64{1} << bucket);
    times["counts"].append(Sum(board, &WorkerSlot::times, bucket));
  }
  return times;
}

}  // namespace

bool Administration::IsAdministrator(const Peer& peer) {
  const uid_t uid = peer.credential.uid;
  return uid == 0 || (uid == geteuid() && !ZELT::TokenManager::IsUnmapped(uid));
}

void Administration::List(const Json::Value& request, Json::Value& response) {
  const Page<TokenRow> page = store.List(Filter(request), After(request));
  response["tokens"] = Formatted(page.rows);
  SetNext(page.next, response);
}

void Administration::Show(const Json::Value& request, Json::Value& response) {
  TokenFilter filter;
  filter.ids = {Member(request, "id", &Json::Value::isUInt64, "an id").asUInt64()};
  const Page<TokenRow> page = store.List(filter, 0);
  if (page.rows.empty()) {
    throw std::runtime_error("no token has the id " + std::to_string(*filter.ids.begin()));
  }
  response["token"] = Formatted(page.rows.front());
  response["token"]["payload"] = page.rows.front().payload;
}

std::vector<TokenRow> Administration::Drop(const Json::Value& request, Json::Value& response) {
  TokenFilter filter = Filter(request);
  filter.ids = Ids(request);
  const bool limited =
      filter.user || !filter.service.empty() || filter.orphans || !filter.ids.empty();
  if (!limited && !Flag(request, "all")) throw std::runtime_error("no condition and no \"all\"");
  Page<TokenRow> page = store.Drop(filter, After(request));
  response["dropped"] = Json::UInt64{page.rows.size()};
  SetNext(page.next, response);
  return std::move(page.rows);
}

void Administration::Status(const Json::Value& request, Json::Value& response) {
  const Page<UsageRow> page = store.Usage(After(request));
  const std::chrono::nanoseconds uptime =
      std::chrono::steady_clock::now().time_since_epoch() - std::chrono::nanoseconds(board.started);
  response["version"] = version;
  response["uptime"] =
      Json::Int64{std::chrono::duration_cast<std::chrono::seconds>(uptime).count()};
  response["workers"] = Workers(board);
  response["requests"] = Requests(board);
  response["service_times"] = ServiceTimes(board);
  response["refusals"] = Refusals(board);
  response["waiting"] = Sum(board, &WorkerSlot::waiting);
  response["lines"] = Lines(board);
  response["store"] = store.GetStatistics();
  response["store"]["orphans"] = Sum(board, &WorkerSlot::orphans);
  response["usage"] = Formatted(page.rows);
  SetNext(page.next, response);
}

// The administrator's commands. Responses come in pages. Every page but the last has "next"; the
// request for the next page sends that value as "after".
#include "commands.h"
#include "daemon.h"
#include "json_member.h"
#include "report.h"

using namespace ZELT::TokenManager;

namespace {

Json::Value AskForPage(const Json::Value& request) {
  Json::Value response = SendToDaemon(request);
  if (TruthOf(MemberOrNull(response, "success"))) return response;
  const std::string reason = TextOf(MemberOrNull(response, "reason"));
  throw Failure(kRefused, reason.empty() ? std::string("the daemon refused") + kReasonInLog
                                         : "the daemon refused: " + reason);
}

// Calls `take` with each page of the answer to `request`.
template <typename Take>
void ForEachPage(Json::Value request, const Take& take) {
  for (;;) {
    const Json::Value page = AskForPage(request);
    take(page);
    const Json::Value& next = MemberOrNull(page, "next");
    if (next.isNull()) return;
    if (next == MemberOrNull(request, "after")) throw BrokenExchange(" (endless pages)");
    request["after"] = next;
  }
}

void Append(Json::Value& rows, const Json::Value& more) {
  for (const Json::Value& row : more) rows.append(row);
}

Json::Value MakeRequest(const char* type, const Arguments& arguments) {
  Json::Value request;
  request["type"] = type;
  if (!arguments.user.empty()) request["user"] = arguments.user;
  if (!arguments.service.empty()) request["service"] = arguments.service;
  if (arguments.orphans) request["orphans"] = true;
  if (arguments.all) request["all"] = true;
  for (const std::uint64_t id : arguments.ids) request["ids"].append(Json::UInt64{id});
  return request;
}

}  // namespace

Result List(const Arguments& arguments) {
  Result result;
  Json::Value& tokens = result.value["tokens"] = Json::arrayValue;
  ForEachPage(MakeRequest("list", arguments),
              [&](const Json::Value& page) { Append(tokens, MemberOrNull(page, "tokens")); });
  result.text = TokenTable(tokens);
  return result;
}

Result Show(const Arguments& arguments) {
  Json::Value request;
  request["type"] = "show";
  request["id"] = Json::UInt64{arguments.ids.front()};
  Result result;
  result.value["token"] = MemberOrNull(AskForPage(request), "token");
  result.text = TokenReport(result.value["token"]);
  return result;
}

Result Drop(const Arguments& arguments) {
  std::uint64_t dropped = 0;
  try {
    ForEachPage(MakeRequest("drop", arguments), [&](const Json::Value& page) {
      const Json::Value& more = MemberOrNull(page, "dropped");
      if (!more.isUInt64()) throw BrokenExchange("");
      dropped += more.asUInt64();
    });
  } catch (const Failure& failure) {
    if (dropped == 0) throw;
    throw Failure(failure.exit_code, std::string(failure.what()) + "; " + std::to_string(dropped) +
                                         " tokens had already been dropped");
  }
  Result result{
      .text = std::to_string(dropped) + (dropped == 1 ? " token" : " tokens") + " dropped",
      .value = {},
      .exit_code = dropped == 0 ? kRefused : 0};
  result.value["dropped"] = Json::UInt64{dropped};
  return result;
}

Result Status(const Arguments& arguments) {
  Result result;
  Json::Value& status = result.value;
  ForEachPage(MakeRequest("status", arguments), [&](const Json::Value& page) {
    if (status.isNull()) {
      status = page;
    } else {
      Append(status["usage"], MemberOrNull(page, "usage"));
    }
  });
  status.removeMember("next");
  result.text = arguments.prometheus ? PrometheusMetrics(status) : StatusReport(status);
  return result;
}

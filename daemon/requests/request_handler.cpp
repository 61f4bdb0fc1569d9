#include "request_handler.h"

#include <syslog.h>

#include <chrono>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "admission.h"
#include "json_member.h"
#include "kind_of_refusal.h"
#include "log.h"
#include "record.h"
#include "request_log.h"
#include "services.h"
#include "write_json.h"

using namespace ZELT::TokenManager;
using Clock = std::chrono::steady_clock;

namespace {

// Refusals contain nothing else, even if the operation had begun its response.
constexpr const char* kRefused = R"({"success":false})";
constexpr const char* kUnjudged = R"({"permitted":null,"success":false})";

constexpr std::string_view kNoPackage = "token_manager.cpp:66 ";  // what the library throws

const char* Name(RequestType type) { return kRequestTypeNames.at(static_cast<std::size_t>(type)); }

std::atomic<std::uint64_t>& CounterOf(RequestType type, auto& counters) {
  return counters.at(static_cast<std::size_t>(type));
}

// Whether the token's service was asked and threw. This is a promise to clients, so other errors
// after the manager had begun its response are not included: its own, and the lack of memory.
bool IsUnjudged(const Json::Value& response, const std::exception& refusal) {
  return response.isMember("permitted") && response["permitted"].isNull() &&
         dynamic_cast<const std::runtime_error*>(&refusal) != nullptr &&
         !std::string_view(refusal.what()).starts_with("token_manager.cpp:");
}

// Tells whoever holds a token what it permits, and nothing that identifies its owner. A token for
// another service gets the answer of an unknown one, and gets it before the owner is looked up,
// which takes long enough to be noticed.
void Inspect(TokenStore& store, const Json::Value& request, Json::Value& response) {
  const std::string token(StringMember(request, "token", "inspect:"));
  const std::string_view service = StringMember(request, "service", "inspect:");
  if (TextOf(MemberOrNull(store.GetAssociatedData(token), "service")) != service) {
    throw std::runtime_error("the token is for another service");
  }
  const TokenRow row = store.Inspect(token);
  response["requester"] = row.requester;
  response["age"] = Json::Int64{row.age.count()};
  if (row.expires_in) response["expires_in"] = Json::Int64{row.expires_in->count()};
  response["alive"] = row.alive;
  response["payload"] = row.payload;
}

// Leaves room for the newline that the server appends.
std::string Success(Json::Value& response) {
  response[Json::StaticString("success")] = true;
  std::string text = WriteJson(response);
  text.reserve(text.size() + 1);
  return text;
}

// Administrators are told the reason, and others that they are none. Other requests have it only in
// the log, because it may say what tokens and grants there are.
std::string Refused(RequestType type, const Json::Value& response,
                    const std::exception& refusal) try {
  if (SenderOf(type) != Sender::kAdministrator) {
    return IsUnjudged(response, refusal) ? kUnjudged : kRefused;
  }
  Json::Value answer;
  answer["success"] = false;
  answer["reason"] = refusal.what();
  return WriteJson(answer);
} catch (const std::exception&) {
  return kRefused;
}

}  // namespace

RequestHandler::RequestHandler(TokenStore& token_store, Board& shared_board,
                               WorkerSlot& worker_slot, RequestSettings request_settings,
                               std::shared_ptr<CacheStorage> cache)
    : store(token_store),
      board(shared_board),
      slot(worker_slot),
      settings(std::move(request_settings)),
      manager(settings.installed_config, {std::shared_ptr<void>(), &token_store}, std::move(cache)),
      administration(token_store, shared_board, settings.version) {
  AddServices(manager);
}

std::string RequestHandler::Answer(const Peer& peer, const std::string& text) {
  const Clock::time_point begun = Clock::now();
  slot.type = RequestType::kOther;
  slot.client_user = peer.credential.uid;
  slot.client_process = peer.credential.pid;
  slot.activity = Activity::kServing;
  Json::Value request;
  Json::Value response(Json::objectValue);
  std::string answer;
  try {
    answer = Handle(peer, text, request, response);
    ++CounterOf(slot.type, slot.done);
  } catch (const std::exception& refusal) {
    answer = Refused(slot.type, response, refusal);
    Refuse(peer, request, refusal);
  }
  const std::chrono::nanoseconds time = Clock::now() - begun;
  ++slot.times.at(TimeBucket(time));
  slot.time += static_cast<std::uint64_t>(time.count());
  slot.activity = Activity::kIdle;
  return answer;
}

void RequestHandler::EverySecond() {
  if (&slot == board.slots.data()) store.EverySecond();
}

std::string RequestHandler::Handle(const Peer& peer, const std::string& text, Json::Value& request,
                                   Json::Value& response) {
  ReadRequest(text, request);
  slot.type = TypeOf(request);
  ExpectSender(SenderOf(slot.type), peer);
  ExpectWholeToken(request);
  switch (slot.type) {
    case RequestType::kIssue:
    case RequestType::kRevoke:
    case RequestType::kTransfer:
    case RequestType::kDrop:
      return Change(peer, request, response);
    default:
      Look(peer, request, response);
      return Success(response);
  }
}

void RequestHandler::Look(const Peer& peer, Json::Value& request, Json::Value& response) {
  switch (slot.type) {
    case RequestType::kValidate:
      return manager.ValidateToken(peer.credential, request, response);
    case RequestType::kValidateMany:
      return manager.ValidateMany(peer.credential, request, response);
    case RequestType::kInspect:
      return Inspect(store, request, response);
    case RequestType::kList:
      return administration.List(request, response);
    case RequestType::kShow:
      return administration.Show(request, response);
    case RequestType::kStatus:
      return administration.Status(request, response);
    default:
      throw std::runtime_error("unknown type of request");
  }
}

// Whatever can fail comes before the commit: a change that lasts is never answered as refused.
std::string RequestHandler::Change(const Peer& peer, const Json::Value& request,
                                   Json::Value& response) {
  std::vector<std::string> audit;
  std::string answer;
  store.Change(peer, [&] {
    response = Json::objectValue;
    audit = CarryOut(peer, request, response);
    answer = Success(response);
  });
  for (const std::string& line : audit) Log(LOG_INFO, "%s", line.c_str());
  return answer;
}

// Returns what the audit says about it.
std::vector<std::string> RequestHandler::CarryOut(const Peer& peer, const Json::Value& request,
                                                  Json::Value& response) {
  std::string details;
  switch (slot.type) {
    case RequestType::kIssue:
      if (request.isMember("expires_in")) store.ExpireAfter(Lifetime(request["expires_in"]));
      Issue(peer, request, response);
      if (settings.audit) details = GrantsOf(response["token"].asString());
      break;
    case RequestType::kTransfer:
      manager.TransferToken(peer.credential, request, response);
      details = " to=" + TextOf(request["payload"]);
      break;
    case RequestType::kDrop:
      return AuditDrop(peer, administration.Drop(request, response));
    default:
      manager.RevokeToken(peer.credential, request, response);
  }
  if (!settings.audit) return {};
  const Json::Value& named = slot.type == RequestType::kIssue ? response : request;
  const std::uint64_t id = IdOf(KeyOf(named["token"].asString()));
  return {AuditLine(peer, Name(slot.type), id, TextOf(request["service"]), details)};
}

// Returns the grants of a new token for the audit.
std::string RequestHandler::GrantsOf(const std::string& token) const {
  return " grants=" + QuotedGrants(WriteJson(manager.GetAssociatedData(token)["payload"]));
}

void RequestHandler::Issue(const Peer& peer, const Json::Value& request, Json::Value& response) {
  ExpectFewGrants(request["payload"]);
  const uid_t user = peer.credential.uid;
  without_package.Refuse(user, Clock::now());
  try {
    manager.IssueToken(peer.credential, request, response);
  } catch (const std::runtime_error& refusal) {
    const bool has_no_package = std::string_view(refusal.what()).starts_with(kNoPackage);
    if (has_no_package) without_package.Remember(user, Clock::now());
    throw;
  }
}

std::vector<std::string> RequestHandler::AuditDrop(const Peer& peer,
                                                   const std::vector<TokenRow>& dropped) const {
  std::vector<std::string> lines;
  for (const TokenRow& token : dropped) {
    if (!settings.audit) break;
    lines.push_back(
        AuditLine(peer, "drop", token.id, token.service, " requester=" + token.requester));
  }
  return lines;
}

void RequestHandler::Refuse(const Peer& peer, const Json::Value& request,
                            const std::exception& refusal) {
  ++CounterOf(slot.type, slot.refused);
  ++slot.refusals.at(static_cast<std::size_t>(KindOf(refusal)));
  if (peer.lines != nullptr && !peer.lines->Take()) return;
  LogRefusal(peer, request, refusal);
}

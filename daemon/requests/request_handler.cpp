#include "request_handler.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "json_member.h"
#include "json_text.h"
#include "message.h"
#include "request_log.h"
#include "services.h"
#include "token_shape.h"

using namespace ZELT::TokenManager;
using Clock = std::chrono::steady_clock;

namespace {

enum class Sender { kAnybody, kProcess, kAdministrator };

// Maximum values in a request, which may name thousands of API methods or tasks. A message of
// maximum length could hold half a million, and block other requests while it is parsed and copied.
constexpr std::size_t kMaxValues = 10000;

// Refusals contain nothing else, even if the operation had begun its response.
constexpr const char* kRefused = R"({"success":false})";
constexpr const char* kCannotTell = R"({"permitted":null,"success":false})";

constexpr unsigned int kSecondsBetweenLooks = 60;  // each look reads a directory

bool HoldsTooManyValues(const std::string& text) {
  const auto begins_one = [](char c) { return c == ',' || c == '[' || c == '{'; };
  return text.size() > kMaxValues &&
         std::count_if(text.begin(), text.end(), begins_one) > std::ptrdiff_t{kMaxValues};
}

const char* Name(RequestType type) { return kRequestTypeNames.at(static_cast<std::size_t>(type)); }

std::atomic<std::uint64_t>& CounterOf(RequestType type, auto& counters) {
  return counters.at(static_cast<std::size_t>(type));
}

// The text store ends a token at a space and a line at a newline. Its cache ends a token at a NUL
// byte. A text with one of them would be one token to the store and another to the cache.
void ExpectWholeToken(const Json::Value& request) {
  const std::string_view token = StringView(request["token"]);
  if (token.size() > kLongestToken) throw std::runtime_error("the token is too long");
  if (token.find_first_of(std::string_view(" \n\0", 3)) != token.npos) {
    throw std::runtime_error("a token cannot contain a space, a newline or a NUL byte");
  }
}

// Checked early, because a service copies all requested grants before the store refuses the token.
void ExpectFewGrants(const Json::Value& payload) {
  if (payload.isArray() && payload.size() > kMaxGrants) {
    throw std::runtime_error("the request asks for more than 256 grants");
  }
  if (!payload.isObject()) return;
  for (const Json::Value& member : payload) {
    if (member.isArray()) ExpectFewGrants(member);
  }
}

void ExpectSender(Sender expected, const Peer& peer) {
  // All processes outside this pid namespace have this id (pid_namespaces(7)), so it cannot
  // identify an owner.
  if (expected == Sender::kProcess && peer.credential.pid == 0) {
    throw std::runtime_error("the peer has no process id in the daemon's pid namespace");
  }
  if (expected == Sender::kAdministrator && !Administration::IsAdministrator(peer)) {
    throw std::runtime_error("only root and the daemon's user may ask for this");
  }
}

}  // namespace

struct RequestHandler::Operation {
  RequestType type;
  Sender sender;  // who may send it
  void (RequestHandler::*run)(const Peer&, const Json::Value&, Json::Value&);
};

RequestHandler::RequestHandler(TokenStore& token_store, Board& shared_board,
                               WorkerSlot& worker_slot, RequestSettings request_settings,
                               std::shared_ptr<CacheStorage> cache)
    : store(token_store),
      board(shared_board),
      slot(worker_slot),
      settings(std::move(request_settings)),
      manager(settings.installed_config, {std::shared_ptr<void>(), &token_store}, std::move(cache)),
      administration(token_store, shared_board, settings.version),
      watch(settings.installed_config) {
  AddServices(manager);
}

std::string RequestHandler::Answer(const Peer& peer, const std::string& text) {
  const Clock::time_point begun = Clock::now();
  Set(slot.type, RequestType::kOther);
  Set(slot.client_user, peer.credential.uid);
  Set(slot.client_process, peer.credential.pid);
  Set(slot.activity, Activity::kServing);
  Json::Value request;
  Json::Value response(Json::objectValue);
  std::string answer;
  try {
    Handle(peer, text, request, response);
    answer = toString(response);
    Count(CounterOf(slot.type, slot.done));
  } catch (const std::exception& refusal) {
    answer = response.isMember("permitted") ? kCannotTell : kRefused;
    Refuse(peer, request, refusal.what());
  }
  Count(slot.times.at(TimeBucket(Clock::now() - begun)));
  Set(slot.activity, Activity::kIdle);
  return answer;
}

void RequestHandler::EverySecond() {
  if (&slot != board.slots.data()) return;
  store.KeepHouse();
  if (seconds_passed++ % kSecondsBetweenLooks == 0) watch.Look();
}

const RequestHandler::Operation& RequestHandler::Find(const Json::Value& request) {
  using Manager = ZELT::TokenManager::TokenManager;
  using This = RequestHandler;
  static constexpr std::array kOperations = {
      Operation{RequestType::kIssue, Sender::kProcess, &This::Change<&Manager::IssueToken>},
      Operation{RequestType::kValidate, Sender::kAnybody, &This::Ask<&Manager::ValidateToken>},
      Operation{RequestType::kRevoke, Sender::kProcess, &This::Change<&Manager::RevokeToken>},
      Operation{RequestType::kTransfer, Sender::kProcess, &This::Change<&Manager::TransferToken>},
      Operation{RequestType::kList, Sender::kAdministrator,
                &This::Administer<&Administration::List>},
      Operation{RequestType::kDrop, Sender::kAdministrator, &This::Drop},
      Operation{RequestType::kStatus, Sender::kAdministrator,
                &This::Administer<&Administration::Status>},
  };
  const std::string_view type = StringView(request["type"]);
  for (const Operation& operation : kOperations) {
    if (type == Name(operation.type)) return operation;
  }
  throw std::runtime_error("unknown type of request");
}

void RequestHandler::Handle(const Peer& peer, const std::string& text, Json::Value& request,
                            Json::Value& response) {
  if (text.size() > zeltdaemon::kMaxRequestBytes) throw std::runtime_error("too long");
  if (HoldsTooManyValues(text)) throw std::runtime_error("too many values");
  if (!fromString(text, request) || !request.isObject()) {
    throw std::runtime_error("not a JSON object");
  }
  const Operation& operation = Find(request);
  Set(slot.type, operation.type);
  ExpectSender(operation.sender, peer);
  ExpectWholeToken(request);
  if (operation.type == RequestType::kIssue) ExpectFewGrants(request["payload"]);
  (this->*operation.run)(peer, request, response);
  response[Json::StaticString("success")] = true;
}

template <auto kMethod>
void RequestHandler::Ask(const Peer& peer, const Json::Value& request, Json::Value& response) {
  (manager.*kMethod)(peer.credential, request, response);
}

template <auto kMethod>
void RequestHandler::Change(const Peer& peer, const Json::Value& request, Json::Value& response) {
  ::Change change(store, peer);
  (manager.*kMethod)(peer.credential, request, response);
  change.Commit();
  Audit(peer, request);
}

template <auto kMethod>
void RequestHandler::Administer(const Peer& /*peer*/, const Json::Value& request,
                                Json::Value& response) {
  (administration.*kMethod)(request, response);
}

void RequestHandler::Drop(const Peer& peer, const Json::Value& request, Json::Value& response) {
  const Json::Value dropped = administration.Drop(request, response);
  if (!settings.audit) return;
  for (const Json::Value& token : dropped) {
    LogChange(peer, "drop", token["id"].asUInt64(), TextOf(token["service"]),
              " requester=" + TextOf(token["requester"]));
  }
}

void RequestHandler::Audit(const Peer& peer, const Json::Value& request) const {
  if (!settings.audit) return;
  const bool transferred = slot.type == RequestType::kTransfer;
  LogChange(peer, Name(slot.type), store.ChangedId(), TextOf(request["service"]),
            transferred ? " to=" + TextOf(request["payload"]) : "");
}

void RequestHandler::Refuse(const Peer& peer, const Json::Value& request,
                            const std::string& reason) {
  Count(CounterOf(slot.type, slot.refused));
  if (peer.lines != nullptr && !peer.lines->Take()) return;
  const bool issues = slot.type == RequestType::kIssue;
  LogRefusal(peer, request,
             issues ? Explain(reason, peer.credential.uid, settings.installed_config)
                    : Refusal{reason, ""});
}

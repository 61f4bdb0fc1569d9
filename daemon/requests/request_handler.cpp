#include "request_handler.h"

#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <stdexcept>
#include <string_view>

#include "json_text.h"
#include "zelttokenmanager/utils.h"

using ZELT::TokenManager::fromString;
using ZELT::TokenManager::GetPeerCredential;
using ZELT::TokenManager::TokenManager;
using ZELT::TokenManager::toString;

struct RequestHandler::Operation {
  void (*run)(TokenManager&, const ucred&, const Json::Value&, Json::Value&);
  bool by_owner = false;   // who has to have a process id
  bool removes = false;    // a record
  bool reinserts = false;  // it: failing half-way, the token would be lost
};

namespace {

// Values in a request: some thousand API methods or tasks. A message of the greatest length could
// hold half a million, and keep everybody waiting while it is parsed and copied.
constexpr std::size_t kMaxValues = 10000;

bool HoldsTooManyValues(const std::string& text) {
  const auto begins_one = [](char c) { return c == ',' || c == '[' || c == '{'; };
  return text.size() > kMaxValues &&
         std::count_if(text.begin(), text.end(), begins_one) > std::ptrdiff_t{kMaxValues};
}

constexpr std::size_t kShortestToken = 32;
constexpr std::size_t kLongestToken = 64;
constexpr std::size_t kLongestLoggedText = 256;

// A client that mixes up its arguments must not have its token logged: whatever could be one is
// left out. As JSON text, because a client's line breaks must not look like lines of the log.
std::string Loggable(std::string_view text) {
  const auto in_token = [](unsigned char c) {
    return std::isalnum(c) != 0 || c == '-' || c == '_';
  };
  std::string loggable;
  for (auto next = text.begin(); next != text.end() && loggable.size() < kLongestLoggedText;) {
    const auto end = std::find_if_not(next, text.end(), in_token);
    const std::string_view word(next, end);
    loggable += word.size() < kShortestToken ? word : "...";
    next = end;
    if (next != text.end()) loggable += *next++;
  }
  return toString(loggable);
}

std::string LoggableMember(const Json::Value& request, const char* member) {
  if (!request.isObject() || !request[member].isString()) return "none";
  return Loggable(request[member].asString());
}

void LogRefusal(int connection, const Json::Value& request, std::string_view reason) {
  ucred peer{.pid = -1, .uid = static_cast<uid_t>(-1), .gid = static_cast<gid_t>(-1)};
  try {
    peer = GetPeerCredential(connection);
  } catch (const std::runtime_error&) {  // the refusal is logged all the same
  }
  syslog(LOG_NOTICE, "refused type=%s service=%s pid=%d uid=%u reason=%s",
         LoggableMember(request, "type").c_str(), LoggableMember(request, "service").c_str(),
         peer.pid, peer.uid, Loggable(reason).c_str());
}

// The store ends a token at a space and a line at a newline, the cache ends a token at a NUL byte:
// with one of them in it, a text would mean one token to the store and another to the cache.
void ExpectWholeToken(const Json::Value& request) {
  const char* begin = nullptr;
  const char* end = nullptr;
  if (!request["token"].getString(&begin, &end)) return;
  const std::string_view token(begin, end);
  // Looking it up takes room in the cache, for which others' records would go.
  if (token.size() > kLongestToken) throw std::runtime_error("the token is too long");
  const auto holds = [token](char c) { return token.find(c) != token.npos; };
  if (holds(' ') || holds('\n') || holds('\0')) {
    throw std::runtime_error("no token holds a space, a newline or a NUL byte");
  }
}

}  // namespace

RequestHandler::RequestHandler(TokenManager& token_manager, SafeStore& store,
                               SharedState& shared_state)
    : manager(token_manager), safe_store(store), shared(shared_state) {}

std::string RequestHandler::Answer(int connection, const std::string& text) {
  Json::Value request;
  Json::Value response(Json::objectValue);
  response["success"] = false;
  try {
    if (HoldsTooManyValues(text)) throw std::runtime_error("too many values");
    if (!fromString(text, request) || !request.isObject()) {
      throw std::runtime_error("not a JSON object");
    }
    Handle(connection, request, response);
  } catch (const std::exception& refusal) {
    response["success"] = false;
    LogRefusal(connection, request, refusal.what());
  }
  if (!shared.answered) shared.answered = true;  // a write would take the line from the others
  return toString(response);
}

void RequestHandler::Handle(int connection, const Json::Value& request, Json::Value& response) {
  static const std::map<std::string, Operation> operations = {
      {"issue", {.run = [](auto& m, auto&... args) { m.IssueToken(args...); }, .by_owner = true}},
      {"validate", {.run = [](auto& m, auto&... args) { m.ValidateToken(args...); }}},
      {"revoke",
       {.run = [](auto& m, auto&... args) { m.RevokeToken(args...); },
        .by_owner = true,
        .removes = true}},
      {"transfer",
       {.run = [](auto& m, auto&... args) { m.TransferToken(args...); },
        .by_owner = true,
        .removes = true,
        .reinserts = true}},
  };
  const Json::Value& type = request["type"];
  const auto found = operations.find(type.isString() ? type.asString() : "");
  if (found == operations.end()) throw std::runtime_error("unknown type of request");

  const ucred peer = GetPeerCredential(connection);
  // Processes of a foreign pid namespace all have this id here, so it cannot own anything.
  if (found->second.by_owner && peer.pid == 0) {
    throw std::runtime_error("the peer's process has no id here");
  }
  ExpectWholeToken(request);
  Run(found->second, peer, request, response);
}

void RequestHandler::Run(const Operation& operation, const ucred& peer, const Json::Value& request,
                         Json::Value& response) {
  if (operation.removes) safe_store.BeginRemoval(operation.reinserts);
  try {
    operation.run(manager, peer, request, response);
  } catch (...) {
    safe_store.Rollback();
    throw;
  }
  safe_store.Commit();
}

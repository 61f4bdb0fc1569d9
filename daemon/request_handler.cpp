#include "request_handler.h"

#include <sys/socket.h>
#include <sysexits.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "json_text.h"
#include "zelttokenmanager/utils.h"

using ZELT::TokenManager::fromString;
using ZELT::TokenManager::GetPeerCredential;
using ZELT::TokenManager::TokenManager;
using ZELT::TokenManager::toString;

struct RequestHandler::Operation {
  void (*run)(TokenManager&, const ucred&, const Json::Value&, Json::Value&);
  bool changes;     // something that is kept
  bool needs_undo;  // failing half-way, it would lose the token
};

namespace {

// Values in a request: some thousand API methods or tasks. A message of the greatest length could
// hold half a million, and keep everybody waiting while it is parsed and copied.
constexpr std::ptrdiff_t kMaxValues = 10000;

bool BeginsAValue(char c) { return c == ',' || c == '[' || c == '{'; }

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
  if (!request["token"].isString()) return;
  const std::string token = request["token"].asString();
  // Looking it up takes room in the cache, for which others' records would go.
  if (token.size() > kLongestToken) throw std::runtime_error("the token is too long");
  if (token.find_first_of(std::string_view(" \n\0", 3)) != std::string::npos) {
    throw std::runtime_error("no token holds a space, a newline or a NUL byte");
  }
}

}  // namespace

RequestHandler::RequestHandler(TokenManager& token_manager, std::shared_ptr<SafeStore> store,
                               SharedState& shared_state, WorkersLock& lock)
    : manager(token_manager),
      safe_store(std::move(store)),
      shared(shared_state),
      workers_lock(lock) {}

std::string RequestHandler::Answer(int connection, const std::string& text) {
  Json::Value request;
  Json::Value response(Json::objectValue);
  response["success"] = false;
  try {
    if (std::count_if(text.begin(), text.end(), BeginsAValue) > kMaxValues) {
      throw std::runtime_error("too many values");
    }
    if (!fromString(text, request) || !request.isObject()) {
      throw std::runtime_error("not a JSON object");
    }
    Handle(connection, request, response);
  } catch (const std::exception& refusal) {
    response["success"] = false;
    LogRefusal(connection, request, refusal.what());
  }
  shared.answered = true;
  return toString(response);
}

void RequestHandler::Handle(int connection, const Json::Value& request, Json::Value& response) {
  static const std::map<std::string, Operation> operations = {
      {"issue",
       {.run = [](auto& m, auto&... args) { m.IssueToken(args...); },
        .changes = true,
        .needs_undo = false}},
      {"validate",
       {.run = [](auto& m, auto&... args) { m.ValidateToken(args...); },
        .changes = false,
        .needs_undo = false}},
      {"revoke",
       {.run = [](auto& m, auto&... args) { m.RevokeToken(args...); },
        .changes = true,
        .needs_undo = false}},
      {"transfer",
       {.run = [](auto& m, auto&... args) { m.TransferToken(args...); },
        .changes = true,
        .needs_undo = true}},
  };
  const Json::Value& type = request["type"];
  const auto found = operations.find(type.isString() ? type.asString() : "");
  if (found == operations.end()) throw std::runtime_error("unknown type of request");

  const ucred peer = GetPeerCredential(connection);
  // Processes of a foreign pid namespace all have this id here, so it cannot own anything.
  if (found->second.changes && peer.pid == 0) {
    throw std::runtime_error("the peer's process has no id here");
  }
  ExpectWholeToken(request);
  Run(found->second, peer, request, response);
}

void RequestHandler::Run(const Operation& operation, const ucred& peer, const Json::Value& request,
                         Json::Value& response) {
  const WorkersLock::Guard lock(workers_lock, operation.changes);
  if (shared.changing) _exit(EX_TEMPFAIL);
  if (!operation.changes) return operation.run(manager, peer, request, response);

  shared.changing = true;
  safe_store->AllowUncopied(!operation.needs_undo);
  try {
    operation.run(manager, peer, request, response);
  } catch (...) {
    safe_store->Rollback();
    shared.changing = false;
    throw;
  }
  // Should one of these throw, the change counts as cut short: the next generation undoes it.
  safe_store->Commit();
  shared.changing = false;
}

#include "admission.h"

#include <algorithm>
#include <span>
#include <stdexcept>
#include <string_view>

#include "administration.h"
#include "daemon_socket.h"
#include "json_member.h"
#include "message.h"
#include "strict_json.h"
#include "token_shape.h"
#include "token_store.h"

using namespace ZELT::TokenManager;

namespace {

// Maximum values in a request, which may name thousands of API methods or tasks. A request
// of maximum length could hold 65,000, and block others while it is parsed and copied.
constexpr std::size_t kMaxValues = 10000;

bool HoldsTooManyValues(const std::string& text) {
  const auto begins_one = [](char c) { return c == ',' || c == '[' || c == '{'; };
  return text.size() > kMaxValues &&
         std::count_if(text.begin(), text.end(), begins_one) > std::ptrdiff_t{kMaxValues};
}

}  // namespace

void ReadRequest(const std::string& text, Json::Value& request) {
  if (text.size() > zeltdaemon::kMaxRequestBytes) throw std::runtime_error("too long");
  if (HoldsTooManyValues(text)) throw std::runtime_error("too many values");
  if (!ReadStrictJson(text, request) || !request.isObject()) {
    throw std::runtime_error("not a JSON object");
  }
}

RequestType TypeOf(const Json::Value& request) {
  const std::string_view name = StringView(request["type"]);
  const auto known =
      std::span(kRequestTypeNames).first(static_cast<std::size_t>(RequestType::kOther));
  return static_cast<RequestType>(std::find(known.begin(), known.end(), name) - known.begin());
}

Sender SenderOf(RequestType type) {
  switch (type) {
    case RequestType::kIssue:
    case RequestType::kRevoke:
    case RequestType::kTransfer:
      return Sender::kProcess;
    case RequestType::kList:
    case RequestType::kShow:
    case RequestType::kDrop:
    case RequestType::kStatus:
      return Sender::kAdministrator;
    case RequestType::kValidate:
    case RequestType::kValidateMany:
    case RequestType::kInspect:
    case RequestType::kOther:
      break;
  }
  return Sender::kAnybody;
}

void ExpectSender(Sender expected, const Peer& peer) {
  // All processes outside this pid namespace have this id (pid_namespaces(7)), so it cannot
  // identify an owner.
  if (expected == Sender::kProcess && peer.credential.pid == 0) {
    throw std::runtime_error("the peer has no process id in the daemon's pid namespace");
  }
  if (expected == Sender::kProcess && IsUnmapped(peer.credential.uid)) {
    throw std::runtime_error("the peer's user id is not mapped in the daemon's user namespace");
  }
  if (expected == Sender::kAdministrator && !Administration::IsAdministrator(peer)) {
    throw std::runtime_error("only root and the daemon's user may ask for this");
  }
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

void ExpectFewGrants(const Json::Value& payload) {
  if (payload.isArray() && payload.size() > kMaxGrants) {
    throw std::runtime_error("the request asks for more than 256 grants");
  }
  if (!payload.isObject()) return;
  for (const Json::Value& member : payload) {
    if (member.isArray()) ExpectFewGrants(member);
  }
}

std::chrono::seconds Lifetime(const Json::Value& seconds) {
  const bool is_integer = seconds.type() == Json::intValue || seconds.type() == Json::uintValue;
  if (!is_integer || !seconds.isInt64() || seconds.asInt64() <= 0) {
    throw std::runtime_error("\"expires_in\" is not a positive integer");
  }
  return std::chrono::seconds(seconds.asInt64());
}

#pragma GCC visibility push(default)
#include "zelttoken.h"
#pragma GCC visibility pop

#include <algorithm>
#include <cerrno>
#include <new>
#include <string>

#include "daemon_connection.h"
#include "json.h"
#include "json_member.h"
#include "json_text.h"
#include "message.h"
#include "token_shape.h"

namespace {

using namespace ZELT::TokenManager;

static_assert(ZELT_TOKEN_SIZE == kLongestToken + 1);

// Calls `call`, which returns a code. Its exceptions are thrown before anything is sent.
template <typename Call>
int Guarded(const Call& call) noexcept {
  const int error = errno;
  int result = ZELT_UNAVAILABLE;
  try {
    result = call();
  } catch (const std::bad_alloc&) {
  } catch (...) {  // the request cannot be written as JSON
    result = ZELT_INVALID;
  }
  errno = error;
  return result;
}

// Sends a request and returns what `judge` makes of the answer.
template <typename Judge>
int Ask(const Json::Value& request, const Judge& judge) {
  const std::string text = toString(request);
  if (text.size() > zeltdaemon::kMaxRequestBytes || !IsUtf8(text)) return ZELT_INVALID;
  const auto connection = ConnectToDaemon();
  if (!connection) return ZELT_UNAVAILABLE;
  try {
    std::string received;
    Json::Value answer;
    const bool is_answered = connection->Send(text) && connection->Recv(received) &&
                             ReadStrictly(received, answer) && answer.isObject();
    return is_answered ? judge(answer) : ZELT_INTERRUPTED;
  } catch (...) {
    return ZELT_INTERRUPTED;
  }
}

bool IsTrue(const Json::Value& value) { return value.isBool() && value.asBool(); }

int Succeeded(const Json::Value& answer) {
  return IsTrue(MemberOrNull(answer, "success")) ? ZELT_OK : ZELT_REFUSED;
}

bool IsMalformed(const Json::Value& answer) {
  return MemberOrNull(answer, "success") == Json::Value(false) && answer.isMember("permitted") &&
         MemberOrNull(answer, "permitted").isNull();
}

int Issued(const Json::Value& answer, char* token) {
  if (Succeeded(answer) != ZELT_OK) return ZELT_REFUSED;
  const Json::Value& member = MemberOrNull(answer, "token");
  if (!member.isString() || !IsTokenShaped(StringView(member))) return ZELT_INTERRUPTED;
  const std::string_view text = StringView(member);
  *std::copy(text.begin(), text.end(), token) = '\0';
  return ZELT_OK;
}

int Validated(const Json::Value& answer, bool& permitted) {
  if (IsMalformed(answer)) return ZELT_MALFORMED;
  if (Succeeded(answer) != ZELT_OK) return ZELT_REFUSED;
  const Json::Value& member = MemberOrNull(answer, "permitted");
  if (!member.isBool()) return ZELT_INTERRUPTED;
  permitted = member.asBool();
  return ZELT_OK;
}

Json::Value Request(const char* type, const char* service, const Json::Value& payload) {
  Json::Value request(Json::objectValue);
  request["type"] = type;
  request["service"] = service;
  request["payload"] = payload;
  return request;
}

Json::Value Request(const char* type, const char* service, const Json::Value& payload,
                    const char* token) {
  Json::Value request = Request(type, service, payload);
  request["token"] = token;
  return request;
}

// For the requests whose answer is only "success".
int Change(const char* type, const char* service, const char* token, const Json::Value& payload) {
  return Ask(Request(type, service, payload, token), Succeeded);
}

}  // namespace

int zelt_issue(const char* service, const char* payload, char token[ZELT_TOKEN_SIZE]) {
  if (token == nullptr) return ZELT_INVALID;
  token[0] = '\0';
  return Guarded([&]() -> int {
    Json::Value wanted;
    if (service == nullptr || payload == nullptr || !ReadStrictly(payload, wanted)) {
      return ZELT_INVALID;
    }
    return Ask(Request("issue", service, wanted),
               [token](const Json::Value& answer) { return Issued(answer, token); });
  });
}

int zelt_validate(const char* service, const char* token, const char* payload, bool* permitted) {
  if (permitted == nullptr) return ZELT_INVALID;
  *permitted = false;
  return Guarded([&]() -> int {
    Json::Value use;
    if (service == nullptr || token == nullptr || payload == nullptr ||
        !ReadStrictly(payload, use)) {
      return ZELT_INVALID;
    }
    return Ask(Request("validate", service, use, token),
               [permitted](const Json::Value& answer) { return Validated(answer, *permitted); });
  });
}

int zelt_revoke(const char* service, const char* token) {
  if (service == nullptr || token == nullptr) return ZELT_INVALID;
  return Guarded([&] { return Change("revoke", service, token, Json::Value()); });
}

int zelt_transfer(const char* service, const char* token, pid_t new_owner) {
  if (service == nullptr || token == nullptr || new_owner < 1) return ZELT_INVALID;
  return Guarded([&] { return Change("transfer", service, token, new_owner); });
}

const char* zelt_error_text(int error) {
  switch (error) {
    case ZELT_OK:
      return "the request was carried out";
    case ZELT_REFUSED:
      return "the daemon refused the request";
    case ZELT_UNAVAILABLE:
      return "the daemon cannot be reached";
    case ZELT_INTERRUPTED:
      return "no valid answer arrived, and the request may have been carried out";
    case ZELT_INVALID:
      return "an argument cannot be sent";
    case ZELT_MALFORMED:
      return "the payload cannot be judged";
    default:
      return "unknown error code";
  }
}

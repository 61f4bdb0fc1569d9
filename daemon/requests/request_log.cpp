#include "request_log.h"

#include <syslog.h>

#include <algorithm>
#include <string_view>

#include "json_member.h"
#include "log.h"
#include "token_shape.h"

using namespace ZELT::TokenManager;

namespace {

constexpr std::size_t kLongestLoggedText = 256;   // bytes
constexpr std::size_t kLongestLoggedCause = 512;  // bytes; mostly paths, no client text

// Returns a JSON string, except for control characters, which Log escapes.
std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c != '\0' ? std::string_view(&c, 1) : "\\u0000";
  }
  return quoted + '"';
}

// A client may send a token in the wrong place. Text that could be a token is left out.
std::string Loggable(std::string_view text) {
  std::string loggable;
  for (auto next = text.begin(); next != text.end() && loggable.size() < kLongestLoggedText;) {
    const auto end = std::find_if_not(next, text.end(), IsTokenCharacter);
    const std::string_view word(next, end);
    loggable += word.size() < kShortestToken ? word : "...";
    next = end;
    if (next != text.end()) loggable += *next++;
  }
  return Quoted(loggable);
}

std::string LoggableMember(const Json::Value& request, const char* member) {
  const Json::Value& value = MemberOrNull(request, member);
  return value.isString() ? Loggable(value.asString()) : "none";
}

}  // namespace

void LogRefusal(const Peer& peer, const Json::Value& request, const Refusal& refusal) {
  const std::string cause =
      refusal.cause.empty() ? "" : " cause=" + Quoted(refusal.cause.substr(0, kLongestLoggedCause));
  Log(LOG_NOTICE, "refused type=%s service=%s pid=%d uid=%u reason=%s%s",
      LoggableMember(request, "type").c_str(), LoggableMember(request, "service").c_str(),
      peer.credential.pid, peer.credential.uid, Loggable(refusal.reason).c_str(), cause.c_str());
}

std::string AuditLine(const Peer& peer, const char* what, std::uint64_t id,
                      const std::string& service, const std::string& details) {
  return std::string("audit ") + what + " id=" + std::to_string(id) +
         " service=" + Loggable(service) + " pid=" + std::to_string(peer.credential.pid) +
         " uid=" + std::to_string(peer.credential.uid) + details;
}

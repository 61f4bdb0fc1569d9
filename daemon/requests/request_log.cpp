#include "request_log.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>
#include <string_view>

#include "escaped_text.h"
#include "json_member.h"
#include "log.h"
#include "token_shape.h"

using namespace ZELT::TokenManager;

namespace {

constexpr std::size_t kLongestText = 256;     // bytes, escaped
constexpr std::size_t kLongestGrants = 1024;  // bytes, escaped; a line has at most 2 KiB
constexpr std::size_t kLongestCause = 512;    // bytes, escaped; mostly paths, no client text

// Text for a line of the log. Nothing here allocates memory, so that a refusal for lack of memory
// is logged too.
template <std::size_t kLongest = kLongestText>
using Text = std::array<char, kLongest + sizeof R"("")">;

// Returns a JSON string, except that some characters are escaped as Escape does it.
template <std::size_t kLongest = kLongestText>
Text<kLongest> Quoted(std::string_view text) {
  Text<kLongest> quoted{};
  const std::span<char> room(quoted.data() + 1, kLongest);
  const std::size_t size = Escape(text, room, Quotes::kEscaped).size();
  quoted.front() = quoted[size + 1] = '"';
  return quoted;
}

// A client may send a token in the wrong place. Text that could be a token is left out.
Text<> Loggable(std::string_view text) {
  std::array<char, kLongestText> loggable;  // NOLINT(*-member-init): written before it is read
  std::size_t size = 0;
  const auto append = [&](std::string_view piece) {
    size += piece.copy(loggable.data() + size, loggable.size() - size);
  };
  while (!text.empty() && size < loggable.size()) {
    const auto* const end = std::find_if_not(text.begin(), text.end(), IsTokenCharacter);
    const auto length = static_cast<std::size_t>(end - text.begin());
    append(length < kShortestToken ? text.substr(0, length) : "...");
    text.remove_prefix(length);
    append(text.substr(0, 1));
    text.remove_prefix(std::min<std::size_t>(text.size(), 1));
  }
  return Quoted({loggable.data(), size});
}

Text<> LoggableMember(const Json::Value& request, const char* member) {
  const Json::Value& value = MemberOrNull(request, member);
  return value.isString() ? Loggable(StringView(value)) : Text<>{"none"};
}

}  // namespace

std::string CauseOf(const std::exception& refusal) {
  try {
    std::rethrow_if_nested(refusal);
    return "";
  } catch (const std::exception& cause) {
    return cause.what();
  }
}

void LogRefusal(const Peer& peer, const Json::Value& request, const std::exception& refusal) {
  const std::string found = CauseOf(refusal);
  std::array<char, kLongestCause + 16> cause{};  // with its name
  if (!found.empty()) {
    const auto text = Quoted<kLongestCause>(found);
    std::snprintf(cause.data(), cause.size(), " cause=%s", text.data());
  }
  Log(LOG_NOTICE, "refused pid=%d uid=%u type=%s service=%s reason=%s%s", peer.credential.pid,
      peer.credential.uid, LoggableMember(request, "type").data(),
      LoggableMember(request, "service").data(), Loggable(refusal.what()).data(), cause.data());
}

std::string QuotedGrants(const std::string& grants) {
  return Quoted<kLongestGrants>(grants).data();
}

std::string AuditLine(const Peer& peer, const char* what, std::uint64_t id,
                      const std::string& service, const std::string& details) {
  return std::string("audit ") + what + " id=" + std::to_string(id) +
         " service=" + Loggable(service).data() + " pid=" + std::to_string(peer.credential.pid) +
         " uid=" + std::to_string(peer.credential.uid) + details;
}

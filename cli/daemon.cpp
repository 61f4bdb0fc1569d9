#include "daemon.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

#include "daemon_connection.h"
#include "json_text.h"

using namespace ZELT::TokenManager;

namespace {

std::string NameOf(uid_t user) {
  const passwd* entry = getpwuid(user);
  return entry != nullptr ? entry->pw_name : "uid " + std::to_string(user);
}

constexpr std::size_t kLongestPayload = 4096;  // bytes to type or paste

// Returns `text` as one word for a shell.
std::string ShellWord(const std::string& text) {
  const auto is_plain = [](unsigned char c) {
    return std::isalnum(c) != 0 || c == '_' || c == '.';
  };
  if (!text.empty() && std::all_of(text.begin(), text.end(), is_plain)) return text;
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? "'\\''" : std::string{c};
  return word + "'";
}

std::string CheckCommand(const std::string& service, const Json::Value& payload) {
  const passwd* entry = getpwuid(geteuid());
  const std::string user = entry != nullptr ? entry->pw_name : std::to_string(geteuid());
  const std::string text = toString(payload);
  return "zelttokenmgrd --check " + ShellWord(user) + " " + ShellWord(service) + " " +
         (text.size() > kLongestPayload ? "PAYLOAD" : ShellWord(text));
}

// Returns an empty string if no other user's file is at the daemon's addresses.
std::string ForeignSockets() {
  std::string text;
  for (const char* path : kSocketPaths) {
    const auto owner = ForeignOwner(path);
    if (owner && !IsUnmapped(*owner)) {
      text += std::string("; ") + path + " belongs to " + NameOf(*owner) + ", not to the daemon";
    }
  }
  return text;
}

bool IsOwnerUnknown() {
  return std::any_of(kSocketPaths.begin(), kSocketPaths.end(), [](const char* path) {
    const auto owner = ForeignOwner(path);
    return owner && IsUnmapped(*owner);
  });
}

std::string Advice() {
  const std::string foreign = ForeignSockets();
  if (!foreign.empty()) {
    return foreign + R"(: as root, remove it and run "systemctl restart zelttokenmgrd.socket )"
                     R"(zelttokenmgrd.service")";
  }
  if (IsOwnerUnknown()) {
    return "; the daemon's user id is not mapped in this user namespace, so nothing tells the "
           "daemon "
           "from others: run this outside, or map root's id and the daemon's";
  }
  return R"(; start it with "systemctl start zelttokenmgrd" or "zelttokenmgrd --stderr")";
}

}  // namespace

Failure Unreachable(const std::string& cause) {
  return {kUnavailable, "the daemon cannot be reached" + cause + Advice()};
}

Failure IssueRefused(const std::string& cause, const std::string& service,
                     const Json::Value& payload) {
  return {kRefused,
          "the daemon refused" + cause + "; to see why, run " + CheckCommand(service, payload)};
}

Failure BrokenExchange(const std::string& cause) {
  return {kUnavailable, "the exchange with the daemon failed" + cause + kReasonInLog};
}

Json::Value SendToDaemon(const Json::Value& request) {
  const auto connection = ConnectToDaemon();
  if (!connection) throw Unreachable("");
  std::string text;
  Json::Value response;
  if (!connection->Send(toString(request)) || !connection->Recv(text) ||
      !fromString(text, response) || !response.isObject()) {
    throw BrokenExchange("");
  }
  return response;
}

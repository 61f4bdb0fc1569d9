#include "daemon.h"

#include <pwd.h>

#include "daemon_connection.h"
#include "json_text.h"

using namespace ZELT::TokenManager;

namespace {

std::string NameOf(uid_t user) {
  const passwd* entry = getpwuid(user);
  return entry != nullptr ? entry->pw_name : "uid " + std::to_string(user);
}

// Returns an empty string if no other user's file is at the daemon's addresses.
std::string ForeignSockets() {
  std::string text;
  for (const char* path : kSocketPaths) {
    const auto owner = ForeignOwner(path);
    if (owner)
      text += std::string("; ") + path + " belongs to " + NameOf(*owner) + ", not to the daemon";
  }
  return text;
}

}  // namespace

Failure Unreachable(const std::string& cause) {
  const std::string foreign = ForeignSockets();
  const std::string advice =
      foreign.empty()
          ? R"(; start it with "systemctl start zelttokenmgrd" or "zelttokenmgrd --stderr")"
          : foreign + R"(: as root, remove it and run "systemctl restart zelttokenmgrd.socket )"
                      R"(zelttokenmgrd.service")";
  return {kUnavailable, "the daemon cannot be reached" + cause + advice};
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
      !fromString(text, response)) {
    throw BrokenExchange("");
  }
  return response;
}

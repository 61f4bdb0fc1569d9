#include "zelttokenmanager/utils.h"

#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string_view>

#include "daemon_socket.h"
#include "json_member.h"
#include "json_text.h"
#include "zeltdaemon/domain_sock_connection.h"
#include "zeltsystem/group.h"

namespace ZELT::TokenManager {
namespace {

constexpr int kAllGroups = 1;  // for QLIBGroupInfoListGet: primary and supplementary
constexpr char kGroupMark = '@';

using Groups = std::set<std::string, std::less<>>;

class DaemonConnection : public zeltdaemon::DomainSockConnection {
 public:
  explicit DaemonConnection(const char* socket_path)
      : DomainSockConnection(socket_path), path(socket_path) {}

  // Does not wait for a stranger whose backlog is full.
  bool ConnectToDaemon() {
    return !ForeignOwner(path) && Connect() && IsDaemonUser(GetPeerCredential(fd).uid);
  }

 private:
  const char* path;
};

Json::Value Exchange(DaemonConnection& connection, const Json::Value& request) {
  if (!connection.Send(toString(request))) {
    throw std::runtime_error("utils.cpp:65 failed to send request");
  }
  std::string text;
  Json::Value response;
  if (!connection.Recv(text) || !fromString(text, response)) {
    throw std::runtime_error("utils.cpp:72 failed to receive response");
  }
  return response;
}

Json::Value SendRequest(const Json::Value& request) {
  for (const char* path : kSocketPaths) {
    DaemonConnection connection(path);
    if (connection.ConnectToDaemon()) return Exchange(connection, request);
  }
  throw std::runtime_error("utils.cpp:62 failed to access domain socket");
}

Json::Value MakeRequest(const char* type, const std::string& service, const Json::Value& payload) {
  Json::Value request(Json::objectValue);
  request["type"] = type;
  request["service"] = service;
  request["payload"] = payload;
  return request;
}

Json::Value MakeRequest(const char* type, const std::string& service, const std::string& token,
                        const Json::Value& payload) {
  Json::Value request = MakeRequest(type, service, payload);
  request["token"] = token;
  return request;
}

bool Succeeded(const Json::Value& response) { return TruthOf(MemberOrNull(response, "success")); }

bool IsGroup(std::string_view identity) { return identity.starts_with(kGroupMark); }

Groups GroupsOfUser(const std::string& user) {
  // A name with a NUL byte would be looked up as the shorter name before it.
  const bool is_name = user.find('\0') == std::string::npos;
  const std::unique_ptr<QLIBCSzList, void (*)(QLIBCSzList*)> list(
      is_name ? QLIBGroupInfoListGet(user.c_str(), kAllGroups) : nullptr, QLIBCSzListFree);
  if (!list) throw std::runtime_error("utils.cpp:37 failed to lookup groups of user");
  Groups groups;
  while (const char* group = QLIBCSzListShift(list.get())) groups.emplace(group);
  return groups;
}

Groups GroupsOf(const std::string& identity) {
  if (IsGroup(identity)) return {identity.substr(1)};
  return GroupsOfUser(identity);
}

bool IsInList(const std::string& identity, const Json::Value& permitted) {
  const Groups groups = GroupsOf(identity);
  for (const Json::Value& element : permitted) {
    const std::string_view name = ExpectString(element, "utils.cpp:170");
    if (IsGroup(name) ? groups.contains(name.substr(1)) : name == identity) return true;
  }
  return false;
}

}  // namespace

std::string SendIssueRequest(const std::string& service, const Json::Value& payload) {
  const Json::Value response = SendRequest(MakeRequest("issue", service, payload));
  if (!Succeeded(response)) {
    throw std::runtime_error("utils.cpp:89 token manager cannot issue token");
  }
  return TextOf(MemberOrNull(response, "token"));
}

bool SendValidateRequest(const std::string& service, const std::string& token,
                         const Json::Value& payload) {
  const Json::Value response = SendRequest(MakeRequest("validate", service, token, payload));
  if (!Succeeded(response)) {
    throw std::runtime_error("utils.cpp:108 token manager cannot validate token");
  }
  return TruthOf(MemberOrNull(response, "permitted"));
}

bool SendRevokeRequest(const std::string& service, const std::string& token) {
  return Succeeded(SendRequest(MakeRequest("revoke", service, token, Json::nullValue)));
}

bool SendTransferRequest(const std::string& service, const std::string& token, int pid) {
  return Succeeded(SendRequest(MakeRequest("transfer", service, token, pid)));
}

ucred GetPeerCredential(int fd) {
  ucred credential{};
  socklen_t length = sizeof credential;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credential, &length) < 0) {
    throw std::runtime_error("utils.cpp:149 failed to get peer credential");
  }
  return credential;
}

bool IsIdentityInPermittedList(const std::string& identity, const Json::Value& permitted,
                               const std::string& requester) {
  if (permitted.isArray()) return IsInList(identity, permitted);
  if (!permitted.isString()) {
    throw std::runtime_error("utils.cpp:190 invalid type of permitted list");
  }
  return permitted.asString() == "any" || requester == identity;
}

}  // namespace ZELT::TokenManager

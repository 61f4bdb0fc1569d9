#include "zelttokenmanager/utils.h"

#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string_view>

#include "daemon_connection.h"
#include "json_member.h"
#include "json_text.h"
#include "zeltsystem/group.h"

namespace ZELT::TokenManager {
namespace {

using Groups = std::set<std::string, std::less<>>;

constexpr char kGroupMark = '@';
constexpr int kAllGroups = 1;  // for QLIBGroupInfoListGet: primary and supplementary

Json::Value SendRequest(const Json::Value& request) {
  const auto connection = ConnectToDaemon();
  if (!connection) throw std::runtime_error("utils.cpp:62 failed to access domain socket");
  if (!connection->Send(toString(request))) {
    throw std::runtime_error("utils.cpp:65 failed to send request");
  }
  std::string text;
  Json::Value response;
  if (!connection->Recv(text) || !fromString(text, response)) {
    throw std::runtime_error("utils.cpp:72 failed to receive response");
  }
  return response;
}

Json::Value MakeRequest(const char* type, const std::string& service, const Json::Value& payload) {
  Json::Value request(Json::objectValue);
  request[Json::StaticString("type")] = type;
  request[Json::StaticString("service")] = service;
  request[Json::StaticString("payload")] = payload;
  return request;
}

Json::Value MakeRequest(const char* type, const std::string& service, const std::string& token,
                        const Json::Value& payload) {
  Json::Value request = MakeRequest(type, service, payload);
  request[Json::StaticString("token")] = token;
  return request;
}

Json::Value MakeManyRequest(const std::string& service, const std::string& token,
                            const std::vector<Json::Value>& payloads) {
  Json::Value request(Json::objectValue);
  request[Json::StaticString("type")] = "validate_many";
  request[Json::StaticString("service")] = service;
  request[Json::StaticString("token")] = token;
  Json::Value& wanted = request[Json::StaticString("payloads")] = Json::arrayValue;
  for (const Json::Value& payload : payloads) wanted.append(payload);
  return request;
}

bool Succeeded(const Json::Value& response) { return TruthOf(MemberOrNull(response, "success")); }

Verdict VerdictOf(const Json::Value& permitted) {
  if (!permitted.isBool()) return Verdict::kMalformed;
  return permitted.asBool() ? Verdict::kPermitted : Verdict::kNotPermitted;
}

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

bool IsInList(const std::string& identity, const Json::Value& permitted) {
  const Groups groups = IsGroup(identity) ? Groups{identity.substr(1)} : GroupsOfUser(identity);
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

std::vector<Verdict> SendValidateManyRequest(const std::string& service, const std::string& token,
                                             const std::vector<Json::Value>& payloads) {
  const Json::Value response = SendRequest(MakeManyRequest(service, token, payloads));
  const Json::Value& permitted = MemberOrNull(response, "permitted");
  if (!Succeeded(response) || !permitted.isArray() || permitted.size() != payloads.size()) {
    throw std::runtime_error("utils.cpp:110 token manager cannot validate the payloads");
  }
  std::vector<Verdict> verdicts;
  for (const Json::Value& verdict : permitted) verdicts.push_back(VerdictOf(verdict));
  return verdicts;
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

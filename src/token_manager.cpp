#include "zelttokenmanager/token_manager.h"

#include <fcntl.h>
#include <json/value.h>
#include <unistd.h>

#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/path.hpp>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "json_member.h"
#include "json_text.h"
#include "packages.h"
#include "token_shape.h"
#include "zeltrandom/random.h"
#include "zeltsystem/user.h"

namespace ZELT::TokenManager {
namespace {

// jsoncpp copies all other names of members, twice.
const Json::StaticString kService("service");
const Json::StaticString kRequester("requester");
const Json::StaticString kPid("pid");
const Json::StaticString kCreatedAt("created_at");
const Json::StaticString kPayload("payload");
const Json::StaticString kPayloads("payloads");
const Json::StaticString kToken("token");
const Json::StaticString kSuccess("success");
const Json::StaticString kPermitted("permitted");

// A service judges all payloads of a request while other requests wait. Searching the largest
// record 256 times takes a tenth of a second; only looking up users in a slow directory takes
// longer.
constexpr unsigned int kMaxChecks = 256;
constexpr std::chrono::seconds kMaxCheckTime{1};

std::string UserName(uid_t uid) {
  // Freed also when there is none, as the platform demands after each lookup.
  struct Lookup {
    ~Lookup() { ZELTUserFree(user); }
    ZELTUser* user = nullptr;
  } lookup;
  if (ZELTUserGetLocalByUID(uid, &lookup.user) != 0) {
    throw std::runtime_error("token_manager.cpp:35 failed to get username from uid");
  }
  return lookup.user->name;
}

// Throws `error`. Who wants to know more finds `cause` nested in it (std::rethrow_if_nested).
[[noreturn]] void Throw(const char* error, const std::string& cause) {
  try {
    throw std::runtime_error(cause);
  } catch (...) {
    std::throw_with_nested(std::runtime_error(error));
  }
}

// Why no package was found: mistakes in privilege files, which make packages run as other users.
class Mistakes {
 public:
  void Add(const std::string& entry, const char* problem) {
    if (problem == nullptr || ++found > kNamed) return;
    text += std::string("; ") + kPackages + '/' + entry + '/' + kPrivilegeFile + ": " + problem;
  }
  std::string Text(const std::string& user) const {
    return std::string("no package in ") + kPackages + " runs as \"" + user + '"' + text;
  }

 private:
  static constexpr std::size_t kNamed = 3;  // more would only make the text longer

  std::size_t found = 0;
  std::string text;
};

std::string PackageOf(const std::string& user) {
  boost::filesystem::directory_iterator entries(kPackages);
  PrivilegeReader reader;
  Mistakes mistakes;
  for (const auto& each : entries) {
    const std::string entry = each.path().filename().native();
    const std::string_view package = PackageName(entry);
    const Privilege privilege = reader.Read(entry);
    if (user == (privilege.username.empty() ? package : privilege.username)) {
      return std::string(package);
    }
    mistakes.Add(entry, privilege.problem);
  }
  Throw("token_manager.cpp:66 failed to get package name from uid", mistakes.Text(user));
}

Json::Value RecordToValidate(const TokenManager& manager, const Json::Value& request) {
  const std::string token(StringMember(request, "token", "token_manager.cpp:120"));
  const std::string_view service = StringMember(request, "service", "token_manager.cpp:121");
  Json::Value data = manager.GetAssociatedData(token);
  if (StringMember(data, "service", "token_manager.cpp:127") != service) {
    throw std::runtime_error("token_manager.cpp:130 unmatched service");
  }
  return data;
}

// Returns null if the service cannot judge the payload in `request`.
Json::Value Judge(TokenService& service, const Json::Value& request, const Json::Value& data) {
  try {
    return service.Validate(request, data);
  } catch (const std::runtime_error&) {
    return {};
  }
}

void ExpectFewPayloads(const Json::Value& request) {
  if (ArrayMember(request, "payloads", "token_manager.cpp:132").size() > kMaxChecks) {
    throw std::runtime_error("token_manager.cpp:133 more than 256 payloads");
  }
}

Json::Int64 MonotonicTime() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

}  // namespace

TokenService::~TokenService() = default;

TokenManager::TokenManager(const std::string& config_directory,
                           std::shared_ptr<TokenStorage> token_store,
                           std::shared_ptr<CacheStorage> token_cache)
    : installed_config(config_directory),
      store(std::move(token_store)),
      cache(std::move(token_cache)) {}

void TokenManager::AddService(std::shared_ptr<TokenService> service) {
  const std::string name = service->GetName();
  if (services.contains(name)) {
    throw std::runtime_error("token_manager.cpp:79 service already exists in the manager");
  }
  services[name] = std::move(service);
}

void TokenManager::RemoveService(const std::string& name) { services.erase(name); }

std::shared_ptr<TokenService> TokenManager::GetService(const std::string& name) {
  const auto found = services.find(name);
  if (found == services.end()) throw std::runtime_error("token_manager.cpp:249 invalid service");
  return found->second;
}

std::string TokenManager::GenerateToken() const {
  RANDOM::ZELTRandom generator;
  const auto length = static_cast<unsigned int>(generator.random(kShortestToken, kLongestToken));
  std::string token;
  if (!generator.getString(RANDOM::POOL_URL_FRIENDLY, length, token)) {
    throw std::runtime_error("token_manager.cpp:205 failed to generate token");
  }
  return token;
}

Json::Value TokenManager::GetAssociatedData(const std::string& token) const {
  if (!cache) return store->GetAssociatedData(token);
  try {
    return cache->GetAssociatedData(token);
  } catch (const cache_miss&) {
    Json::Value data = store->GetAssociatedData(token);
    cache->Insert(token, data);
    return data;
  }
}

void TokenManager::InsertTokenInformation(const std::string& token, const Json::Value& data) const {
  store->Insert(token, data);
  if (cache) cache->Insert(token, data);
}

void TokenManager::RemoveTokenInformation(const std::string& token) const {
  if (cache) cache->Remove(token);
  store->Remove(token);
}

Json::Value TokenManager::GetInstalledConfig(const std::string& package) const {
  const std::string path = installed_config + "/" + package;
  Json::Value config;
  const FileProblem problem = JsonFileReader().Read(AT_FDCWD, path.c_str(), config);
  if (problem.text == nullptr) return config;
  Throw("token_manager.cpp:260 failed to get installed config", path + ": " + problem.text);
}

void TokenManager::IssueToken(const ucred& credential, const Json::Value& request,
                              Json::Value& response) {
  response[kSuccess] = false;
  const std::string service(StringMember(request, "service", "token_manager.cpp:95"));
  const std::string requester = UserName(credential.uid);
  const Json::Value config = GetInstalledConfig(PackageOf(requester));

  Json::Value data(Json::objectValue);
  data[kService] = service;
  data[kRequester] = requester;
  data[kPid] = credential.pid;
  data[kCreatedAt] = MonotonicTime();
  data[kPayload] = GetService(service)->Issue(request, MemberOrNull(config, service));

  const std::string token = GenerateToken();
  InsertTokenInformation(token, data);
  response[kToken] = token;
  response[kSuccess] = true;
}

void TokenManager::ValidateToken(const ucred& /*credential*/, const Json::Value& request,
                                 Json::Value& response) {
  Json::Value& success = response[kSuccess] = false;
  const Json::Value data = RecordToValidate(*this, request);
  Json::Value& permitted = response[kPermitted] = Json::nullValue;
  permitted = GetService(TextOf(data[kService]))->Validate(request, data);
  success = true;
}

void TokenManager::ValidateMany(const ucred& /*credential*/, Json::Value& request,
                                Json::Value& response) {
  response[kSuccess] = false;
  ExpectFewPayloads(request);
  const Json::Value data = RecordToValidate(*this, request);
  const auto service = GetService(TextOf(data[kService]));
  const auto deadline = std::chrono::steady_clock::now() + kMaxCheckTime;
  Json::Value permitted(Json::arrayValue);
  for (Json::Value& payload : request[kPayloads]) {
    request[kPayload].swap(payload);  // a copy would take as long as the check
    permitted.append(Judge(*service, request, data));
    if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("token_manager.cpp:134 the checks take longer than 1 s");
    }
  }
  response[kPermitted] = std::move(permitted);
  response[kSuccess] = true;
}

void TokenManager::RevokeToken(const ucred& credential, const Json::Value& request,
                               Json::Value& response) const {
  response[kSuccess] = false;
  const std::string token(StringMember(request, "token", "token_manager.cpp:142"));
  const std::string_view service = StringMember(request, "service", "token_manager.cpp:143");

  const Json::Value data = GetAssociatedData(token);
  const std::string_view stored_service = StringMember(data, "service", "token_manager.cpp:149");
  const int owner = IntMember(data, "pid", "token_manager.cpp:150");
  if (stored_service != service) {
    throw std::runtime_error("token_manager.cpp:153 unmatched service");
  }
  if (owner != credential.pid) throw std::runtime_error("token_manager.cpp:156 unmatched pid");

  RemoveTokenInformation(token);
  response[kSuccess] = true;
}

void TokenManager::TransferToken(const ucred& credential, const Json::Value& request,
                                 Json::Value& response) const {
  response[kSuccess] = false;
  const std::string token(StringMember(request, "token", "token_manager.cpp:168"));
  const std::string_view service = StringMember(request, "service", "token_manager.cpp:169");
  const int new_owner = IntMember(request, "payload", "token_manager.cpp:170");

  Json::Value data = GetAssociatedData(token);
  const std::string_view stored_service = StringMember(data, "service", "token_manager.cpp:177");
  const int owner = IntMember(data, "pid", "token_manager.cpp:178");
  if (stored_service != service) {
    throw std::runtime_error("token_manager.cpp:181 unmatched service");
  }
  if (owner != credential.pid) throw std::runtime_error("token_manager.cpp:184 unmatched pid");
  if (getpgid(new_owner) < 0) {
    throw std::runtime_error("token_manager.cpp:188 cannot transfer token ownership");
  }

  data[kPid] = new_owner;
  RemoveTokenInformation(token);
  InsertTokenInformation(token, data);
  response[kSuccess] = true;
}

}  // namespace ZELT::TokenManager

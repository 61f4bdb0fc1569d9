#include "zelttokenmanager/service/fastapi.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "grant.h"
#include "grant_search.h"
#include "json_member.h"

namespace ZELT::TokenManager {
namespace {

struct Method {
  std::string_view api;
  std::string_view name;

  bool operator==(const Method&) const = default;
};

struct MethodHash {
  std::size_t operator()(const Method& method) const {
    const std::hash<std::string_view> hash;
    return 31 * hash(method.api) + hash(method.name);
  }
};

Method MethodOf(const Json::Value& grant) {
  return {.api = StringMember(grant, "api", "service/fastapi.cpp:34"),
          .name = StringMember(grant, "method", "service/fastapi.cpp:35")};
}

}  // namespace

std::string FastAPI::GetName() { return "fastapi"; }

Json::Value FastAPI::Issue(const Json::Value& request, const Json::Value& privilege) {
  Json::Value granted(Json::arrayValue);
  const Json::Value& payload = ArrayMember(request, "payload", "service/fastapi.cpp:22");
  ExpectArray(privilege, "service/fastapi.cpp:23");
  GrantSearch<Method, MethodHash> search(privilege, MethodOf);
  for (const Json::Value& wanted : payload) {
    const std::string_view api = StringMember(wanted, "api", "service/fastapi.cpp:26");
    const std::string_view method = StringMember(wanted, "method", "service/fastapi.cpp:27");
    const Json::Value* const grant = search.Find({.api = api, .name = method});
    if (grant == nullptr) {
      throw std::runtime_error("service/fastapi.cpp:47 api=" + std::string(api) +
                               " method=" + std::string(method) + " is not on the permitted list");
    }
    granted.append(*grant);
  }
  return granted;
}

bool FastAPI::Validate(const Json::Value& request, const Json::Value& data) {
  const Json::Value& payload = ObjectMember(request, "payload", "service/fastapi.cpp:58");
  const std::string_view api = StringMember(payload, "api", "service/fastapi.cpp:59");
  const std::string_view method = StringMember(payload, "method", "service/fastapi.cpp:60");
  const std::string_view runner = StringMember(payload, "runner", "service/fastapi.cpp:61");
  for (const Json::Value& grant : ArrayMember(data, "payload", "service/fastapi.cpp:62")) {
    const std::string_view granted_api = StringMember(grant, "api", "service/fastapi.cpp:67");
    const std::string_view granted_method = StringMember(grant, "method", "service/fastapi.cpp:68");
    if (granted_api == api && granted_method == method) {
      return IsAdmitted(runner, grant, "runner", data);
    }
  }
  return false;
}

}  // namespace ZELT::TokenManager

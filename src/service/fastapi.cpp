#include "zelttokenmanager/service/fastapi.h"

#include <stdexcept>
#include <string>
#include <string_view>

#include "grant.h"
#include "json_member.h"

namespace ZELT::TokenManager {
namespace {

// Checks each grant when the search reaches it, so malformed grants after the match do no harm.
const Json::Value& FindGrant(const Json::Value& privilege, std::string_view api,
                             std::string_view method) {
  for (const Json::Value& grant : privilege) {
    const std::string_view granted_api = StringMember(grant, "api", "service/fastapi.cpp:34");
    const std::string_view granted_method = StringMember(grant, "method", "service/fastapi.cpp:35");
    if (granted_api == api && granted_method == method) return grant;
  }
  throw std::runtime_error("service/fastapi.cpp:47 api=" + std::string(api) +
                           " method=" + std::string(method) + " is not on the permitted list");
}

}  // namespace

std::string FastAPI::GetName() { return "fastapi"; }

Json::Value FastAPI::Issue(const Json::Value& request, const Json::Value& privilege) {
  Json::Value granted(Json::arrayValue);
  const Json::Value& payload = ArrayMember(request, "payload", "service/fastapi.cpp:22");
  ExpectArray(privilege, "service/fastapi.cpp:23");
  for (const Json::Value& wanted : payload) {
    const std::string_view api = StringMember(wanted, "api", "service/fastapi.cpp:26");
    const std::string_view method = StringMember(wanted, "method", "service/fastapi.cpp:27");
    granted.append(FindGrant(privilege, api, method));
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

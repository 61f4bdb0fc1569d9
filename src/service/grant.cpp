#include "service/grant.h"

#include "json_member.h"
#include "zelttokenmanager/utils.h"

namespace ZELT::TokenManager {

bool IsAdmitted(const std::string& identity, const Json::Value& grant, const std::string& list_name,
                const Json::Value& data) {
  static const Json::Value requester_only("requester");
  const Json::Value& permitted = grant.isMember(list_name) ? grant[list_name] : requester_only;
  return IsIdentityInPermittedList(identity, permitted, TextOf(MemberOrNull(data, "requester")));
}

}  // namespace ZELT::TokenManager

#include "service/grant.h"

#include "json_member.h"
#include "zelttokenmanager/utils.h"

namespace ZELT::TokenManager {

bool IsAdmitted(std::string_view identity, const Json::Value& grant, std::string_view list_name,
                const Json::Value& data) {
  const Json::Value requester_only(Json::StaticString("requester"));
  const Json::Value* list = grant.find(list_name.data(), list_name.data() + list_name.size());
  return IsIdentityInPermittedList(std::string(identity), list != nullptr ? *list : requester_only,
                                   TextOf(MemberOrNull(data, "requester")));
}

}  // namespace ZELT::TokenManager

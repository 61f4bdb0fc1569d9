// Whom a grant admits.
#pragma once

#include <json/value.h>

#include <string>
#include <string_view>

#include "json_member.h"
#include "zelttokenmanager/utils.h"

namespace ZELT::TokenManager {

/// Returns whether the permitted list that `grant` holds under `list_name` admits `identity`. A
/// grant without the list admits only the requester in the token's associated `data`.
inline bool IsAdmitted(std::string_view identity, const Json::Value& grant,
                       std::string_view list_name, const Json::Value& data) {
  const Json::Value requester_only(Json::StaticString("requester"));
  const Json::Value* list = grant.find(list_name.data(), list_name.data() + list_name.size());
  return IsIdentityInPermittedList(std::string(identity), list != nullptr ? *list : requester_only,
                                   TextOf(MemberOrNull(data, "requester")));
}

}  // namespace ZELT::TokenManager

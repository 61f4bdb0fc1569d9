// What the services share: whom a grant admits.
#pragma once

#include <json/value.h>

#include <string_view>

namespace ZELT::TokenManager {

/// Returns whether the permitted list that `grant` holds under `list_name` admits `identity`. A
/// grant without the list admits only the requester in the token's associated `data`.
bool IsAdmitted(std::string_view identity, const Json::Value& grant, std::string_view list_name,
                const Json::Value& data);

}  // namespace ZELT::TokenManager

// What the services share: whom a grant admits.
#pragma once

#include <json/value.h>

#include <string>

namespace ZELT::TokenManager {

/// Returns whether the permitted list that `grant` holds under `list_name` admits `identity`. A
/// grant without the list admits only the requester in the token's associated `data`.
bool IsAdmitted(const std::string& identity, const Json::Value& grant, const std::string& list_name,
                const Json::Value& data);

}  // namespace ZELT::TokenManager

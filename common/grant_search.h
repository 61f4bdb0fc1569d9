// The search for the grants that a request wants.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace ZELT::TokenManager {

/// Finds grants of a package, `installed`, by what identifies them. The whole search visits each of
/// them at most once, in order, however many grants a request wants: it remembers what it has
/// passed. It throws when it reaches a malformed grant, so malformed grants after the last one that
/// a request needs do no harm.
template <typename Key, typename Hash = std::hash<Key>>
class GrantSearch {
 public:
  /// `key_of` returns the key of a grant, a view into it, or throws if the grant is malformed.
  /// `installed_grants` is an array and must outlive the search.
  GrantSearch(const Json::Value& installed_grants, Key (*key_of)(const Json::Value& grant))
      : key_of_grant(key_of), next(installed_grants.begin()), end(installed_grants.end()) {}

  /// Returns the first grant with this key, or null if there is none.
  const Json::Value* Find(const Key& wanted) {
    if (const auto found = passed.find(wanted); found != passed.end()) return found->second;
    while (next != end) {
      const Json::Value& grant = *next;
      const Key key = key_of_grant(grant);
      ++next;
      passed.try_emplace(key, &grant);
      if (key == wanted) return &grant;
    }
    return nullptr;
  }

 private:
  Key (*key_of_grant)(const Json::Value&);
  Json::Value::const_iterator next;
  Json::Value::const_iterator end;
  std::unordered_map<Key, const Json::Value*, Hash> passed;
};

}  // namespace ZELT::TokenManager

// The groups of an identity, looked up once for all the permitted lists of a request.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace ZELT::TokenManager {

/// If a thread makes another one while it has one, both share the first one's result. None outlives
/// a request, so a change of groups counts from the next request on.
class GroupLookup {
 public:
  using Groups = std::set<std::string, std::less<>>;

  GroupLookup();
  ~GroupLookup();
  GroupLookup(const GroupLookup&) = delete;
  GroupLookup& operator=(const GroupLookup&) = delete;

  /// Returns the names of the groups of a user or, for "@" and a name, that name alone. The result
  /// is valid until another identity is asked for. Throws `std::runtime_error` when the groups of a
  /// user cannot be looked up.
  const Groups& Of(const std::string& identity);

 private:
  GroupLookup& first;
  std::optional<std::pair<std::string, Groups>> result;  // of the identity asked for last
};

}  // namespace ZELT::TokenManager

// The groups of an identity, looked up once for all the permitted lists of a request.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace ZELT::TokenManager {

/// If a thread has several of these objects, they share the result of the first one. None outlives
/// a request, so a change of groups takes effect with the next request.
class GroupLookup {
 public:
  using Groups = std::set<std::string, std::less<>>;

  GroupLookup();
  ~GroupLookup();
  GroupLookup(const GroupLookup&) = delete;
  GroupLookup& operator=(const GroupLookup&) = delete;

  /// Returns the names of the groups of a user or, for "@" and a name, that name alone. The result
  /// is valid until the next call with another identity. Throws `std::runtime_error` when the
  /// groups of a user cannot be looked up.
  const Groups& Of(const std::string& identity);

 private:
  GroupLookup& first;
  std::optional<std::pair<std::string, Groups>> result;  // of the last identity
};

}  // namespace ZELT::TokenManager

// The service "taskmanager": tokens that grant operations on tasks.
#pragma once

#include <json/value.h>

#include <string>

#include "../token_service.h"

namespace ZELT::TokenManager {

/// Grants and permits operations on tasks whose identifiers begin with a granted prefix.
///
/// A grant is {"prefix": string, "owner": permitted list}, where "owner" says for whose tasks the
/// token may act (see `IsIdentityInPermittedList`) and is "requester" when absent. Other members of
/// a grant are carried along unchanged.
///
/// Objects are stateless, and any number of threads may call them. Malformed input is a
/// `std::runtime_error`; grants after the one that decides are not checked.
class [[gnu::visibility("default")]] TaskManager : public TokenService {
 public:
  /// Returns "taskmanager".
  std::string GetName() override;

  /// Request: {"payload": {"action": "issue", "args": [{"prefix": string}, ...]}}; `privilege`:
  /// array of grants. Returns the first grant of exactly each requested prefix, in the order of the
  /// request. Throws `std::runtime_error` when one is not granted.
  Json::Value Issue(const Json::Value& request, const Json::Value& privilege) override;

  /// Request: {"payload": {"action": string, "args": object}}, the action being "create", "remove",
  /// "update", "read" or "list". Returns whether any stored grant passes the action's check below.
  /// Throws `std::runtime_error` for any other action.
  bool Validate(const Json::Value& request, const Json::Value& data) override;

  // The checks. Each takes the request's "args", one stored grant and the token's associated data.
  // If the grant covers the task, it returns whether the grant admits the task's owner, the string
  // "owner" of `args`.

  /// "remove", "update", "read": the string "task" of `args` begins with the grant's prefix.
  bool CheckTaskIdAndOwner(const Json::Value& args, const Json::Value& entry,
                           const Json::Value& data);

  /// "create": a string "prefix" of `args` equals the grant's; without one, the string "task" of
  /// `args` begins with it.
  bool CheckTaskInfoAndOwner(const Json::Value& args, const Json::Value& entry,
                             const Json::Value& data);

  /// "list": the string "prefix" of `args` equals the grant's.
  bool CheckTaskPrefixAndOwner(const Json::Value& args, const Json::Value& entry,
                               const Json::Value& data);
};

}  // namespace ZELT::TokenManager

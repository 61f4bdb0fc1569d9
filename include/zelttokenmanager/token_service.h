// The policy of a service: what its tokens grant and permit.
#pragma once

#include <json/value.h>

#include <string>

namespace ZELT::TokenManager {

/// Decides what a token for one service grants and what it permits.
///
/// Threads: a manager calls its services from the thread that runs the request. Both operations
/// receive JSON from outside, check its shape, and throw when it is malformed.
class [[gnu::visibility("default")]] TokenService {
 public:
  virtual ~TokenService();

  /// The name under which the manager registers the service: a request's "service".
  virtual std::string GetName() = 0;

  /// Returns the payload to be stored with a new token, made from the whole issue `request` and
  /// the service's member of the requesting package's installed configuration (null when it has
  /// none). Throws to refuse.
  virtual Json::Value Issue(const Json::Value& request, const Json::Value& privilege) = 0;

  /// Returns whether the token with the associated `data` permits the whole validate `request`.
  virtual bool Validate(const Json::Value& request, const Json::Value& data) = 0;
};

}  // namespace ZELT::TokenManager

// The service "fastapi": tokens that grant calls of API methods.
#pragma once

#include <json/value.h>

#include <string>

#include "../token_service.h"

namespace ZELT::TokenManager {

/// Grants and permits calls to named API methods.
///
/// A grant is {"api": string, "method": string, "runner": permitted list}, where "runner" says who
/// may run the method (see `IsIdentityInPermittedList`) and is "requester" when absent. Names are
/// compared byte for byte. Other members of a grant are carried along unchanged.
///
/// Objects are stateless, and any number of threads may call them. Malformed input is a
/// `std::runtime_error`; grants after the one that decides are not checked.
class [[gnu::visibility("default")]] FastAPI : public TokenService {
 public:
  /// Returns "fastapi".
  std::string GetName() override;

  /// Request: {"payload": [{"api": string, "method": string}, ...]}; `privilege`: array of grants.
  /// Returns the first matching grant for each requested method, in the order of the request.
  /// Throws `std::runtime_error` when one is not granted.
  Json::Value Issue(const Json::Value& request, const Json::Value& privilege) override;

  /// Request: {"payload": {"api": string, "method": string, "runner": string}}. Only the first
  /// stored grant of that method counts. Returns false if there is none.
  bool Validate(const Json::Value& request, const Json::Value& data) override;
};

}  // namespace ZELT::TokenManager

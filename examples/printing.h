// An example service, "printing": tokens that grant the use of printers.
#pragma once

#include <stdexcept>
#include <string>

#include "json_member.h"
#include "zelttokenmanager/token_service.h"
#include "zelttokenmanager/utils.h"

namespace ZELT::TokenManager {

/// A grant is {"printer": string, "user": permitted list}.
class Printing : public TokenService {
 public:
  std::string GetName() override { return "printing"; }

  /// Request: {"payload": the printer's name}. Returns the package's grant for that printer.
  Json::Value Issue(const Json::Value& request, const Json::Value& privilege) override {
    const std::string_view printer = StringMember(request, "payload", "printing: request:");
    ExpectArray(privilege, "printing: grants:");
    for (const Json::Value& grant : privilege) {
      if (StringMember(grant, "printer", "printing: grant:") == printer) return grant;
    }
    throw std::runtime_error("printing: " + std::string(printer) + " is not granted");
  }

  /// Request: {"payload": the user who prints}. `data["payload"]` is what Issue returned.
  bool Validate(const Json::Value& request, const Json::Value& data) override {
    const std::string user(StringMember(request, "payload", "printing: request:"));
    return IsIdentityInPermittedList(user, data["payload"].get("user", "requester"),
                                     data["requester"].asString());
  }
};

}  // namespace ZELT::TokenManager

// A service of one's own, "printing": tokens that grant the use of printers.
#pragma once

#include <zelttokenmanager/token_service.h>
#include <zelttokenmanager/utils.h>

#include <stdexcept>

/// A grant is {"printer": string, "user": permitted list}.
class Printing : public ZELT::TokenManager::TokenService {
 public:
  std::string GetName() override { return "printing"; }

  /// Request: {"payload": the printer's name}. Returns the package's grant of that printer.
  Json::Value Issue(const Json::Value& request, const Json::Value& privilege) override {
    const Json::Value& printer = String(request["payload"]);
    if (!privilege.isArray()) throw std::runtime_error("printing: nothing is granted");
    for (const Json::Value& grant : privilege) {
      if (grant.isObject() && grant["printer"] == printer) return grant;
    }
    throw std::runtime_error("printing: " + printer.asString() + " is not granted");
  }

  /// Request: {"payload": the user who prints}. `data` holds what Issue returned.
  bool Validate(const Json::Value& request, const Json::Value& data) override {
    const Json::Value& grant = data["payload"];
    return ZELT::TokenManager::IsIdentityInPermittedList(
        String(request["payload"]).asString(), grant["user"], data["requester"].asString());
  }

 private:
  static const Json::Value& String(const Json::Value& value) {
    if (!value.isString()) throw std::runtime_error("printing: a string is expected");
    return value;
  }
};

// An example service, "printing": tokens that grant the use of printers. It needs the installed
// headers only.
#pragma once

#include <zelttokenmanager/token_service.h>
#include <zelttokenmanager/utils.h>

#include <stdexcept>
#include <string>

/// A grant is {"printer": string, "user": permitted list}.
class Printing : public ZELT::TokenManager::TokenService {
 public:
  std::string GetName() override { return "printing"; }

  /// Request: {"payload": the printer's name}. Returns the package's grant for that printer.
  Json::Value Issue(const Json::Value& request, const Json::Value& privilege) override {
    const std::string printer = Text(request, "payload", "printing: request:");
    if (!privilege.isArray()) throw std::runtime_error("printing: the grants are not an array");
    for (const Json::Value& grant : privilege) {
      if (Text(grant, "printer", "printing: grant:") == printer) return grant;
    }
    throw std::runtime_error("printing: " + printer + " is not granted");
  }

  /// Request: {"payload": the user who prints}. `data["payload"]` is what Issue returned.
  bool Validate(const Json::Value& request, const Json::Value& data) override {
    const std::string user = Text(request, "payload", "printing: request:");
    const Json::Value& grant = data["payload"];
    return ZELT::TokenManager::IsIdentityInPermittedList(
        user, grant.isMember("user") ? grant["user"] : "requester",
        Text(data, "requester", "printing: token:"));
  }

 private:
  // Clients send what they like, and jsoncpp throws errors of its own for an unexpected type.
  static std::string Text(const Json::Value& object, const char* name, const std::string& where) {
    if (object.isObject() && object[name].isString()) return object[name].asString();
    throw std::runtime_error(where + " invalid type of \"" + name + "\", String expected");
  }
};

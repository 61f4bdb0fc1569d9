// Issues, validates, revokes and transfers tokens.
#pragma once

#include <json/value.h>
#include <sys/socket.h>

#include <map>
#include <memory>
#include <string>

#include "zelttokenmanager/token_service.h"
#include "zelttokenmanager/token_storage.h"

namespace ZELT::TokenManager {

/// What a token daemon does with requests. It has a persistent store, an optional cache in front of
/// it, and one policy object for each service.
///
/// The four request operations take the credential of the peer that asks, as the kernel reported
/// it (`SO_PEERCRED`, unix(7)), the request as it came, and the response to fill. They set the
/// response's "success" to false first and to true last. Every failure is an exception, mostly a
/// `std::runtime_error`; the exceptions of services, store and cache pass through unchanged.
///
/// A token's associated data is an object of exactly five members: "service" and "requester"
/// (strings: the service's name and the local user who asked), "pid" (integer: the owning process),
/// "created_at" (integer: nanoseconds of the monotonic clock, meaningless after a reboot) and
/// "payload" (made by the service).
///
/// Threads: the manager takes no lock. Services may be added and removed only while no request
/// runs. Requests may run concurrently as far as the store and the cache allow it.
class [[gnu::visibility("default")]] TokenManager {
 public:
  /// `config_directory` holds one JSON file for each installed package, with the package's name.
  /// `token_store` must not be empty. If `token_cache` is empty, there is no cache. Nothing is
  /// opened or checked here.
  TokenManager(const std::string& config_directory, std::shared_ptr<TokenStorage> token_store,
               std::shared_ptr<CacheStorage> token_cache);

  /// Registers `service` under its name. Throws `std::runtime_error` when the name is taken.
  void AddService(std::shared_ptr<TokenService> service);

  /// Removes the service of that name. An unknown name is not an error.
  void RemoveService(const std::string& name);

  /// Returns the service of that name. Throws `std::runtime_error` when there is none.
  std::shared_ptr<TokenService> GetService(const std::string& name);

  /// Returns 32 to 64 random characters that need no escaping in a URL. Throws
  /// `std::runtime_error` when the source of randomness fails.
  std::string GenerateToken() const;

  /// Reads through the cache: a value that the store had to supply is put into the cache.
  Json::Value GetAssociatedData(const std::string& token) const;

  /// Writes to the store, then to the cache.
  void InsertTokenInformation(const std::string& token, const Json::Value& data) const;

  /// Removes from the cache, then from the store.
  void RemoveTokenInformation(const std::string& token) const;

  /// Makes a token for the peer's process.
  ///
  /// Request: {"service": string, ...}; the service reads the rest. Response: "success", "token".
  /// An installed package must run as the peer's user: the first entry of "/var/packages" whose
  /// "conf/privilege" (of at most 64 KiB) names the user, or whose own name is the user's.
  void IssueToken(const ucred& credential, const Json::Value& request, Json::Value& response);

  /// Asks the service whether the request is permitted under the token. Any process may ask.
  ///
  /// Request: {"service": string, "token": string, ...}. Response: "success", "permitted". A
  /// service that refuses gives "success" true with "permitted" false.
  void ValidateToken(const ucred& credential, const Json::Value& request, Json::Value& response);

  /// Deletes the token, which the peer's process must own.
  ///
  /// Request: {"service": string, "token": string}. Response: "success".
  void RevokeToken(const ucred& credential, const Json::Value& request, Json::Value& response)
      const;

  /// Hands the token, which the peer's process must own, to another living process.
  ///
  /// Request: {"service": string, "token": string, "payload": integer}, the payload being the new
  /// owner's process id. Response: "success". Only "pid" of the record changes. A store that fails
  /// after the old record was removed loses the token.
  void TransferToken(const ucred& credential, const Json::Value& request, Json::Value& response)
      const;

  /// Returns the parsed installed configuration of `package`. Throws `std::runtime_error` when the
  /// file is missing or not valid JSON.
  Json::Value GetInstalledConfig(const std::string& package) const;

 private:
  std::string installed_config;
  std::shared_ptr<TokenStorage> store;
  std::shared_ptr<CacheStorage> cache;
  std::map<std::string, std::shared_ptr<TokenService>> services;
};

}  // namespace ZELT::TokenManager

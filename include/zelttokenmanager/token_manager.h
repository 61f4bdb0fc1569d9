// Issues, validates, revokes and transfers tokens.
#pragma once

#include <json/value.h>
#include <sys/socket.h>

#include <map>
#include <memory>
#include <string>

#include "token_service.h"
#include "token_storage.h"

namespace ZELT::TokenManager {

/// Carries out the requests to a token daemon. It uses a persistent store, an optional cache in
/// front of it, and one policy object for each service.
///
/// The four request operations take the credential of the peer, as reported by the kernel
/// (`SO_PEERCRED`, unix(7)), the request as received, and the response to fill in. They set the
/// response's "success" to false first and to true last. Every failure is an exception, usually a
/// `std::runtime_error`; the exceptions of services, store and cache pass through unchanged.
///
/// A token's associated data is an object of exactly five members: "service" and "requester"
/// (strings: the names of the service and of the local user who requested the token), "pid"
/// (integer: the owning process), "created_at" (integer: nanoseconds of the monotonic clock,
/// meaningless after a reboot) and "payload" (from the service).
///
/// Threads: the manager takes no lock. Services may be added and removed only while no request
/// runs. Requests may run concurrently as far as the store and the cache allow.
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

  /// Reads from the cache or else from the store, and adds a value from the store to the cache.
  Json::Value GetAssociatedData(const std::string& token) const;

  /// Writes to the store, then to the cache.
  void InsertTokenInformation(const std::string& token, const Json::Value& data) const;

  /// Removes from the cache, then from the store.
  void RemoveTokenInformation(const std::string& token) const;

  /// Creates a token for the peer's process.
  ///
  /// Request: {"service": string, ...}; the service reads the rest. Response: "success", "token".
  /// An installed package must run as the peer's user: the first entry of "/var/packages" whose
  /// "conf/privilege" (of at most 4 MiB) names the user, or names nobody while its own name,
  /// without the last extension, is the user's. If there is none, or its installed configuration
  /// cannot be read, the exception has a nested one with the cause (`std::rethrow_if_nested`):
  /// which file, and what is wrong with it.
  void IssueToken(const ucred& credential, const Json::Value& request, Json::Value& response);

  /// Asks the service whether the token permits the request. Any process may validate a token.
  ///
  /// Request: {"service": string, "token": string, ...}. Response: "success", "permitted". If the
  /// token does not permit the request, "success" is true and "permitted" is false.
  void ValidateToken(const ucred& credential, const Json::Value& request, Json::Value& response);

  /// Asks the service about many payloads of one token, whose record is read once.
  ///
  /// Request: {"service": string, "token": string, "payloads": array of at most 256}. Response:
  /// "success", "permitted": an array with true, false or null for each payload. The service gets
  /// the request with each payload in turn as "payload"; null means that it threw a
  /// `std::runtime_error`. Throws when the service takes longer than a second for all. The payloads
  /// in `request` are used up.
  void ValidateMany(const ucred& credential, Json::Value& request, Json::Value& response);

  /// Deletes the token, which the peer's process must own.
  ///
  /// Request: {"service": string, "token": string}. Response: "success".
  void RevokeToken(const ucred& credential, const Json::Value& request, Json::Value& response)
      const;

  /// Transfers the token, which the peer's process must own, to another living process.
  ///
  /// Request: {"service": string, "token": string, "payload": integer}, the payload being the new
  /// owner's process id. Response: "success". Only "pid" of the record changes. If the store fails
  /// after removing the old record, the token is lost.
  void TransferToken(const ucred& credential, const Json::Value& request, Json::Value& response)
      const;

  /// Returns the parsed installed configuration of `package`. Throws `std::runtime_error`, with a
  /// nested exception that names the cause, when the file is missing or not valid JSON.
  Json::Value GetInstalledConfig(const std::string& package) const;

 private:
  std::string installed_config;
  std::shared_ptr<TokenStorage> store;
  std::shared_ptr<CacheStorage> cache;
  std::map<std::string, std::shared_ptr<TokenService>> services;
};

}  // namespace ZELT::TokenManager

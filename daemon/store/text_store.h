// The human-readable store: a text file, served by a single worker.
#pragma once

#include <optional>
#include <string>

#include "token_store.h"
#include "zelttokenmanager/storage/json_file_storage.h"

/// A `JsonFileStorage` as the daemon uses it.
///
/// Changes are not transactions. A removal is deferred until their end, or until the same token is
/// inserted again: a worker killed in between loses the token.
/// Owners are process ids. Administrators' requests are refused.
class TextStore : public TokenStore {
 public:
  /// Ends a last line that a killed worker left incomplete, so that the next record does not become
  /// a part of it. Throws what `JsonFileStorage` throws.
  explicit TextStore(const std::string& file);

  void Change(const Peer& peer, const std::function<void()>& work) override;

  void Insert(const std::string& token, const Json::Value& data) override;
  void Remove(const std::string& token) override;
  Json::Value GetAssociatedData(const std::string& token) override;
  TokenRow Inspect(const std::string& token) override;

 private:
  ZELT::TokenManager::JsonFileStorage storage;
  std::optional<std::string> removed;
};

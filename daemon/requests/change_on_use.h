// Begins a request's change as late as possible.
#pragma once

#include <optional>
#include <string>

#include "peer.h"
#include "token_store.h"

/// The store as the token manager uses it. A request that changes something begins its change when
/// it first uses the store. Slow work before that, such as reading the files of packages, does not
/// keep others from changing the store.
class ChangeOnUse : public ZELT::TokenManager::TokenStorage {
 public:
  explicit ChangeOnUse(TokenStore& changed_store) : store(changed_store) {}

  /// While it lives, the first use of the store begins a change on behalf of `peer`, which is
  /// rolled back at the end unless it was committed.
  class Scope {
   public:
    Scope(ChangeOnUse& used, const Peer& peer) : storage(used) { storage.changer = &peer; }
    ~Scope() {
      storage.change.reset();
      storage.changer = nullptr;
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    /// Commits the change, if one has begun. Throws what `TokenStore::Commit` throws.
    void Commit() {
      if (storage.change) storage.change->Commit();
    }

   private:
    ChangeOnUse& storage;
  };

  void Insert(const std::string& token, const Json::Value& data) override;
  void Remove(const std::string& token) override;
  Json::Value GetAssociatedData(const std::string& token) override;

 private:
  void Begin();

  TokenStore& store;
  const Peer* changer = nullptr;
  std::optional<Change> change;
};

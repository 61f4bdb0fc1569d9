// The lock among the workers.
#pragma once

#include <optional>
#include <string>

#include "shared_state.h"
#include "zelttokenmanager/token_storage.h"

/// Held by a worker while it runs a request: shared when the request only reads, exclusive when it
/// changes something. A worker that fetches a record while another revokes it could otherwise put
/// the revoked record back into the cache.
///
/// The kernel wakes all who wait for a record lock and lets readers in beside readers, so that many
/// busy readers would keep a writer out for good. A waiting writer therefore says so, and readers
/// that come after it wait for its turn.
class WorkersLock {
 public:
  /// Makes the two lock files beside the store at `store_path`. Throws `std::system_error`.
  static void MakeFiles(const std::string& store_path);

  /// Waits for the lock. Throws what `FileLock` throws.
  WorkersLock(const std::string& store_path, SharedState& shared, bool exclusive);

 private:
  std::optional<ZELT::TokenManager::FileLock> lock;
};

// Opening the store.
#pragma once

#include <memory>

#include "board.h"
#include "store_file.h"
#include "store_options.h"
#include "token_store.h"

/// The store and cache of a `TokenManager`.
struct OpenedStore {
  std::shared_ptr<TokenStore> store;
  std::shared_ptr<ZELT::TokenManager::CacheStorage> cache;  ///< empty for the indexed store
};

/// Opens the store for this worker, after fork(2) and once per process. `lock` is the supervisor's.
/// `slot` must outlive the store. Throws `std::runtime_error`.
OpenedStore OpenStore(const StoreOptions& options, const StoreLock& lock, WorkerSlot& slot);

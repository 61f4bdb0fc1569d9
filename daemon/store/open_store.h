// Checking and opening the store.
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

/// Reads and checks the whole store. The caller must hold the lock, and no worker may have opened
/// the store. Throws `std::runtime_error` with what is wrong and what to do. Run this in a separate
/// process: a damaged file or an unreadable disk may kill it with a signal.
void CheckStore(const StoreOptions& options);

/// Opens the store for this worker, after fork(2) and once per process. `lock` is the supervisor's.
/// `slot` must outlive the store. Throws `std::runtime_error`.
OpenedStore OpenStore(const StoreOptions& options, const StoreLock& lock, WorkerSlot& slot);

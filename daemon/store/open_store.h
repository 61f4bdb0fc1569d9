// How the daemon comes to its store.
#pragma once

#include <memory>

#include "board.h"
#include "store_file.h"
#include "store_options.h"
#include "token_store.h"

/// What a `TokenManager` works on.
struct OpenedStore {
  std::shared_ptr<TokenStore> store;
  std::shared_ptr<ZELT::TokenManager::CacheStorage> cache;  ///< empty for the indexed store
};

/// Reads the whole store, of which the caller holds the lock, before any worker opens it. Throws
/// `std::runtime_error` with what is wrong and what to do. To be run in a process of its own: a
/// damaged file, or a disk that cannot be read, may end it by a signal.
void CheckStore(const StoreOptions& options);

/// Opens the store for this worker, after fork(2), once in a process. `lock` is the supervisor's.
/// `slot` must outlive the store. Throws `std::runtime_error`.
OpenedStore OpenStore(const StoreOptions& options, const StoreLock& lock, WorkerSlot& slot);

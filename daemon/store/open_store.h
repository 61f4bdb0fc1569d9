// Rebuilding the store, which checks, compacts and converts it, and opening it.
#pragma once

#include <cstdint>
#include <memory>

#include "board.h"
#include "store_file.h"
#include "store_options.h"
#include "token_store.h"

/// Returns the size of the indexed store's file. It exceeds what tokens may take, since LMDB reuses
/// the pages that a change frees two changes later, and joins pages only when they are nearly
/// empty. By default, two files and the lock file take less than 64 MiB.
constexpr std::uint64_t FileBytes(std::uint64_t bytes_for_tokens) {
  constexpr std::uint64_t kPages = 64U << 10;  // LMDB wants whole pages, of any system
  return (bytes_for_tokens + bytes_for_tokens / 2 + (3U << 19) + kPages - 1) / kPages * kPages;
}

/// Reads and verifies the indexed store, writes a new one with all blocks allocated, and puts it in
/// the old one's place; makes an empty store if there is none. If there is no space for both, the
/// old one stays, and a warning is logged.
///
/// The caller must hold the lock, and no worker may have opened the store. Throws `StartError` if
/// the store is damaged or foreign, and `std::system_error`; the old file is then as it was. Run
/// this in a separate process: a damaged file or an unreadable disk may kill it with a signal.
void RebuildStore(const StoreOptions& options);

/// The store and cache of a `TokenManager`.
struct OpenedStore {
  std::shared_ptr<TokenStore> store;
  std::shared_ptr<ZELT::TokenManager::CacheStorage> cache;  ///< empty for the indexed store
};

/// Opens the store for this worker, after fork(2) and once per process. `lock` is the supervisor's.
/// `slot` must outlive the store. Throws `std::runtime_error`.
OpenedStore OpenStore(const StoreOptions& options, const StoreLock& lock, WorkerSlot& slot);

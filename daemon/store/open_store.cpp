#include "open_store.h"

#include <stdexcept>

#include "database.h"
#include "indexed_store.h"
#include "tables.h"
#include "text_store.h"
#include "zelttokenmanager/storage/lru_cache_storage.h"

using ZELT::TokenManager::LRUCacheStorage;

void CheckStore(const StoreOptions& options) {
  if (options.format == StoreFormat::kText) return;  // it skips damaged lines
  try {
    Database database(options.path, MapBytes(options), Database::Use::kCheck);
    const Tables tables(database, false);
    tables.Check(Database::ReadScope(database).Get());
  } catch (const std::exception& error) {
    throw std::runtime_error(options.path + " is damaged, or not a store of this daemon: " +
                             error.what() + ". Move it away to start with an empty store");
  }
}

OpenedStore OpenStore(const StoreOptions& options, const StoreLock& lock, WorkerSlot& slot) {
  lock.ExpectSameFile();
  if (options.format == StoreFormat::kIndexed) {
    return {std::make_shared<IndexedStore>(options, slot), nullptr};
  }
  const bool cached = options.cache_bytes > 0;
  return {std::make_shared<TextStore>(options.path),
          cached ? std::make_shared<LRUCacheStorage>(options.cache_bytes) : nullptr};
}

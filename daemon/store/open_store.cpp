#include "open_store.h"

#include "indexed_store.h"
#include "text_store.h"
#include "zelttokenmanager/storage/lru_cache_storage.h"

using ZELT::TokenManager::LRUCacheStorage;

OpenedStore OpenStore(const StoreOptions& options, const StoreLock& lock, WorkerSlot& slot) {
  lock.ExpectSameFiles();
  OpenedStore opened;
  if (options.format == StoreFormat::kIndexed) {
    opened.store = std::make_shared<IndexedStore>(options, slot);
  } else {
    opened.store = std::make_shared<TextStore>(options.path);
    if (options.cache_bytes > 0)
      opened.cache = std::make_shared<LRUCacheStorage>(options.cache_bytes);
  }
  lock.ExpectSameFiles();  // those that were opened
  return opened;
}

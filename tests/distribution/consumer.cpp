// Built against the installed library, as a user of it would. Exits with 0 when the example of a
// service can be made and found, and the Boost that the headers include serves.
#include <json/json.h>
#include <zelttokenmanager/storage/lru_cache_storage.h>
#include <zelttokenmanager/token_manager.h>

#include "printing.h"

using namespace ZELT::TokenManager;

int main() {
  const auto cache = std::make_shared<LRUCacheStorage>(65536);
  ZELT::TokenManager::TokenManager manager("/none", cache, cache);
  manager.AddService(std::make_shared<Printing>());
  cache->Insert("token", manager.GetService("printing")->GetName());
  try {
    manager.GetService("printing")->Issue(Json::Value(), Json::Value());
    return 1;
  } catch (const std::runtime_error&) {
    return cache->GetAssociatedData("token") == "printing" ? 0 : 1;
  }
}

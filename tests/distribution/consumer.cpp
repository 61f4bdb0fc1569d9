// Built against the installed library, as a user of it would. Exits with 0 when a service of one's
// own can be made and found, and the Boost that the headers include serves.
#include <json/json.h>
#include <zelttokenmanager/service/fastapi.h>
#include <zelttokenmanager/storage/lru_cache_storage.h>
#include <zelttokenmanager/token_manager.h>

using namespace ZELT::TokenManager;

class Mine : public FastAPI {
 public:
  std::string GetName() override { return "mine"; }
};

int main() {
  const auto cache = std::make_shared<LRUCacheStorage>(65536);
  ZELT::TokenManager::TokenManager manager("/none", cache, cache);
  manager.AddService(std::make_shared<Mine>());
  cache->Insert("token", manager.GetService("mine")->GetName());
  try {
    manager.GetService("mine")->Issue(Json::Value(), Json::Value());
    return 1;
  } catch (const std::runtime_error&) {
    return cache->GetAssociatedData("token") == "mine" ? 0 : 1;
  }
}

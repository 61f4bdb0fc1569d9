// Built against the installed library, as a user of it would. Exits with 0 when a service of one's
// own can be made and found, and the Boost that the headers include serves.
#include <json/json.h>
#include <zelttokenmanager/service/fastapi.h>
#include <zelttokenmanager/storage/lru_cache_storage.h>
#include <zelttokenmanager/token_manager.h>

#include <sstream>

using namespace ZELT::TokenManager;

static Json::Value Value(const char* text) {
  Json::Value value;
  std::istringstream(text) >> value;
  return value;
}

class Mine : public FastAPI {
 public:
  std::string GetName() override { return "mine"; }
};

int main() {
  const auto cache = std::make_shared<LRUCacheStorage>(65536);
  ZELT::TokenManager::TokenManager manager("/none", cache, cache);
  manager.AddService(std::make_shared<Mine>());
  const auto service = manager.GetService("mine");
  const auto grants = Value(R"([{"api":"A","method":"get","runner":["bob"]}])");
  auto data = Value(R"({"requester":"alice"})");
  data["payload"] = service->Issue(Value(R"({"payload":[{"api":"A","method":"get"}]})"), grants);
  cache->Insert("token", data);
  data = cache->GetAssociatedData("token");
  const bool right = data["payload"] == grants;
  try {
    service->Issue(Value(R"({"payload":[{"api":"A","method":"set"}]})"), grants);
    return 1;
  } catch (const std::runtime_error&) {
    return right ? 0 : 1;
  }
}

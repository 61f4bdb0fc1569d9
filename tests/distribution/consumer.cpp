// Built against the installed library, as a user of it would. Exits with 0 when the example of a
// service does what the documentation says of it, and the Boost that the headers include serves.
#include <json/json.h>
#include <zelttokenmanager/storage/lru_cache_storage.h>

#include <sstream>

#include "printing.h"

static Json::Value Value(const char* text) {
  Json::Value value;
  std::istringstream(text) >> value;
  return value;
}

int main() {
  Printing printing;
  const auto grants =
      Value(R"([{"printer":"laser","user":["bob"]},{"printer":"plotter","user":""}])");
  auto data = Value(R"({"requester":"alice"})");
  data["payload"] = printing.Issue(Value(R"({"payload":"plotter"})"), grants);
  ZELT::TokenManager::LRUCacheStorage cache(65536);
  cache.Insert("token", data);
  data = cache.GetAssociatedData("token");
  const bool right = data["payload"] == grants[1] &&
                     printing.Validate(Value(R"({"payload":"alice"})"), data) &&
                     !printing.Validate(Value(R"({"payload":"bob"})"), data);
  try {
    printing.Issue(Value(R"({"payload":"inkjet"})"), grants);
    return 1;
  } catch (const std::runtime_error&) {
    return right ? 0 : 1;
  }
}

// Fails each allocation of each public call once. Whatever becomes of that call, the next one
// works.
#include <cstdlib>

#include "support/testing.h"
#include "zelttokenmanager/service/fastapi.h"
#include "zelttokenmanager/service/taskmanager.h"
#include "zelttokenmanager/storage/json_file_storage.h"
#include "zelttokenmanager/storage/lru_cache_storage.h"
#include "zelttokenmanager/token_manager.h"
#include "zelttokenmanager/utils.h"

extern "C" void* __libc_malloc(std::size_t size);  // NOLINT(*-reserved-identifier): glibc's own
thread_local int allocations_left = -1;            // before the one that fails; negative: none does

// In place of the C library's. The operator new calls it.
extern "C" void* malloc(std::size_t size) {
  if (allocations_left < 0 || allocations_left-- > 0) return __libc_malloc(size);
  errno = ENOMEM;
  return nullptr;
}

namespace ZELT::TokenManager::AllocationTests {

using AllocationTest = PrivateFiles;

const Json::Value kGrant = Value(
    "{'api':'a','method':'m','prefix':'p','runner':['@staff'],"
    "'owner':['@staff'],'n':[0.5,'a text that is longer than a string']}");

const Json::Value kIssue = Value("{'service':'fastapi','payload':[{'api':'a','method':'m'}]}");
const Json::Value kValidate = Value(
    "{'token':'t','service':'taskmanager','payload':{'action':'read',"
    "'args':{'task':'p1','owner':'bob'}}}");

// What the calls work on. It is made without what a first call would make.
struct World {
  World() {
    manager.AddService(std::make_shared<FastAPI>());
    manager.AddService(std::make_shared<TaskManager>());
    data["service"] = "taskmanager";
    data["pid"] = 41;
    data["payload"].append(kGrant);
    WriteFile("/tmp/s/tokens", "x 0\nt " + Requoted(Text(data)) + "\n");
  }

  Json::Value Ask(void (TokenManager::*operation)(const ucred&, const Json::Value&, Json::Value&),
                  const Json::Value& request) {
    Json::Value response;
    (manager.*operation)({41, 4001, 0}, request, response);
    return response["success"];
  }

  std::shared_ptr<CacheStorage> cache = std::make_shared<LRUCacheStorage>(65536);
  TokenManager manager{"/tmp/installed", std::make_shared<JsonFileStorage>("/tmp/s/tokens"), cache};
  Json::Value data;
};

using Call = std::function<Json::Value(World&)>;

const std::pair<Call, const char*> kCalls[] = {
    {[](World& world) { return world.Ask(&TokenManager::IssueToken, kIssue); }, "true"},
    {[](World& world) { return world.Ask(&TokenManager::ValidateToken, kValidate); }, "true"},
    {[](World& world) {
       world.cache->Insert("t", world.data);
       return world.cache->GetAssociatedData("t")["payload"][0]["n"][0];
     },
     "0.5"},
    {[](World& world) {
       world.manager.RemoveTokenInformation("t");
       world.manager.InsertTokenInformation("t", world.data);
       return world.manager.GetAssociatedData("t")["payload"][0]["n"][0];
     },
     "0.5"}};

// Returns whether the call needed fewer allocations, or -1 when something is wrong.
int FailOne(const std::pair<Call, const char*>& row, int before) {
  World world;
  allocations_left = before;
  Json::Value result;
  const std::string outcome = Outcome([&] { result = row.first(world); });
  const bool was_spared = std::exchange(allocations_left, -1) >= 0;
  if (outcome == "done" && Text(result) != row.second) return 3;  // a wrong answer
  if (Outcome([&] { return row.first(world); }) != row.second) return 2;
  return was_spared ? 1 : 0;
}

TEST_F(AllocationTest, AFailedOneHarmsNoLaterCall) {
  WriteFile("/tmp/installed/alice", "{\"fastapi\":[" + Requoted(Text(kGrant)) + "]}");
  fs::create_directories("/var/packages/alice");
  IsIdentityInPermittedList("bob", Value("[]"),
                            "");  // libc's first look-up needs memory, or crashes
  for (const auto& row : kCalls) {
    int failed = 0;
    for (int before = 0; failed == 0; ++before) {
      failed = Finish(Start([&] { return FailOne(row, before); }));
      EXPECT_LT(failed, 2) << &row - kCalls << ", allocation " << before;
    }
  }
}

}  // namespace ZELT::TokenManager::AllocationTests

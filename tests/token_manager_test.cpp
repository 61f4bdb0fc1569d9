#include "zelttokenmanager/token_manager.h"

#include "support/tables.h"
#include "zelttokenmanager/service/fastapi.h"
#include "zelttokenmanager/service/taskmanager.h"
#include "zelttokenmanager/storage/json_file_storage.h"
#include "zelttokenmanager/storage/lru_cache_storage.h"

namespace ZELT::TokenManager::TokenManagerTests {

using TokenManagerTest = PrivateFiles;

constexpr const char* kSource = "token_manager.cpp";
constexpr const char* kStore = "/tmp/store/tokens";
constexpr const char* kLock = "/tmp/store/tokens.lock";
const fs::path kPackages = "/var/packages";

// Grants its privilege entry; permits the payload that was stored.
struct FakeService : TokenService {
  std::string GetName() override { return "fake"; }
  Json::Value Issue(const Json::Value& request, const Json::Value& privilege) override {
    if (request["payload"] == "refuse") throw std::runtime_error("refused");
    if (request["payload"] == "unlock") fs::remove(kLock);
    return privilege;
  }
  bool Validate(const Json::Value& request, const Json::Value& data) override {
    if (request["payload"] == "refuse") throw std::runtime_error("refused");
    if (request["payload"] == "slow") std::this_thread::sleep_for(std::chrono::milliseconds(350));
    return request["payload"] == data["payload"];
  }
};

// A manager with the record of a token "t".
struct World {
  explicit World(const Json::Value& record = {}) {
    WriteFile(kStore, "x 0\nt " + toString(record) + "\n");
    manager.AddService(std::make_shared<FakeService>());
  }

  template <typename Operation>
  std::string Call(Operation operation, Json::Value request, ucred peer = {41, 4001, 0}) {
    const std::string before = ReadFile(kStore);
    response["success"] = "stale";
    const std::string error = Outcome([&] { (manager.*operation)(peer, request, response); });
    std::string outcome = Text(response);
    if (error != "done") outcome = error + (outcome == "{'success':false}" ? "" : " " + outcome);
    if (ReadFile(kStore) == before) return outcome;
    const auto left = [](auto& where) {
      return Outcome([&] { return where.GetAssociatedData("t"); });
    };
    JsonFileStorage store(kStore);
    EXPECT_EQ(left(manager), left(store)) << "in the cache";
    return outcome + " leaves " + left(store);
  }

  TokenManager manager{"/tmp/installed", std::make_shared<JsonFileStorage>(kStore),
                       std::make_shared<LRUCacheStorage>(65536)};
  Json::Value response;
};

TEST(ServicesTest, IssueWhatIsGrantedAndPermitWhatATokenHolds) {
  CheckService<FastAPI>("fastapi");
  CheckService<TaskManager>("taskmanager");
}

TEST_F(TokenManagerTest, KeepsOneServiceForEachName) {
  TokenManager manager = World().manager;
  const auto first = manager.GetService("fake");
  EXPECT_EQ(Outcome([&] { manager.AddService(std::make_shared<FakeService>()); }),
            "token_manager.cpp:79 service already exists in the manager");
  EXPECT_EQ(manager.GetService("fake"), first);
  for (const char* name : {"fake", "none"}) manager.RemoveService(name);
  EXPECT_EQ(Outcome([&] { manager.GetService("fake"); }), "token_manager.cpp:249 invalid service");
}

TEST_F(TokenManagerTest, WritesToTheStoreFirstAndRemovesFromTheCacheFirst) {
  TokenManager manager = World("stored").manager;
  const auto get = [&] { return Outcome([&] { return manager.GetAssociatedData("t"); }); };
  const auto remove = [&] { return Outcome([&] { manager.RemoveTokenInformation("t"); }); };
  const auto insert = [&] { return Outcome([&] { manager.InsertTokenInformation("t", 2); }); };
  const std::string failed = "token_storage.cpp:27 failed to lock: No such file or directory";
  EXPECT_EQ(get(), "'stored'");
  fs::remove(kLock);
  EXPECT_EQ(get(), "'stored'") << "from the cache";
  EXPECT_EQ((Cells{remove(), get(), insert(), get()}), Cells(4, failed));
  WriteFile(kLock, "");
  EXPECT_EQ((Cells{remove(), insert()}), Cells(2, "done"));
  fs::remove(kLock);
  EXPECT_EQ(get(), "2") << "in the cache at once";
  manager = TokenManager("/tmp/installed", std::make_shared<JsonFileStorage>(kStore), nullptr);
  EXPECT_EQ((Cells{insert(), remove(), get()}), (Cells{"done", "done", "2"}));
  EXPECT_EQ(ReadFile(kStore), "x 0\nt 2\n");
}

TEST_F(TokenManagerTest, MeetsTheChecksOfRequestsInOrder) {
  const auto check = [](const char* title, auto operation) {
    const auto call = [&](Json::Value request, Json::Value record) {
      if (record == "mine") record = Value("{'service':'fake','pid':41}");
      if (record == "other's") record = Value("{'service':'fake','pid':42,'payload':1}");
      if (request.isObject() && request["payloads"].isInt()) {
        const Json::ArrayIndex count = request["payloads"].asUInt();
        (request["payloads"] = Json::arrayValue).resize(count);
      }
      return World(record).Call(operation, request);
    };
    CheckSection("token_manager.txt", title, call, kSource);
  };
  check("validates", &TokenManager::ValidateToken);
  check("validates many", &TokenManager::ValidateMany);
  check("revokes", &TokenManager::RevokeToken);
  check("transfers", &TokenManager::TransferToken);
}

TEST_F(TokenManagerTest, MeetsTheChecksOfAnIssueInOrder) {
  for (const char* package : {"alice", "bob"}) fs::create_directory(kPackages / package);
  WriteFile("/tmp/installed/alice", "{}");
  const auto issue = [](const auto& request, const auto& user) {
    return World().Call(&TokenManager::IssueToken, request, {41, user.asUInt(), 0});
  };
  CheckSection("token_manager.txt", "issues", issue, kSource);
}

// Runs a package with one file, and returns what the new token of alice grants: the package's name,
// as each configuration has it.
std::string PackageOfAlice(const std::string& file, const std::string& text) {
  WriteFile(kPackages / file, text);
  const std::string outcome = Outcome([] {
    World world;
    world.manager.IssueToken({41, 4001, 0}, Value("{'service':'fake'}"), world.response);
    return world.manager.GetAssociatedData(world.response["token"].asString())["payload"];
  });
  fs::remove_all(kPackages);
  return Requoted(outcome);
}

TEST_F(TokenManagerTest, FindsThePackageThatRunsAsTheUser) {
  WriteFile("/tmp/installed/alice", R"({"fake":"alice"})");
  WriteFile("/tmp/installed/shop", R"({"fake":"shop"})");
  for (const Cells& row : Section("token_manager.txt", "packages")) {
    EXPECT_EQ(PackageOfAlice(row.at(0), row.at(1)), row.at(2)) << row[0] << row[1];
  }
}

// The package has the user's name, but its file names another user.
TEST_F(TokenManagerTest, FindsNoPackageWhoseFileItHasNoDescriptorFor) {
  WriteFile("/tmp/installed/alice", "{}");
  WriteFile(kPackages / "alice/conf/privilege", R"({"username":"bob"})");
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  World world;
  std::string outcome;
  for (rlim_t limit = 3; !outcome.starts_with("token_manager.cpp:66 "); ++limit) {
    const rlimit low{.rlim_cur = limit, .rlim_max = usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, &low);
    outcome = world.Call(&TokenManager::IssueToken, Value("{'service':'fake'}"));
    setrlimit(RLIMIT_NOFILE, &usual);
    ASSERT_EQ(outcome.find("true"), outcome.npos) << limit;
  }
}

Json::Int64 Now() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

TEST_F(TokenManagerTest, RecordsWhoAskedAndWhen) {
  WriteFile(kPackages / "alice", "");
  WriteFile("/tmp/installed/alice", "{\"fake\":{\"granted\":[1]}}");
  World world;
  Json::Int64 last = Now();
  for (std::set<std::string> tokens; tokens.size() < 200;) {
    world.Call(&TokenManager::IssueToken, Value("{'service':'fake','token':'mine'}"));
    const std::string token = world.response["token"].asString();
    EXPECT_EQ(Text(world.response), "{'success':true,'token':'" + token + "'}");
    EXPECT_TRUE(std::regex_match(token, std::regex("[A-Za-z0-9_-]{32,64}"))) << token;
    ASSERT_TRUE(tokens.insert(token).second) << "each token is another";
    Json::Value record = world.manager.GetAssociatedData(token);
    const Json::Int64 created_at = record["created_at"].asInt64();
    EXPECT_TRUE(std::exchange(last, created_at) <= created_at && created_at <= Now());
    record.removeMember("created_at");
    EXPECT_EQ(Text(record),
              "{'payload':{'granted':[1]},'pid':41,'requester':'alice','service':'fake'}");
  }
}

}  // namespace ZELT::TokenManager::TokenManagerTests

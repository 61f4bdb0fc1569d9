#include "zelttokenmanager/token_manager.h"

#include "support/testing.h"
#include "zelttokenmanager/storage/json_file_storage.h"
#include "zelttokenmanager/storage/lru_cache_storage.h"

namespace ZELT::TokenManager::TokenManagerTests {

using TokenManagerTest = PrivateFiles;

constexpr const char* kStore = "/tmp/store/tokens";
constexpr const char* kLock = "/tmp/store/tokens.lock";
const fs::path kPackages = "/var/packages";
const std::string kNoLock = "token_storage.cpp:27 failed to lock: No such file or directory";

// Grants its privilege entry; permits the payload that was stored.
struct FakeService : TokenService {
  std::string GetName() override { return "fake"; }
  Json::Value Issue(const Json::Value& request, const Json::Value& privilege) override {
    if (request["payload"] == "refuse") throw std::runtime_error("refused");
    return privilege;
  }
  bool Validate(const Json::Value& request, const Json::Value& data) override {
    return request["payload"] == data["payload"];
  }
};

// A manager with the record of a token "t".
struct World {
  explicit World(const Json::Value& record = {}) {
    WriteFile(kStore, "t " + toString(record) + "\n");
    manager.AddService(std::make_shared<FakeService>());
  }

  // The response or the error, which must leave "success" false and the store as it was.
  template <typename Operation>
  std::string Call(Operation operation, const Json::Value& request, ucred peer = {41, 4001, 0}) {
    const std::string before = ReadFile(kStore);
    response["success"] = "stale";
    const std::string outcome = Outcome([&] { (manager.*operation)(peer, request, response); });
    if (outcome == "done") return Text(response);
    EXPECT_EQ(response["success"], false);
    EXPECT_EQ(ReadFile(kStore), before);
    return outcome;
  }

  TokenManager manager{"/tmp/installed", std::make_shared<JsonFileStorage>(kStore),
                       std::make_shared<LRUCacheStorage>(65536)};
  Json::Value response;
};

TEST_F(TokenManagerTest, KeepsOneServiceForEachName) {
  TokenManager manager = World().manager;
  EXPECT_EQ(Outcome([&] { manager.AddService(std::make_shared<FakeService>()); }),
            "token_manager.cpp:79 service already exists in the manager");
  EXPECT_EQ(manager.GetService("fake")->GetName(), "fake");
  manager.RemoveService("fake");
  EXPECT_EQ(Outcome([&] { manager.GetService("fake"); }), "token_manager.cpp:249 invalid service");
}

TEST_F(TokenManagerTest, WritesToTheStoreFirstAndRemovesFromTheCacheFirst) {
  TokenManager manager = World("stored").manager;
  const auto get = [&] { return manager.GetAssociatedData("t"); };
  const auto remove = [&] { manager.RemoveTokenInformation("t"); };
  const auto insert = [&] { manager.InsertTokenInformation("t", 2); };
  const auto outcomes = [](const auto&... calls) {
    std::string all;
    ((all += Outcome(calls) + " "), ...);
    return all;
  };
  EXPECT_EQ(outcomes(get), "'stored' ");
  fs::remove(kLock);
  const std::string failed = kNoLock + " ";
  EXPECT_EQ(outcomes(get, remove, get, insert, get),
            "'stored' " + failed + failed + failed + failed);
  WriteFile(kLock, "");
  EXPECT_EQ(outcomes(remove, insert), "done done ");
  fs::remove(kLock);
  EXPECT_EQ(outcomes(get), "2 ") << "in the cache at once";
  WriteFile(kLock, "");
  manager = TokenManager("/tmp/installed", std::make_shared<JsonFileStorage>(kStore), nullptr);
  EXPECT_EQ(outcomes(insert, remove, get), "done done 2 ");
  EXPECT_EQ(ReadFile(kStore), "t 2\n");
}

// Requests with the record of the token "t".
constexpr const char* kRecord = "{'service':'fake','pid':41,'payload':1}";
constexpr const char* kForeign = "{'service':'fake','pid':42,'payload':1}";
constexpr const char* kOther = "{'token':'t','service':'none','payload':2147483647}";
constexpr const char* kMine = "{'token':'t','service':'fake','payload':2147483647}";

TEST_F(TokenManagerTest, MeetsTheChecksOfRequestsInOrder) {
  const auto check = [](auto operation, const std::vector<Row>& rows) {
    const auto call = [operation](const auto& request, const auto& record) {
      return World(record).Call(operation, request);
    };
    CheckRows("token_manager.cpp", call, rows);
  };
  check(&TokenManager::ValidateToken, {{"[]", kRecord, "120 'token' String"},
                                       {"{'token':'none'}", kRecord, "121 'service' String"},
                                       {"{'token':'none','service':'none'}", kRecord,
                                        "storage/json_file_storage.cpp:147 invalid token"},
                                       {kOther, "null", "127 'service' String"},
                                       {kOther, kRecord, "130 unmatched service"},
                                       {kOther, "{'service':'none'}", "249 invalid service"},
                                       {kMine, kForeign, "{'permitted':false,'success':true}"},
                                       {"{'token':'t','service':'fake','payload':1}", kForeign,
                                        "{'permitted':true,'success':true}"}});
  check(&TokenManager::RevokeToken,
        {{"null", kRecord, "142 'token' String"},
         {"{'token':'none'}", kRecord, "143 'service' String"},
         {kOther, "[]", "149 'service' String"},
         {kOther, "{'service':'fake','pid':2147483648}", "150 'pid' Int"},
         {kOther, kForeign, "153 unmatched service"},
         {kMine, kForeign, "156 unmatched pid"},
         {kMine, kRecord, "{'success':true}"}});
  check(&TokenManager::TransferToken,
        {{"true", kRecord, "168 'token' String"},
         {"{'token':'t'}", "5", "169 'service' String"},
         {"{'token':'t','service':'none'}", "5", "170 'payload' Int"},
         {kOther, "'x'", "177 'service' String"},
         {kOther, "{'service':'fake'}", "178 'pid' Int"},
         {kOther, kForeign, "181 unmatched service"},
         {kMine, kForeign, "184 unmatched pid"},
         {kMine, kRecord, "188 cannot transfer token ownership"},
         {"{'token':'t','service':'fake','payload':1}", kRecord, "{'success':true}"}});
}

// Requests with their users: 4001 runs a package, 4002 one without a configuration, 4003 one with a
// broken one, 4004 none, and 4999 is gone.
TEST_F(TokenManagerTest, MeetsTheChecksOfAnIssueInOrder) {
  for (const char* package : {"alice", "bob", "any"}) fs::create_directory(kPackages / package);
  WriteFile("/tmp/installed/alice", "{}");
  WriteFile("/tmp/installed/any", "{} trailing");
  const auto issue = [](const auto& request, const auto& user) {
    World world;
    if (request.isMember("no lock")) fs::remove(kLock);
    return world.Call(&TokenManager::IssueToken, request, {41, user.asUInt(), 0});
  };
  CheckRows("token_manager.cpp", issue,
            {{"{}", "4999", "95 'service' String"},
             {"{'service':'none'}", "4999", "35 failed to get username from uid"},
             {"{'service':'none'}", "4004", "66 failed to get package name from uid"},
             {"{'service':'none'}", "4002", "260 failed to get installed config"},
             {"{'service':'none'}", "4003", "260 failed to get installed config"},
             {"{'service':'none','payload':'refuse'}", "4001", "249 invalid service"},
             {"{'service':'fake','payload':'refuse'}", "4001", "refused"},
             {"{'service':'fake','no lock':true}", "4001", kNoLock.c_str()}});
}

const std::string kLongPrivilege = "{'username':'bob'}" + std::string(64 << 10, ' ');

// A file below /var/packages with its text; and the package that alice is found to run.
constexpr const char* kNone = "token_manager.cpp:66 failed to get package name from uid";
const Row kPackageRows[] = {
    {"alice.pkg", "", "'alice'"},
    {"alice.v1.pkg", "", kNone},
    {"shop/conf/privilege", "{'username':'alice'}", "'shop'"},
    {"alice/conf/privilege", "{'username':'bob'}", kNone},
    {"alice/conf/privilege", "{'username':''}", "'alice'"},
    {"alice/conf/privilege", "{'username':['bob']}", "'alice'"},
    {"alice/conf/privilege", "{", "'alice'"},
    {"alice/conf/privilege", kLongPrivilege.c_str(), "'alice'"},
    {"alice/conf/privilege/directory", "", "'alice'"},
};

TEST_F(TokenManagerTest, FindsThePackageThatRunsAsTheUser) {
  for (const std::string name : {"alice", "shop"})
    WriteFile("/tmp/installed/" + name, Requoted("{'fake':'" + name + "'}"));
  // What alice's new token grants: the name of the package, as each configuration has it.
  const auto issue = [] {
    World world;
    world.manager.IssueToken({41, 4001, 0}, Value("{'service':'fake'}"), world.response);
    return world.manager.GetAssociatedData(world.response["token"].asString())["payload"];
  };
  for (const Row& row : kPackageRows) {
    WriteFile(kPackages / row.first, Requoted(row.second));
    EXPECT_EQ(Outcome(issue), row.outcome) << row.first << row.second;
    fs::remove_all(kPackages);
  }
  EXPECT_NE(Outcome(issue).find("No such file or directory"), std::string::npos);
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

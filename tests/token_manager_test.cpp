#include "zelttokenmanager/token_manager.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <map>

#include "support/testing.h"

namespace ZELT::TokenManager {
namespace {

namespace fs = std::filesystem;
using namespace TestSupport;
using IssueTest = PrivateFiles;

// A store or a cache in memory that writes down each call and fails at the one that it is told.
template <typename Base>
class Fake : public Base {
 public:
  Fake(std::string given_name, std::string& given_journal)
      : name(std::move(given_name)), journal(given_journal) {}

  void Insert(const std::string& token, const Json::Value& data) override {
    Note("Insert");
    records[token] = data;
  }
  void Remove(const std::string& token) override {
    Note("Remove");
    records.erase(token);
  }
  Json::Value GetAssociatedData(const std::string& token) override {
    Note("Get");
    if (records.count(token) != 0) {
      return records[token];
    }
    if constexpr (std::is_same_v<Base, CacheStorage>) {
      throw cache_miss();
    }
    throw std::runtime_error("unknown token");
  }

  std::map<std::string, Json::Value> records;
  std::string failing;

 private:
  void Note(const std::string& operation) {
    journal += name + operation + " ";
    if (operation == failing) {
      throw std::runtime_error(name + operation + " failed");
    }
  }

  std::string name;
  std::string& journal;
};

class FakeCache : public Fake<CacheStorage> {
 public:
  using Fake::Fake;
  void Evict(unsigned int /*count*/) override { ADD_FAILURE(); }
  void Admit(const std::string& /*token*/, const Json::Value& /*data*/) override { ADD_FAILURE(); }
};

// Grants its privilege entry; permits the payload that was stored.
class FakeService : public TokenService {
 public:
  std::string GetName() override { return "fake"; }
  Json::Value Issue(const Json::Value& request, const Json::Value& privilege) override {
    return request["payload"] == "refuse" ? throw std::runtime_error("refused") : privilege;
  }
  bool Validate(const Json::Value& request, const Json::Value& data) override {
    return request["payload"] == "refuse" ? throw std::runtime_error("refused")
                                          : request["payload"] == data["payload"];
  }
};

constexpr pid_t kOwner = 41;
constexpr ucred kAlice{kOwner, 4001, 4100};

struct World {
  World() { manager.AddService(service); }

  template <typename Operation>
  Json::Value Call(Operation operation, const ucred& peer, const Json::Value& request) {
    response = Value("{'success':'stale'}");
    (manager.*operation)(peer, request, response);
    return response;
  }

  std::string Journal() { return std::exchange(journal, {}); }

  std::string journal;
  std::shared_ptr<Fake<TokenStorage>> store =
      std::make_shared<Fake<TokenStorage>>("store.", journal);
  std::shared_ptr<FakeCache> cache = std::make_shared<FakeCache>("cache.", journal);
  std::shared_ptr<TokenService> service = std::make_shared<FakeService>();
  TokenManager manager{"/tmp/installed", store, cache};
  Json::Value response;
};

TEST(RegistryTest, KeepsOneServiceForEachName) {
  World world;
  EXPECT_EQ(Outcome([&] { world.manager.AddService(std::make_shared<FakeService>()); }),
            "token_manager.cpp:79 service already exists in the manager");
  EXPECT_EQ(world.manager.GetService("fake"), world.service);
  world.manager.RemoveService("never registered");
  world.manager.RemoveService("fake");
  EXPECT_EQ(Outcome([&] { world.manager.GetService("fake"); }),
            "token_manager.cpp:249 invalid service");
}

TEST(DataTest, IsReadThroughTheCache) {
  World world;
  world.store->records["t"] = "stored";
  EXPECT_EQ(world.manager.GetAssociatedData("t"), "stored");
  EXPECT_EQ(world.manager.GetAssociatedData("t"), "stored");
  EXPECT_EQ(world.Journal(), "cache.Get store.Get cache.Insert cache.Get ");
  EXPECT_EQ(Outcome([&] { world.manager.GetAssociatedData("none"); }), "unknown token");
  EXPECT_EQ(world.Journal(), "cache.Get store.Get ");
  world.cache->failing = "Get";
  EXPECT_EQ(Outcome([&] { world.manager.GetAssociatedData("t"); }), "cache.Get failed");
  EXPECT_EQ(world.Journal(), "cache.Get ");
}

TEST(DataTest, IsWrittenToTheStoreFirstAndRemovedFromTheCacheFirst) {
  World world;
  const auto insert = [&] { world.manager.InsertTokenInformation("t", 1); };
  const auto remove = [&] { world.manager.RemoveTokenInformation("t"); };
  EXPECT_EQ(Outcome(insert), "done");
  EXPECT_EQ(Outcome(remove), "done");
  EXPECT_EQ(world.Journal(), "store.Insert cache.Insert cache.Remove store.Remove ");
  world.store->failing = "Insert";
  world.cache->failing = "Remove";
  EXPECT_EQ(Outcome(insert), "store.Insert failed");
  EXPECT_EQ(Outcome(remove), "cache.Remove failed");
  EXPECT_EQ(world.Journal(), "store.Insert cache.Remove ");
  world.manager = TokenManager("/tmp/installed", world.store, nullptr);
  world.store->failing = "";
  EXPECT_EQ(Outcome(insert), "done");
  EXPECT_EQ(world.manager.GetAssociatedData("t"), 1);
  EXPECT_EQ(Outcome(remove), "done");
  EXPECT_EQ(world.Journal(), "store.Insert store.Get store.Remove ");
}

// Requests with the record of the token "t", in the order of the checks.
constexpr const char* kRecord = "{'service':'fake','pid':41,'payload':1}";
constexpr const char* kForeign = "{'service':'fake','pid':42}";
constexpr const char* kOther = "{'token':'t','service':'none'}";
constexpr const char* kMine = "{'token':'t','service':'fake'}";

const std::vector<Row> kValidateRows = {
    {"[]", kRecord, "120 invalid type of 'token', String expected"},
    {"{'service':1}", kRecord, "120 invalid type of 'token', String expected"},
    {"{'token':'none'}", kRecord, "121 invalid type of 'service', String expected"},
    {"{'token':'t','service':null}", "5", "121 invalid type of 'service', String expected"},
    {"{'token':'none','service':'none'}", kRecord, "unknown token"},
    {kOther, "null", "127 invalid type of 'service', String expected"},
    {kOther, "{'service':{}}", "127 invalid type of 'service', String expected"},
    {kOther, kRecord, "130 unmatched service"},
    {kOther, "{'service':'none'}", "249 invalid service"},
    {"{'token':'t','service':'fake','payload':'refuse'}", kRecord, "refused"},
    {"{'token':'t','service':'fake','payload':2}", kForeign, "{'permitted':false,'success':true}"},
    {"{'token':'t','service':'fake','payload':1}", kRecord, "{'permitted':true,'success':true}"},
};

const std::vector<Row> kRevokeRows = {
    {"null", kRecord, "142 invalid type of 'token', String expected"},
    {"{'token':1}", kRecord, "142 invalid type of 'token', String expected"},
    {"{'token':'none'}", kRecord, "143 invalid type of 'service', String expected"},
    {"{'token':'none','service':'none'}", kRecord, "unknown token"},
    {kOther, "null", "149 invalid type of 'service', String expected"},
    {kOther, "{'service':'fake','pid':2147483648}", "150 invalid type of 'pid', Int expected"},
    {kOther, kForeign, "153 unmatched service"},
    {kMine, kForeign, "156 unmatched pid"},
};

constexpr const char* kOtherToNobody = "{'token':'t','service':'none','payload':2147483647}";
constexpr const char* kMineToNobody = "{'token':'t','service':'fake','payload':2147483647}";

const std::vector<Row> kTransferRows = {
    {"true", kRecord, "168 invalid type of 'token', String expected"},
    {"{'token':['t']}", kRecord, "168 invalid type of 'token', String expected"},
    {"{'token':'t'}", "5", "169 invalid type of 'service', String expected"},
    {kOther, "5", "170 invalid type of 'payload', Int expected"},
    {"{'token':'t','service':'fake','payload':'1'}", "5",
     "170 invalid type of 'payload', Int expected"},
    {"{'token':'t','service':'fake','payload':2147483648}", "5",
     "170 invalid type of 'payload', Int expected"},
    {"{'token':'none','service':'none','payload':1}", kRecord, "unknown token"},
    {kOtherToNobody, "[]", "177 invalid type of 'service', String expected"},
    {kOtherToNobody, "{'service':'fake'}", "178 invalid type of 'pid', Int expected"},
    {kOtherToNobody, kForeign, "181 unmatched service"},
    {kMineToNobody, kForeign, "184 unmatched pid"},
    {kMineToNobody, kRecord, "188 cannot transfer token ownership"},
    {"{'token':'t','service':'fake','payload':-1}", kRecord, "188 cannot transfer token ownership"},
};

// A failure leaves "success" false and the record as it was.
template <typename Operation>
RowCall Calling(Operation operation) {
  return [operation](const Json::Value& request, const Json::Value& stored) {
    World world;
    world.store->records["t"] = stored;
    try {
      return world.Call(operation, kAlice, request);
    } catch (const std::exception&) {
      EXPECT_EQ(world.response["success"], false);
      EXPECT_EQ(world.store->records["t"], stored);
      throw;
    }
  };
}

TEST(RequestTest, MeetsItsChecksInOrder) {
  CheckRows("token_manager.cpp", kValidateRows, Calling(&TokenManager::ValidateToken));
  CheckRows("token_manager.cpp", kRevokeRows, Calling(&TokenManager::RevokeToken));
  CheckRows("token_manager.cpp", kTransferRows, Calling(&TokenManager::TransferToken));
}

TEST(RequestTest, KeepsWhatWasAnsweredBeforeAFailure) {
  World world;
  world.store->records["t"] = Value(kRecord);
  Outcome([&] { world.Call(&TokenManager::RevokeToken, {42, 4001, 0}, Value(kMine)); });
  EXPECT_EQ(Text(world.response), "{'success':false}");
  world.manager.RemoveService("fake");
  Outcome([&] { world.Call(&TokenManager::ValidateToken, kAlice, Value(kMine)); });
  EXPECT_EQ(Text(world.response), "{'permitted':null,'success':false}");
}

TEST(RequestTest, TransfersAndRevokes) {
  World world;
  world.store->records["t"] = Value("{'service':'fake','pid':41,'created_at':5,'requester':'r'}");
  const Json::Value transfer = Value("{'token':'t','service':'fake','payload':1}");
  EXPECT_EQ(Text(world.Call(&TokenManager::TransferToken, kAlice, transfer)), "{'success':true}");
  EXPECT_EQ(Text(world.store->records["t"]),
            "{'created_at':5,'pid':1,'requester':'r','service':'fake'}");
  EXPECT_EQ(world.Journal(),
            "cache.Get store.Get cache.Insert "
            "cache.Remove store.Remove store.Insert cache.Insert ");
  const auto revoke = [&](pid_t process) {
    return world.Call(&TokenManager::RevokeToken, {process, 4002, 0}, Value(kMine));
  };
  EXPECT_EQ(Outcome([&] { revoke(kOwner); }), "token_manager.cpp:156 unmatched pid");
  EXPECT_EQ(Text(revoke(1)), "{'success':true}");
  EXPECT_EQ(world.Journal(), "cache.Get cache.Get cache.Remove store.Remove ");
}

// Requests with their users: 4001 runs a package, 4002 one without a configuration, 4003 one with a
// broken one, 4004 none, and 4999 is gone.
const std::vector<Row> kIssueRows = {
    {"{}", "4999", "95 invalid type of 'service', String expected"},
    {"{'service':1}", "4999", "95 invalid type of 'service', String expected"},
    {"{'service':'none'}", "4999", "35 failed to get username from uid"},
    {"{'service':'none'}", "4004", "66 failed to get package name from uid"},
    {"{'service':'fake'}", "0", "66 failed to get package name from uid"},
    {"{'service':'none'}", "4002", "260 failed to get installed config"},
    {"{'service':'none'}", "4003", "260 failed to get installed config"},
    {"{'service':'none','payload':'refuse'}", "4001", "249 invalid service"},
    {"{'service':'fake','payload':'refuse'}", "4001", "refused"},
    {"{'service':'fake','payload':'full'}", "4001", "store.Insert failed"},
};

TEST_F(IssueTest, MeetsItsChecksInOrder) {
  for (const char* package : {"alice", "bob", "any"}) {
    fs::create_directory(fs::path("/var/packages") / package);
  }
  WriteFile("/tmp/installed/alice", "{}");
  WriteFile("/tmp/installed/any", "{} trailing");
  CheckRows("token_manager.cpp", kIssueRows, [](const auto& request, const auto& user) {
    World world;
    world.store->failing = request["payload"] == "full" ? "Insert" : "";
    const auto issue = [&] {
      return world.Call(&TokenManager::IssueToken, {kOwner, user.asUInt(), 0}, request);
    };
    EXPECT_THROW(issue(), std::runtime_error);
    EXPECT_EQ(Text(world.response), "{'success':false}");
    EXPECT_TRUE(world.store->records.empty() && world.cache->records.empty());
    return issue();
  });
}

// A file below /var/packages with its text, where "->" makes a link to itself; and the package that
// alice is found to run, or the error.
constexpr const char* kNone = "token_manager.cpp:66 failed to get package name from uid";
const std::vector<Row> kPackageRows = {
    {"alice/INFO", "", "'alice'"},
    {"alice.pkg/INFO", "", "'alice'"},
    {"alice.v1.pkg/INFO", "", kNone},
    {"alice", "", "'alice'"},
    {"shop/conf/privilege", "{\"username\":\"alice\"}", "'shop'"},
    {"alice/conf/privilege", "{\"username\":\"bob\"}", kNone},
    {"alice/conf/privilege", "{\"username\":\"\"}", "'alice'"},
    {"alice/conf/privilege", "{\"username\":[\"bob\"]}", "'alice'"},
    {"alice/conf/privilege", "{}", "'alice'"},
    {"alice/conf/privilege", "{", "'alice'"},
    {"alice/conf/privilege", "->", "'alice'"},
    {"alice/conf/privilege/directory", "", "'alice'"},
    {"alice/conf", "", "'alice'"},
};

// What alice's new token grants: the name of the package, as each configuration has it.
std::string IssueForAlice() {
  World world;
  return Outcome([&] {
    world.Call(&TokenManager::IssueToken, kAlice, Value("{'service':'fake'}"));
    return world.store->records.at(world.response["token"].asString())["payload"];
  });
}

TEST_F(IssueTest, FindsThePackageThatRunsAsTheUser) {
  WriteFile("/tmp/installed/alice", "{\"fake\":\"alice\"}");
  WriteFile("/tmp/installed/shop", "{\"fake\":\"shop\"}");
  for (const Row& row : kPackageRows) {
    SCOPED_TRACE(std::string(row.first) + row.second);
    const fs::path path = fs::path("/var/packages") / row.first;
    WriteFile(path, row.second);
    if (std::string(row.second) == "->") {
      fs::remove(path);
      fs::create_symlink(path, path);
    }
    EXPECT_EQ(IssueForAlice(), row.outcome);
    fs::remove_all("/var/packages");
  }
  EXPECT_NE(IssueForAlice().find("No such file or directory"), std::string::npos);
}

TEST_F(IssueTest, TakesAnUnreadablePackageForOneWithoutPrivileges) {
  WriteFile("/var/packages/alice/conf/privilege", "{\"username\":\"bob\"}");
  WriteFile("/tmp/installed/alice", "[]");
  fs::permissions("/var/packages/alice", fs::perms::none);
  const auto issue_without_capabilities = [] {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const std::array<__user_cap_data_struct, 2> none{};
    return syscall(SYS_capset, &header, none.data()) == 0 &&
                   access("/var/packages/alice/conf", F_OK) != 0 && IssueForAlice() == "null"
               ? 0
               : 1;
  };
  EXPECT_EQ(Finish(Start(issue_without_capabilities)), 0);
}

TEST_F(IssueTest, RecordsWhoAskedAndWhen) {
  WriteFile("/var/packages/shop/conf/privilege", "{\"username\":\"alice\"}");
  WriteFile("/tmp/installed/shop", "{\"fake\":{\"granted\":[1]}}");
  World world;
  Json::Int64 last = 0;
  for (unsigned int round = 1; round <= 200; ++round) {
    world.Call(&TokenManager::IssueToken, kAlice, Value("{'service':'fake','token':'mine'}"));
    const std::string token = world.response["token"].asString();
    EXPECT_EQ(Text(world.response), "{'success':true,'token':'" + token + "'}");
    EXPECT_TRUE(token.size() >= 32 && token.size() <= 64) << token;
    EXPECT_EQ(token.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                      "0123456789-_.~"),
              std::string::npos);
    ASSERT_EQ(world.store->records.size(), round) << "each token is another";
    Json::Value record = world.store->records[token];
    EXPECT_EQ(record, world.cache->records[token]);
    EXPECT_GE(record["created_at"].asInt64(), last);
    last = record["created_at"].asInt64();
    record.removeMember("created_at");
    EXPECT_EQ(Text(record),
              "{'payload':{'granted':[1]},'pid':41,'requester':'alice','service':'fake'}");
  }
  EXPECT_EQ(world.Journal().substr(0, 26), "store.Insert cache.Insert ");
}

}  // namespace
}  // namespace ZELT::TokenManager

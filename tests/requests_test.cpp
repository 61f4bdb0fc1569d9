// Requests as a worker answers them.
#include <sys/mount.h>
#include <sys/resource.h>

#include "indexed_store.h"
#include "message.h"
#include "open_store.h"
#include "printing.h"
#include "request_handler.h"
#include "support/logged.h"
#include "support/peers.h"
#include "support/tables.h"

namespace ZELT::RequestsTests {

const std::string kInstalled = "/var/installed";
const std::string kProcess = std::to_string(getpid());
const StoreOptions kStore{.path = "/var/store/tokens.mdb"};
enum User : uid_t { kRoot = 0, kAlice = 4001, kBob, kAny, kCarol };
constexpr const char* kRefused = "{'success':false}";
constexpr const char* kDone = "{'success':true}";
constexpr const char* kPermitted = "{'permitted':true,'success':true}";

std::vector<Cells> Rows(const std::string& section) { return Section("requests.txt", section); }
std::string Lines(const std::string& section) { return SectionText("requests.txt", section); }

std::string With(const std::string& value, const std::string& name, const std::string& text) {
  return std::regex_replace(text, std::regex(name), value);
}

struct Worker {
  explicit Worker(bool audit = false, std::size_t slot = 0)
      : store(kStore, board.slots.at(slot)),
        handler(store, board, board.slots.at(slot), {kInstalled, "9.8", audit}) {}

  std::string Ask(uid_t user, const std::string& request, pid_t process = getpid()) {
    return Requoted(handler.Answer(From(user, process), Requoted(request)));
  }
  std::string AskFor(const std::string& type, const std::string& token,
                     const std::string& payload = "null", uid_t user = kAlice,
                     pid_t process = getpid()) {
    const std::string members = "','service':'fastapi','token':'" + token + "','payload':";
    return Ask(user, "{'type':'" + type + members + payload + "}", process);
  }
  std::string Issue(uid_t user = kAlice, pid_t process = getpid()) {
    const std::string answer = AskFor("issue", "", "[{'api':'A','method':'m'}]", user, process);
    issued.push_back(Value(answer)["token"].asString());
    return issued.back();
  }
  // The text with the ids of the tokens that were issued, for "ID1" and so on.
  std::string WithIds(std::string text) const {
    for (std::size_t i = issued.size(); i-- > 0;) {
      const std::string id = std::to_string(IdOf(KeyOf(issued[i])));
      text = With(id, "ID" + std::to_string(i + 1), text);
    }
    return text;
  }
  std::string Validate(const std::string& token, uid_t user = kAlice, pid_t process = getpid()) {
    return AskFor("validate", token, "{'api':'A','method':'m','runner':'x'}", user, process);
  }

  std::vector<std::string> issued;
  Board board;
  IndexedStore store;
  RequestHandler handler;
};

// On a machine whose packages "notes" of alice and "mail" of bob are granted the same, and "any"
// nothing.
struct WorkerTest : PrivateFiles {
  void SetUp() override {
    PrivateFiles::SetUp();
    if (IsSkipped()) return;
    for (const Cells& row : Rows("files of packages")) WriteFile(row.at(0), row.at(1));
    lock.emplace(kStore);
    RebuildStore(kStore);
  }
  std::optional<StoreLock> lock;
};

TEST_F(WorkerTest, SaysWhyItRefuses) {
  Worker worker;
  std::string token;
  EXPECT_EQ(Logged([&] { token = worker.Issue(); }), "");
  std::string many = "[0";
  while (many.size() < 2 * 257) many += ",0";
  many += "]";
  for (const Cells& row : Rows("refusals")) {
    const Peer peer = From(static_cast<uid_t>(std::stoul(row[0])), std::stoi(row[1]));
    const std::string request = With(many, "MANY", With(token, "TOKEN", row[2]));
    std::string answer;
    EXPECT_EQ(Logged([&] { answer = worker.handler.Answer(peer, request); }),
              "refused pid=" + row[1] + " uid=" + row[0] + " " + row[3] + "\n");
    const std::string reason = row[3].substr(row[3].find("reason=") + 7);
    const bool told = std::regex_search(row[3], std::regex("type=.(list|show|drop|status)"));
    EXPECT_EQ(answer, told ? "{\"reason\":" + reason + ",\"success\":false}" : Requoted(kRefused));
  }
  EXPECT_EQ(worker.board.slots[0].refusals.back(), 0U);  // all kinds are known
  std::string nuls;
  while (nuls.size() < 252) nuls += "\\u0000";  // as much as fits into 256 bytes
  const std::string hidden = "{'type':'" + nuls + nuls + "','service':'" + nuls + nuls + "'}";
  EXPECT_EQ(Logged([&] { worker.Ask(kAlice, hidden, 77); }),
            "refused pid=77 uid=4001 type=\"" + nuls + "\" service=\"" + nuls +
                "\" reason=\"unknown type of request\"\n");
  const std::string arrays(10001, '[');
  EXPECT_NE(Logged([&] { worker.Ask(kAlice, arrays); }).find("too many values"), many.npos);
  const std::string longest(zeltdaemon::kMaxRequestBytes + 1, ' ');
  EXPECT_NE(Logged([&] { worker.Ask(kAlice, longest); }).find("too long"), many.npos);
  EXPECT_EQ(worker.AskFor("validate", token), "{'permitted':null,'success':false}");
  EXPECT_EQ(worker.Validate(token), kPermitted);
  fs::remove_all("/var/packages");
  const std::string log = Logged([&] { worker.Issue(); });
  EXPECT_NE(log.find("No such file or directory: "), log.npos);
}

TEST_F(WorkerTest, LooksForAPackageOfAUserOnceASecond) {
  Worker worker;
  const auto log = [&] { return Logged([&] { worker.Issue(kCarol); }); };
  EXPECT_TRUE(Eventually([&] {
    WriteFile("/var/packages/shop/conf/privilege", "{");
    const std::string looked = log();
    fs::remove_all("/var/packages/shop");
    return looked.find("shop/conf/privilege: not JSON") != looked.npos && log() == looked;
  }));
  WriteFile("/var/packages/carol", "");
  WriteFile(kInstalled + "/carol", Requoted("{'fastapi':[{'api':'A','method':'m'}]}"));
  EXPECT_TRUE(Eventually([&] { return !worker.Issue(kCarol).empty(); }));
}

TEST_F(WorkerTest, TakesATokenThroughItsLifeAndNotesIt) {
  const pid_t heir = Start([] { return pause(); });
  Worker worker(true);
  const std::string log = Logged([&] {
    const std::string token = worker.Issue();
    EXPECT_EQ(worker.Validate(token, 65534, 0), kPermitted);
    EXPECT_EQ(worker.AskFor("inspect", token, "null", 65534, 0),
              "{'age':0,'alive':true,'payload':[{'api':'A','method':'m','runner':'any'}],"
              "'requester':'alice','success':true}");
    EXPECT_EQ(worker.AskFor("transfer", token, std::to_string(heir)), kDone);
    EXPECT_EQ(worker.AskFor("revoke", token), kRefused);
    EXPECT_EQ(worker.AskFor("revoke", worker.Issue()), kDone);
    EXPECT_EQ(worker.Ask(kRoot, "{'type':'drop','user':'alice'}"), "{'dropped':1,'success':true}");
    EXPECT_EQ(worker.Validate(token), kRefused);
    EXPECT_EQ(worker.AskFor("inspect", token), kRefused);
  });
  EXPECT_EQ(log, worker.WithIds(
                     With(kProcess, "SELF", With(std::to_string(heir), "HEIR", Lines("audit")))));
  EndProcess(heir);
}

TEST_F(WorkerTest, DoesNothingWhenTheChangeDoesNotLast) {
  // As on a disk, LMDB writes with system calls.
  Check(mount("ramfs", "/var/store", "ramfs", 0, "mode=700"), "ramfs");
  lock.emplace(kStore);
  RebuildStore(kStore);
  Worker worker(true);
  const std::string token = worker.Issue();
  const auto limit_files = [](rlim_t bytes) {
    const rlimit limit{.rlim_cur = bytes, .rlim_max = RLIM_INFINITY};
    Check(setrlimit(RLIMIT_FSIZE, &limit), "setrlimit");
  };
  signal(SIGXFSZ, SIG_IGN);
  const std::string log = Logged([&] {
    limit_files(4096);  // enough for the log
    EXPECT_EQ(worker.Issue(), "");
    EXPECT_EQ(worker.AskFor("revoke", token), kRefused);
    EXPECT_EQ(worker.AskFor("transfer", token, kProcess), kRefused);
    limit_files(RLIM_INFINITY);
  });
  EXPECT_EQ(log.find("audit"), log.npos) << log;
  EXPECT_EQ(worker.Validate(token), kPermitted);
  EXPECT_EQ(worker.AskFor("revoke", token), kDone);
}

// Another worker has begun a change and does not go on with it.
TEST_F(WorkerTest, WaitsForOthersOnlyToUseTheStore) {
  const pid_t other = Start([] {
    Worker stopped;
    stopped.store.Change(From(kRoot), [&] {
      stopped.store.Remove("x");
      WriteFile("/tmp/begun", "");
      pause();
    });
    return 0;
  });
  ASSERT_TRUE(Eventually([] { return fs::exists("/tmp/begun"); }));
  Worker worker;
  EXPECT_EQ(worker.Issue(kCarol), "");
  EXPECT_EQ(worker.AskFor("transfer", "x", "'x'"), kRefused);
  EXPECT_EQ(worker.Validate("x"), kRefused);
  EndProcess(other);
  EXPECT_NE(worker.Issue(), "");
}

TEST_F(WorkerTest, DoesNotLetAUserFloodTheLog) {
  Worker worker;
  LineAllowance allowance(worker.board.lines);
  Peer bob = From(kBob);
  bob.lines = &allowance;
  const std::string log = Logged([&] {
    for (int i = 0; i < 1000; ++i) worker.handler.Answer(bob, "");
  });
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), LineAllowance::kEachSecond);
  EXPECT_EQ(allowance.Renew(), 1000 - LineAllowance::kEachSecond);
  EXPECT_NE(Logged([&] { worker.handler.Answer(bob, ""); }), "");
}

TEST_F(WorkerTest, LetsAnAdministratorLookAfterTokens) {
  const pid_t ended = Start([] { return pause(); });
  Worker worker;
  worker.Issue(kAlice, ended);
  worker.Issue();
  EndProcess(ended);
  worker.Issue(kBob);
  for (const Cells& row : Rows("conditions")) {
    const std::string ids = worker.WithIds(row[1]);
    const Json::Value tokens = Value(worker.Ask(kRoot, Requoted(row[0])))["tokens"];
    EXPECT_EQ(tokens.size(), std::count(row[1].begin(), row[1].end(), 'I')) << row[0];
    for (const Json::Value& token : tokens) EXPECT_NE(ids.find(token["id"].asString()), ids.npos);
  }
  for (const Cells& row : Rows("drops")) {
    const std::string answer = worker.handler.Answer(From(kRoot), worker.WithIds(row[0]));
    EXPECT_EQ(With("\"age\":0", "\"age\":\\d\\b", answer),
              worker.WithIds(With(kProcess, "SELF", With(std::to_string(ended), "GONE", row[1]))));
  }
}

TEST_F(WorkerTest, AnswersInPages) {
  Worker worker;
  for (int i = 0; i < 250; ++i) worker.Issue(i % 2 == 0 ? kAlice : kBob);
  std::string sizes;
  for (Json::Value after = 0; !after.isNull();) {
    const std::string request = "{'type':'list','after':" + after.asString() + "}";
    const Json::Value page = Value(worker.Ask(kRoot, request));
    sizes += std::to_string(page["tokens"].size()) + " ";
    after = page["next"];
  }
  EXPECT_EQ(sizes, "100 100 50 ");
  EXPECT_EQ(Value(worker.Ask(kRoot, "{'type':'drop','user':'alice'}"))["dropped"], 100);
}

TEST_F(WorkerTest, CountsWhatWorkersDo) {
  Worker worker;
  worker.board.slots[0].pid = worker.board.slots[3].pid = 1;
  worker.board.slots[3].refused.back() = 40;
  worker.board.deaths = 5;
  worker.board.lines.lost = 2;
  worker.board.lines.held_back = 3;
  worker.board.slots[0].orphans = 6;
  worker.board.slots[3].waiting = 7;
  worker.board.slots[3].time = 5'000'000'000'000'000;
  for (const User user : {kAlice, kBob, kCarol}) worker.Issue(user);
  worker.Validate("x");
  worker.Ask(kBob, "");
  Json::Value status = Value(worker.Ask(kRoot, "{'type':'status'}"));
  const WorkerSlot& slot = worker.board.slots[0];
  EXPECT_TRUE(slot.client_user == 0 && slot.client_process == getpid());
  EXPECT_TRUE(slot.type == RequestType::kStatus && slot.activity == Activity::kIdle);
  const auto take = [](Json::Value& object, const char* name) {
    Json::Value taken;
    EXPECT_TRUE(object.removeMember(name, &taken)) << name;
    return taken;
  };
  Json::UInt64 timed = 0;
  const Json::Value times = take(status, "service_times");
  for (const Json::Value& count : times["counts"]) timed += count.asUInt64();
  EXPECT_EQ(timed, 5U);
  EXPECT_EQ(times["sum_us"].asUInt64() / 1'000'000'000'000, 5U);
  EXPECT_GT(take(status, "uptime").asInt64(), 0);
  EXPECT_GT(take(status["store"], "used").asInt64(), 0);
  for (Json::Value& row : status["usage"]) EXPECT_GT(take(row, "bytes").asInt(), 0);
  Json::Value& requests = status["requests"];
  for (const std::string& type : requests.getMemberNames()) {
    if (requests[type] == Value("{'done':0,'refused':0}")) requests.removeMember(type);
  }
  EXPECT_EQ(TokenManager::toString(status) + "\n", Lines("status"));
}

// The example in the documentation.
TEST(PrintingTest, GrantsPrintersAndPermitsUsers) { CheckService<Printing>("printing"); }

}  // namespace ZELT::RequestsTests

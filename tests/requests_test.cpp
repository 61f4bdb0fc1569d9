#include <sys/syscall.h>
#include <sysexits.h>

#include "admission.h"
#include "message.h"
#include "printing.h"
#include "support/logged.h"
#include "support/one_handler.h"

namespace {
bool meta_fails = false;
}  // namespace

// Stands in for the C library's, which LMDB calls. Its meta pages are the first two.
extern "C" [[gnu::visibility("default")]] ssize_t Write(int fd, const void* from, std::size_t size,
                                                        off_t at) asm("pwrite");
extern "C" ssize_t Write(int fd, const void* from, std::size_t size, off_t at) {
  if (meta_fails && at < 8192) return errno = EIO, -1;
  return syscall(SYS_pwrite64, fd, from, size, at);
}

namespace ZELT::RequestsTests {

TEST_F(WorkerTest, SaysWhyItRefuses) {
  Worker worker;
  std::string token;
  EXPECT_EQ(Logged([&] { token = worker.Issue(); }), "");
  Json::Value many;
  many.resize(257);
  for (const Cells& row : Rows("refusals")) {
    const Peer peer = From(static_cast<uid_t>(std::stoul(row[0])), std::stoi(row[1]));
    const std::string request =
        With(TokenManager::toString(many), "MANY", With(token, "TOKEN", row[2]));
    std::string line = row[3];
    if (line[0] == '"') {
      line = "type=" + TokenManager::toString(Value(Requoted(request))["type"]) +
             " service=none reason=" + line;
    }
    std::string answer;
    EXPECT_EQ(Logged([&] { answer = worker.handler.Answer(peer, request); }),
              "refused pid=" + row[1] + " uid=" + row[0] + " " + line + "\n");
    const std::string reason = line.substr(line.find("reason=") + 7);
    const bool told = std::regex_search(line, std::regex("type=.(list|show|drop|status)"));
    EXPECT_EQ(answer, told ? "{\"reason\":" + reason + ",\"success\":false}" : Requoted(kRefused));
  }
  std::string kinds;
  for (const auto& count : worker.board.slots[0].refusals) kinds += std::to_string(count) + " ";
  EXPECT_EQ(kinds, "15 4 3 2 1 2 0 ");
  std::string nuls;
  while (nuls.size() < 252) nuls += "\\u0000";  // as much as fits into 256 bytes
  const std::string hidden = "{'type':'" + nuls + nuls + "','service':'" + nuls + nuls + "'}";
  EXPECT_EQ(Logged([&] { worker.Ask(kAlice, hidden, 77); }),
            "refused pid=77 uid=4001 type=\"" + nuls + "\" service=\"" + nuls +
                "\" reason=\"unknown type of request\"\n");
  const std::string arrays =
      std::string(3334, '[') + std::string(3334, ',') + std::string(3333, '{');
  EXPECT_NE(Logged([&] { worker.Ask(kAlice, arrays); }).find("too many values"), std::string::npos);
  const std::string longest(zeltdaemon::kMaxRequestBytes + 1, ' ');
  EXPECT_NE(Logged([&] { worker.Ask(kAlice, longest); }).find("too long"), std::string::npos);
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
  EXPECT_EVENTUALLY(!worker.Issue(kCarol).empty());
}

TEST_F(WorkerTest, TakesATokenThroughItsLifeAndNotesIt) {
  const pid_t heir = Start([] { return pause(); });
  Worker worker(true);
  const std::string log = Logged([&] {
    const std::string token = worker.Issue(kAlice, getpid(), ",'expires_in':9223372036854775807");
    EXPECT_EQ(worker.Validate(token, 65534, 0), kPermitted);
    EXPECT_EQ(worker.AskFor("inspect", token, "null", 65534, 0),
              "{'age':0,'alive':true,'expires_in':3153600000,'payload':[{'api':'A','method':'m','"
              "runner':'any'}],"
              "'requester':'alice','success':true}");
    EXPECT_NE(worker.Ask(kRoot, "{'type':'list'}").find("'expires_in':3153"), std::string::npos);
    EXPECT_EQ(worker.AskFor("transfer", token, std::to_string(heir)), kDone);
    EXPECT_EQ(worker.AskFor("revoke", token), kRefused);
    EXPECT_EQ(worker.AskFor("revoke", worker.Issue()), kDone);
    EXPECT_EQ(worker.Ask(kRoot, "{'type':'drop','user':'alice'}"), "{'dropped':1,'success':true}");
    EXPECT_EQ(worker.Validate(token), kRefused);
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
  const std::string log = Logged([&] {
    LimitFiles(4096);  // enough for the log
    EXPECT_EQ(worker.Issue(), "");
    EXPECT_EQ(worker.AskFor("revoke", token), kRefused);
    EXPECT_EQ(worker.AskFor("transfer", token, kProcess), kRefused);
    LimitFiles(RLIM_INFINITY);
  });
  EXPECT_EQ(log.find("audit"), log.npos) << log;
  const auto fail = [] {
    Worker failing;
    meta_fails = true;
    failing.Issue();
    return failing.store.AfterAnswer(), 0;
  };
  EXPECT_EQ(Finish(Start(fail)), EX_IOERR) << "LMDB gave up";
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
  EXPECT_EVENTUALLY(fs::exists("/tmp/begun"));
  Worker worker;
  EXPECT_EQ(worker.Issue(kCarol), "");
  EXPECT_EQ(worker.AskFor("transfer", "x", "'x'"), kRefused);
  EXPECT_EQ(worker.Validate("x"), kRefused);
  const std::jthread next([&] { EXPECT_NE(worker.Issue(), ""); });
  const auto& activity = worker.board.slots[0].activity;
  EXPECT_EVENTUALLY(activity == Activity::kWaitingForStore);
  EndProcess(other);
}

TEST_F(WorkerTest, DoesNotLetAUserFloodTheLog) {
  Worker worker;
  LineAllowance allowance(worker.board.lines);
  Peer bob = From(kBob);
  bob.lines = &allowance;
  const std::string log = Logged([&] {
    for (int i = 0; i < 1000; ++i) worker.handler.Answer(bob, "");
  });
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 20);
  EXPECT_EQ(allowance.Renew(), 980U);
  EXPECT_EQ(worker.board.lines.held_back, 980U);
  EXPECT_NE(Logged([&] { worker.handler.Answer(bob, ""); }), "");
}

TEST_F(WorkerTest, LetsAnAdministratorLookAfterTokens) {
  const pid_t ended = Start([] { return pause(); });
  Worker worker;
  worker.Issue(kAlice, ended);
  worker.Issue();
  siginfo_t end{};
  kill(ended, SIGKILL);
  waitid(P_PID, static_cast<id_t>(ended), &end, WEXITED | WNOWAIT);  // leaves a zombie
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

TEST_F(WorkerTest, KnowsWhoAsks) {
  const auto administers = [](uid_t user) { return Administration::IsAdministrator(From(user)); };
  const auto own = [&] { return administers(kAlice) && !administers(kBob) ? 7 : 0; };
  EXPECT_EQ(Finish(Start(own, kAlice)), 7);
  const auto unmapped = [&] {
    // A process with threads, as sanitizers start them, cannot do this.
    if (unshare(CLONE_NEWUSER) != 0) return 7;
    const auto ask = [] { ExpectSender(Sender::kProcess, From(65534)); };
    return !administers(65534) && Outcome(ask).find("not mapped") != std::string::npos ? 7 : 0;
  };
  EXPECT_EQ(Finish(Start(unmapped)), 7);
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
  const Json::Value page = Value(worker.Ask(kRoot, "{'type':'drop','user':'alice'}"));
  EXPECT_TRUE(page["dropped"] == 100 && page.isMember("next"));
}

static_assert(TimeBucket(std::chrono::nanoseconds(4000)) == 2);
static_assert(TimeBucket(std::chrono::nanoseconds(4001)) == 3);

TEST_F(WorkerTest, CountsWhatWorkersDo) {
  Worker worker;
  worker.board.slots[0].pid = worker.board.slots[3].pid = 1;
  worker.board.slots[3].refused.back() = 40;
  worker.board.deaths = 5;
  worker.board.lines.lost = 2;
  worker.board.lines.held_back = 3;
  worker.board.slots[0].orphans = 6;
  worker.board.slots[3].waiting = 7;
  worker.board.slots[0].time = 5'000'000'000'000'000;
  for (const User user : {kAlice, kBob, kCarol}) worker.Issue(user);
  worker.Validate("x");
  worker.Ask(kBob, "");
  Json::Value status = Value(worker.Ask(kRoot, "{'type':'status','after':4002}"));
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
  EXPECT_TRUE(times["bounds_us"].size() == 19 && times["bounds_us"][18] == 1 << 18);
  EXPECT_EQ(times["sum_us"].asUInt64() / 1'000'000'000'000, 5U);
  EXPECT_GT(take(status, "uptime").asInt64(), 0);
  EXPECT_GT(take(status["store"], "used").asInt64(), 99);
  for (Json::Value& row : status["usage"]) EXPECT_GT(take(row, "bytes").asInt(), 99);
  Json::Value& requests = status["requests"];
  for (const std::string& type : requests.getMemberNames()) {
    if (requests[type] == Value("{'done':0,'refused':0}")) requests.removeMember(type);
  }
  EXPECT_EQ(TokenManager::toString(status) + "\n", Lines("status"));
}

// The example in the documentation.
TEST(PrintingTest, GrantsPrintersAndPermitsUsers) { CheckService<Printing>("printing"); }

}  // namespace ZELT::RequestsTests

#include <sys/syscall.h>

#include <atomic>

#include "database.h"
#include "process.h"
#include "support/fake_daemon.h"
#include "support/one_worker.h"

namespace {
std::atomic<time_t> ahead = 0;  // in seconds
}  // namespace

// Stands in for the C library's, and puts the clocks forward by which tokens grow old.
extern "C" [[gnu::visibility("default")]] int clock_gettime(clockid_t clock, timespec* time) {
  const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  if (clock != CLOCK_MONOTONIC) time->tv_sec += ahead;
  return result;
}

namespace ZELT::StoreTests {

constexpr uid_t kBob = 4002;
constexpr const char* kUnknown = "the store has no such token";
constexpr const char* kStranger =
    "the peer has the process id of the owner, but is another process";

pid_t StartSleeper() {
  return Start([] { return pause(); });
}

using StoreTest = PrivateFiles;

TEST_F(StoreTest, KeepsTokensOverRestartsAndNoChangeThatWasNotCommitted) {
  {
    const Daemon daemon;
    for (const char* token : {"a", "b"}) EXPECT_EQ(daemon.Issue(token), "done");
    EXPECT_EQ(daemon.Issue("a"), "another token has the same id");
    EXPECT_EQ(daemon.Issue("c", From(kBob)), "done");
    EXPECT_EQ(daemon.Revoke("c", From(kBob)), "done");
    daemon.InChange(From(kAlice), [&](TokenStore& store) {
      Json::Value data = store.GetAssociatedData("a");
      data["pid"] = getppid();
      store.Remove("a");
      EXPECT_EQ(daemon.Pid("a"), kUnknown);
      store.Insert("a", data);
      store.Drop({.ids = {IdOf(KeyOf("b"))}}, 0);
      throw std::runtime_error("not committed");
    });
  }
  WriteFile("/tmp/store/tokens.mdb.new", "of a start that was killed");
  const Daemon daemon;
  EXPECT_EQ(daemon.Pid("a"), std::to_string(getpid()));
  EXPECT_EQ(daemon.Issue("d", From(kBob)), "done");
  EXPECT_EQ(daemon.List(), "abd");
  EXPECT_EQ(daemon.List({.user = kAlice, .ids = {IdOf(KeyOf("d")), 300, IdOf(KeyOf("a"))}}), "a");
}

TEST_F(StoreTest, OwnersAreProcessesAndNotNumbers) {
  const Daemon daemon;
  const pid_t other = StartSleeper();
  static std::atomic<pid_t> thread_number = 0;
  std::thread([] { thread_number = gettid(), pause(); }).detach();
  EXPECT_EVENTUALLY(thread_number != 0);
  EXPECT_EQ(daemon.Issue("a"), "done");
  const pid_t zombie = StartSleeper();
  kill(zombie, SIGKILL);
  EXPECT_EVENTUALLY(!IdentifyProcess(zombie));
  for (const pid_t pid : {0, -1, thread_number.load(), zombie, 1 << 22}) {
    EXPECT_THAT(daemon.Transfer("a", pid), StartsWith("no living process has the id"));
    EXPECT_THAT(daemon.Issue("b", From(kAlice, pid)), HasSubstr("is gone"));
  }
  EXPECT_EQ(daemon.Revoke("a", From(kAlice, other)), kStranger);

  // Whoever connected before the owner had started is not the owner, though the number be the same.
  Peer early = From(kAlice, other);
  early.accepted = std::chrono::nanoseconds(1);
  EXPECT_THAT(daemon.Issue("b", early), HasSubstr("is gone"));
  EXPECT_EQ(daemon.Transfer("a", other), "done");
  for (const Peer& peer : {From(kAlice), early}) EXPECT_EQ(daemon.Revoke("a", peer), kStranger);
  EXPECT_EQ(daemon.List({.user = kAlice}), "a");  // the user who asked for it stays
  EXPECT_EQ(daemon.Pid("a"), std::to_string(other));
  EXPECT_EQ(daemon.opened.store->List({}, 0).rows[0].pid, other);
  EXPECT_EQ(daemon.List({.orphans = true}), "");
}

TEST_F(StoreTest, TellsWhichProcessesLive) {
  const ProcessIdentity self = *IdentifyProcess(getpid());
  Judge judge;
  EXPECT_FALSE(judge.IsDead(self));
  EXPECT_TRUE(judge.IsDead({self.pid, self.start + 1, self.boot})) << "with the same number";
  EXPECT_TRUE(judge.IsDead({self.pid, self.start, {}})) << "of another boot";
  EXPECT_EQ(Finish(Start([] { return IdentifyProcess(1) ? 0 : 1; }, kAlice)), 0) << "of root";
  EXPECT_GT(Age({}), std::chrono::hours(24 * 365)) << "from a boot in 1970";
  EXPECT_GT(Age({.wall_time = INT64_MAX / 2}).count(), 0) << "the clock was wrong then";
  // The kernel may tell that a client has ended (Linux 6.5).
  const OwnedDescriptor listener = ListenAt("/tmp/listener");
  Finish(Start([] {
    return TokenManager::UnixAddress("/tmp/listener").Connect(socket(AF_UNIX, SOCK_STREAM, 0));
  }));
  Peer ended = From(kAlice);
  ended.connection = accept(listener.Get(), nullptr, nullptr);
  int process_descriptor = -1;
  socklen_t length = sizeof process_descriptor;
  const bool is_older =
      getsockopt(ended.connection, SOL_SOCKET, 77, &process_descriptor, &length) != 0 &&
      errno == ENOPROTOOPT;
  EXPECT_EQ(IdentifyPeer(ended).has_value(), is_older);
  // The first thread may end before the process does.
  const pid_t process = Start([] {
    prctl(PR_SET_NAME, "a) R 1 (\xff");
    std::thread([] { pause(); }).detach();
    return static_cast<int>(syscall(SYS_exit, 0));
  });
  const std::string status = "/proc/" + std::to_string(process) + "/stat";
  EXPECT_EVENTUALLY(ReadFile(status).find("\xff) Z ") != std::string::npos);
  EXPECT_TRUE(IdentifyProcess(process));
  EXPECT_EQ(ProcessName(process), "a) R 1 (?");
  EndProcess(process);
}

TEST_F(StoreTest, LimitsUsersAndThenDropsTheirOrphans) {
  const Daemon daemon({.path = kPath, .tokens_per_user = 20});
  TokenStore& store = *daemon.opened.store;
  const pid_t dead = StartSleeper();
  for (char token = 'A'; token < 'S'; ++token) daemon.Issue({token}, From(kAlice, dead));
  for (const char* token : {"d", "e"}) EXPECT_EQ(daemon.Issue(token), "done");
  EXPECT_THAT(daemon.Issue("f"), HasSubstr("user 4001 holds 20 of at most 20 tokens"));
  EXPECT_EQ(daemon.Issue("g", From(kBob, dead)), "done");
  EndProcess(dead);
  EXPECT_NE(daemon.Issue("f"), "done") << "nobody was refused a token since then";
  EXPECT_EQ(daemon.Issue("f"), "done");
  EXPECT_EQ(daemon.List(), "defg");
  for (int walk = 0; walk < 2; ++walk) store.EverySecond();
  EXPECT_EQ(daemon.slot.orphans, 1U);
  for (uid_t user = 0; user <= 1024; ++user) daemon.Issue(std::to_string(user), From(user));
  EXPECT_EQ(daemon.Issue("A", From(999)), "done") << "a token of another service";
  EXPECT_EQ(store.Usage(0).next, 1000U) << "who is on the next page";
  EXPECT_EQ(store.Usage(1000).rows[0].uid, 1000U);
  const auto page = store.List({.service = "taskmanager"}, 0);
  EXPECT_EQ(page.rows.size(), 0U);
  EXPECT_EQ(store.List({.service = "taskmanager"}, page.next.value()).next, std::nullopt);
}

TEST_F(StoreTest, RefusesAndDropsTokensThatAreTooOld) {
  using namespace std::chrono_literals;
  {
    const pid_t ending = StartSleeper();
    const Daemon daemon({.path = kPath, .drop_orphans_after = 1h});
    TokenStore& store = *daemon.opened.store;
    daemon.Issue("a");
    daemon.Issue("b", From(kAlice), "[]", 60s);
    daemon.Issue("c", From(kAlice, ending));
    EXPECT_EQ(store.Inspect("a").expires_in, std::nullopt);
    EXPECT_EQ(store.Inspect("b").expires_in, 60s);
    ahead = 59;
    EXPECT_EQ(daemon.Transfer("b", ending), "done");
    ahead = 61;
    EXPECT_EQ(daemon.Pid("b"), kUnknown);
    ahead = 2 * 3600;
    EndProcess(ending);
    store.EverySecond();
    EXPECT_EQ(daemon.List(), "ac") << "an orphan that was found now";
    ahead = 3 * 3600 - 1;
    EXPECT_FALSE(store.Inspect("c").alive);
    ahead = 3 * 3600 + 1;
    EXPECT_EQ(daemon.Pid("c"), kUnknown);
    store.EverySecond();
    EXPECT_EQ(daemon.List(), "a");
  }
  const Daemon daemon({.path = kPath, .tokens_per_user = 1, .max_age = 3h});
  EXPECT_EQ(daemon.Pid("a"), kUnknown);
  EXPECT_THAT(daemon.Issue("c"), HasSubstr("holds 1 of at most 1 tokens"));
  EXPECT_EQ(daemon.Issue("c", From(kAlice), "[]", 4h), "done") << "in the place of the old one";
  EXPECT_EQ(daemon.opened.store->Inspect("c").expires_in, 3h);
  daemon.Issue("d", From(kBob), "[]", 1h);
  EXPECT_EQ(daemon.opened.store->Inspect("d").expires_in, 1h);
}

// Four users, who have the store for themselves.
TEST_F(StoreTest, GivesEachUserAQuarterAndTakesItBack) {
  const Daemon daemon({.path = kPath, .bytes = 1U << 20});
  const std::string large = "'" + std::string(60'000, 'x') + "'";
  EXPECT_THAT(daemon.Issue("b", From(kAlice), "[" + large + "," + large + "]"),
              HasSubstr("more than 65536"));
  for (int round = 0; round < 3; ++round) {
    std::vector<std::string> held;
    for (uid_t user = 0; user < 4; ++user) {
      std::string outcome;
      for (std::size_t i = 0; outcome.empty() || outcome == "done"; ++i) {
        held.push_back(std::to_string(i) + "of" + std::to_string(user));
        const std::string payload = "'" + std::string(i * 97 % 3000, 'x') + "'";
        outcome = daemon.Issue(held.back(), From(user), payload);
      }
      held.pop_back();
      EXPECT_THAT(outcome, HasSubstr("of at most 262144 bytes"));
    }
    EXPECT_GT(held.size(), 320U);
    EXPECT_THAT(daemon.Issue("another", From(5), large), HasSubstr("the store is full: 10"));
    for (const auto& token : held) EXPECT_EQ(daemon.Transfer(token, getpid()), "done");
    for (const auto& token : held) EXPECT_EQ(daemon.Revoke(token), "done");
  }
}

TEST_F(StoreTest, WaitsForAReaderThatWasStoppedToBeKilled) {
  const StoreOptions options{.path = kPath, .bytes = 1U << 20, .users_share = 1};
  Daemon(options).Issue("a");
  const pid_t reader = Start([&] {
    Database database(options.path, Database::Use::kServe);
    const Reading reading = database.Read();
    return raise(SIGSTOP);
  });
  EXPECT_EQ(waitpid(reader, nullptr, WUNTRACED), reader);
  const Daemon daemon(options);
  std::atomic<int> done = 0;
  std::jthread writer([&] {
    while (done < 5000 && daemon.Transfer("a", getpid()) == "done") ++done;
  });
  EXPECT_TRUE(Eventually([&] {
    const int before = done;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return done == before && before > 0;
  }));
  EXPECT_LT(done, 5000);
  EXPECT_TRUE(daemon.slot.activity == Activity::kWaitingForStore);
  EndProcess(reader);
  writer.join();
  EXPECT_EQ(done, 5000);
  EXPECT_TRUE(daemon.slot.activity == Activity::kServing && daemon.slot.seen != 0);
}

}  // namespace ZELT::StoreTests

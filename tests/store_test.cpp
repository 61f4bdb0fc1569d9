#include <fnmatch.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <atomic>

#include "database.h"
#include "expiry.h"
#include "open_store.h"
#include "process.h"
#include "rebuild.h"
#include "support/peers.h"
#include "support/tables.h"

namespace ZELT::StoreTests {

using testing::HasSubstr;
using testing::StartsWith;

constexpr uid_t kAlice = 4001;
constexpr uid_t kBob = 4002;
constexpr const char* kPath = "/tmp/store/tokens.mdb";
const StoreOptions kOptions{.path = kPath};
constexpr const char* kUnknown = "the store has no such token";
constexpr const char* kStranger =
    "the peer has the process id of the owner, but is another process";

/// A daemon of one worker, with what a token manager does with its store.
struct Daemon {
  explicit Daemon(const StoreOptions& store_options = kOptions) : options(store_options) {
    if (options.format == StoreFormat::kIndexed) RebuildStore(options);
    lock.LockRebuilt();
    opened = OpenStore(options, lock, slot);
  }

  std::string InChange(const Peer& peer, const std::function<void(TokenStore&)>& use) const {
    const auto change = [&] {
      StoreChange begun(*opened.store, peer);
      use(*opened.store);
      begun.Commit();
    };
    return Outcome([&] {
      try {
        change();
      } catch (const NoRoom&) {
        if (!opened.store->AwaitRoom()) throw;
        change();
      }
    });
  }

  std::string Issue(const std::string& token, const Peer& peer = From(kAlice),
                    const std::string& payload = "[]") const {
    const std::string data =
        "{'requester':'alice','service':'fastapi','pid':" + std::to_string(peer.credential.pid) +
        ",'payload':" + payload + "}";
    return InChange(peer, [&](TokenStore& store) { store.Insert(token, Value(data)); });
  }

  // Revokes it, or transfers it to an heir.
  std::string Revoke(const std::string& token, const Peer& peer = From(kAlice),
                     std::optional<pid_t> heir = {}) const {
    return InChange(peer, [&](TokenStore& store) {
      Json::Value data = store.GetAssociatedData(token);
      store.Remove(token);
      data["pid"] = heir.value_or(0);
      if (heir) store.Insert(token, data);
    });
  }
  std::string Transfer(const std::string& token, pid_t heir) const {
    return Revoke(token, From(kAlice), heir);
  }

  std::string Pid(const std::string& token) const {
    return Outcome([&] { return opened.store->GetAssociatedData(token)["pid"]; });
  }

  std::string Ids(const TokenFilter& filter = {}) const {
    std::string ids;
    for (const TokenRow& row : opened.store->List(filter, 0).rows) {
      ids += std::to_string(row.id) + ",";
    }
    return ids;
  }

  StoreOptions options;
  StoreLock lock{options};
  WorkerSlot slot;
  OpenedStore opened;
};

// A store with some hundred tokens.
void Fill() {
  const Daemon daemon;
  for (int i = 0; i < 300; ++i) EXPECT_EQ(daemon.Issue("t" + std::to_string(i)), "done");
}

pid_t StartSleeper() {
  return Start([] { return pause(); });
}

using StoreTest = PrivateFiles;

TEST_F(StoreTest, KeepsTokensOverRestartsAndNoChangeThatWasNotCommitted) {
  {
    const Daemon daemon;
    for (const char* token : {"a", "b", "c"}) EXPECT_EQ(daemon.Issue(token), "done");
    EXPECT_THAT(daemon.Issue("a"), HasSubstr("MDB_KEYEXIST"));
    EXPECT_EQ(daemon.Revoke("c"), "done");
    TokenStore& store = *daemon.opened.store;
    EXPECT_EQ(store.ChangedId(), 3U);
    for (const bool reinserted : {false, true}) {
      const StoreChange change(store, From(kAlice));
      Json::Value data = store.GetAssociatedData("a");
      data["pid"] = getppid();
      store.Remove("a");
      EXPECT_EQ(daemon.Pid("a"), kUnknown);
      if (reinserted) store.Insert("a", data);
      EXPECT_EQ(Outcome([&] { store.Drop({.ids = {1}}, 0); }), "~a change is already in progress");
    }
  }
  const Daemon daemon;
  EXPECT_EQ(daemon.Pid("a"), std::to_string(getpid()));
  for (const std::string& token : {std::string("c"), std::string(), std::string(600, 'x')}) {
    EXPECT_EQ(daemon.Pid(token), kUnknown);
  }
  EXPECT_EQ(daemon.Issue("d"), "done");
  EXPECT_EQ(daemon.Ids(), "1,2,4,");  // no id comes again
  EXPECT_EQ(daemon.Ids({.user = kAlice, .ids = {4, 300, 1, 4}}), "1,4,");
}

TEST_F(StoreTest, OwnersAreProcessesAndNotNumbers) {
  const Daemon daemon;
  const pid_t other = StartSleeper();
  static std::atomic<pid_t> thread_number = 0;
  std::thread([] { thread_number = gettid(), pause(); }).detach();
  EXPECT_TRUE(Eventually([&] { return thread_number != 0; }));
  EXPECT_EQ(daemon.Issue("a"), "done");
  const pid_t zombie = StartSleeper();
  kill(zombie, SIGKILL);
  EXPECT_TRUE(Eventually([&] { return !IdentifyProcess(zombie); }));
  for (const pid_t pid : {0, -1, thread_number.load(), zombie, 1 << 22}) {
    EXPECT_THAT(daemon.Transfer("a", pid), StartsWith("no living process has the id"));
    if (pid == thread_number) continue;  // never a peer's id
    EXPECT_THAT(daemon.Issue("b", From(kAlice, pid)), HasSubstr("is gone"));
  }
  EXPECT_EQ(daemon.Revoke("a", From(kAlice, other)), kStranger);

  // Whoever connected before the owner had started is not the owner, though the number be the same.
  Peer early = From(kAlice, other);
  early.accepted = std::chrono::nanoseconds(1);
  EXPECT_THAT(daemon.Issue("b", early), HasSubstr("is gone"));
  EXPECT_EQ(daemon.Transfer("a", other), "done");
  EXPECT_EQ(daemon.Revoke("a"), kStranger);
  EXPECT_EQ(daemon.Revoke("a", early), kStranger);
  EXPECT_EQ(daemon.Ids({.user = kAlice}), "1,");  // the user who asked for it, and the id, stay
  EXPECT_EQ(daemon.Pid("a"), std::to_string(other));
  EXPECT_EQ(daemon.opened.store->List({}, 0).rows[0].pid, other);
  EXPECT_EQ(daemon.Ids({.orphans = true}), "");
  EndProcess(other);
  EXPECT_EQ(daemon.Ids({.orphans = true}), "1,");
}

TEST_F(StoreTest, TellsWhichProcessesLive) {
  const ProcessIdentity self = *IdentifyProcess(getpid());
  RecordHeader header;
  header.SetOwner(self);
  Judge judge;
  EXPECT_FALSE(judge.IsOrphan(header));
  ++header.owner_start;
  EXPECT_TRUE(judge.IsOrphan(header)) << "another process had the same number";
  EXPECT_FALSE(IsAlive({.pid = self.pid, .start = self.start}));  // of another boot
  EXPECT_GT(Age({}), std::chrono::hours(24 * 365)) << "from a boot in 1970";
  // The first thread may end before the process does.
  const pid_t process = Start([] {
    std::thread([] { pause(); }).detach();
    syscall(SYS_exit, 0);
    return 0;
  });
  const std::string status = "/proc/" + std::to_string(process) + "/stat";
  EXPECT_TRUE(Eventually([&] { return ReadFile(status).find(") Z ") != std::string::npos; }));
  EXPECT_TRUE(IdentifyProcess(process));
  EndProcess(process);
  EXPECT_EQ(prctl(PR_SET_NAME, "a) R 1 (b"), 0);
  EXPECT_EQ(ProcessName(getpid()), "a) R 1 (b");
  EXPECT_EQ(IdentifyProcess(getpid()), self);
}

TEST_F(StoreTest, LimitsUsersAndThenDropsTheirOldestOrphans) {
  const Daemon daemon({.path = kPath, .tokens_per_user = 20});
  TokenStore& store = *daemon.opened.store;
  const pid_t dead = StartSleeper();
  for (int i = 0; i < 18; ++i) daemon.Issue("o" + std::to_string(i), From(kAlice, dead));
  for (const char* token : {"d", "e"}) EXPECT_EQ(daemon.Issue(token), "done");
  EXPECT_THAT(daemon.Issue("f"), HasSubstr("user 4001 holds 20 of at most 20 tokens"));
  EXPECT_EQ(daemon.Issue("g", From(kBob, dead)), "done");
  store.TakeCare();
  EXPECT_EQ(daemon.Ids({.user = kAlice}).size(), std::string("1,2,3,4,5,6,7,8,9,").size() + 33);
  EndProcess(dead);
  const auto issued_after_care = [&] {  // it looks again after a moment
    const bool refused = daemon.Issue("f") != "done";
    if (store.NeedsCare()) store.TakeCare();
    return !refused;
  };
  EXPECT_TRUE(Eventually(issued_after_care));
  EXPECT_EQ(daemon.Ids(), "17,18,19,20,21,22,");
  for (uid_t user = 0; user <= 1000; ++user) daemon.Issue(std::to_string(user), From(user));
  EXPECT_EQ(daemon.opened.store->Usage(0).next, 1000U) << "who is on the next page";
}

TEST_F(StoreTest, RefusesAndDropsTokensThatAreTooOld) {
  const std::chrono::nanoseconds soon(1);
  {
    const pid_t dead = StartSleeper();
    const Daemon daemon({.path = kPath, .drop_orphans_after = soon});
    daemon.Issue("a");
    daemon.Issue("b", From(kAlice, dead));
    EndProcess(dead);
    EXPECT_NE(daemon.Pid("b"), kUnknown);  // an orphan that nobody has noted yet
    daemon.opened.store->EverySecond();
    EXPECT_EQ(daemon.Pid("b"), kUnknown);
    daemon.opened.store->EverySecond();
    EXPECT_EQ(daemon.Ids(), "1,");
  }
  const Daemon daemon({.path = kPath, .tokens_per_user = 1, .max_age = soon});
  EXPECT_EQ(daemon.Pid("a"), kUnknown);
  EXPECT_THAT(daemon.Issue("c"), HasSubstr("holds 1 of at most 1 tokens"));
  daemon.opened.store->TakeCare();
  EXPECT_EQ(daemon.Issue("c"), "done") << "in the place of the old one";
  EXPECT_EQ(daemon.opened.store->GetStatistics()["tokens"], 1U);
  daemon.opened.store->EverySecond();
  EXPECT_EQ(daemon.opened.store->GetStatistics()["tokens"], 0U);
}

// Four users, who have the store for themselves.
TEST_F(StoreTest, GivesEachUserAQuarterAndTakesItBack) {
  const Daemon daemon({.path = kPath, .bytes = 1U << 20});
  const std::string large = "'" + std::string(60'000, 'x') + "'";
  EXPECT_THAT(daemon.Issue("b", From(kAlice), "[" + large + "," + large + "]"),
              HasSubstr("more than 65536"));
  for (int round = 0; round < 3; ++round) {
    std::array<std::size_t, 4> held{};
    for (uid_t user = 0; user < 4; ++user) {
      const auto name = [&](std::size_t i) {
        return std::to_string(i) + "of" + std::to_string(user);
      };
      const auto issue = [&] {
        const std::string payload = "'" + std::string(held[user] * 97 % 3000, 'x') + "'";
        return daemon.Issue(name(held[user]), From(user), payload);
      };
      while (issue() == "done") ++held[user];
      EXPECT_THAT(issue(), HasSubstr("of at most 262144 bytes"));
      EXPECT_GT(held[user], 80U);
      for (std::size_t i = 0; i < held[user] && user == 0; ++i)
        EXPECT_EQ(daemon.Transfer(name(i), getpid()), "done");
    }
    EXPECT_THAT(daemon.Issue("another", From(5), large), HasSubstr("the store is full: 10"));
    for (uid_t user = 0; user < 4; ++user) {
      for (std::size_t i = 0; i < held[user]; ++i) {
        EXPECT_EQ(daemon.Revoke(std::to_string(i) + "of" + std::to_string(user), From(user)),
                  "done");
      }
    }
  }
}

TEST_F(StoreTest, WaitsForAReaderThatWasStoppedToBeKilled) {
  const StoreOptions options{.path = kPath, .bytes = 1U << 20, .users_share = 1};
  Daemon(options).Issue("a");
  const pid_t reader = Start([&] {
    Database database(options.path, Database::Use::kServe);
    const Database::ReadScope scope(database);
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
  EndProcess(reader);
  writer.join();
  EXPECT_EQ(done, 5000);
}

TEST_F(StoreTest, RefusesWhatIsDamagedOrForeignAndLeavesItAsItIs) {
  for (const Cells& row : Section("store.txt", "damage")) {
    MountEmpty("/tmp", "mode=755");
    Fill();
    { const Database fresh("/tmp/store/fresh", 1U << 20); }
    Shell("cd /tmp/store; " + row[0]);
    const auto look = [] { return Shell("stat -c '%n %f %u %s %h' /tmp /tmp/store /tmp/store/*"); };
    const std::string before = look();
    const std::string seen = Outcome([] { const Daemon daemon; });
    EXPECT_EQ(fnmatch(row[1].c_str(), seen.c_str(), 0), 0) << row[0] << ": " << seen;
    EXPECT_EQ(look(), before) << row[0];
  }
}

// The first value of a table becomes zeros.
TEST_F(StoreTest, FindsTablesThatDisagree) {
  for (const char* name : {"tokens2", "ids2", "usage2"}) {
    MountEmpty("/tmp", "mode=755");
    Fill();
    Database database(kPath, Database::Use::kServe);
    Transaction change = database.BeginWrite();
    MDB_dbi table = 0;
    Expect(mdb_dbi_open(change.get(), name, 0, &table), name);
    MDB_val key{}, value{};
    Expect(mdb_cursor_get(OpenCursor(change.get(), table).get(), &key, &value, MDB_FIRST), name);
    std::string zeros(value.mv_size, '\0');
    value.mv_data = zeros.data();
    Expect(mdb_put(change.get(), table, &key, &value, 0), name);
    database.Commit(std::move(change));
    EXPECT_THAT(Outcome([&] { RebuildStore(kOptions); }), HasSubstr("is damaged, or not")) << name;
  }
}

TEST_F(StoreTest, IsUsedByOneDaemonOnly) {
  const Daemon daemon;
  EXPECT_EQ(Outcome([&] { StoreLock(daemon.options, std::chrono::milliseconds(1)); }),
            "another daemon uses the store /tmp/store/tokens.mdb");
  fs::rename("/tmp/store/tokens.mdb", "/tmp/store/old");
  for (int replaced = 0; replaced < 2; ++replaced) {
    WorkerSlot slot;
    EXPECT_EQ(Outcome([&] { OpenStore(daemon.options, daemon.lock, slot); }),
              "/tmp/store/tokens.mdb was removed, replaced or truncated; restart the daemon");
    fs::copy_file("/tmp/store/old", "/tmp/store/tokens.mdb", fs::copy_options::overwrite_existing);
  }
}

TEST_F(StoreTest, MakesItsDirectory) {
  const mode_t mask = umask(0);
  for (const char* path : {"/tmp/a/b/tokens", "/tmp/c/tokens"}) {
    Daemon({.path = path, .public_directory = "/tmp/c"});
  }
  EXPECT_EQ(Shell("stat -c '%a %n' /tmp/a /tmp/a/b /tmp/a/b/tokens /tmp/c"),
            SectionText("store.txt", "modes"));
  umask(mask);
}

TEST_F(StoreTest, TheTextStoreHasItsOwnDirectoryAndOneOwnerForAToken) {
  StoreOptions options{.path = "/tmp/tokens", .format = StoreFormat::kText};
  EXPECT_THAT(Outcome([&] { Daemon{options}; }),
              StartsWith("/tmp was not created by the text store, which would change its mode;"));
  EXPECT_EQ(fs::status("/tmp").permissions(), fs::perms(0755));
  options.path = "/tmp/text/tokens";
  {
    const Daemon daemon(options);
    EXPECT_EQ(daemon.Issue("a"), "done");
    EXPECT_THAT(daemon.Transfer("a", 0), StartsWith("no living process"));
    EXPECT_EQ(daemon.Pid("a"), std::to_string(getpid()));
    EXPECT_EQ(daemon.Transfer("a", getppid()), "done");
    EXPECT_EQ(daemon.Pid("a"), std::to_string(getppid()));
    EXPECT_EQ(Outcome([&] { daemon.Ids(); }), "the text store cannot do this");
  }
  std::ofstream(options.path, std::ios::app) << "torn {";
  const Daemon daemon(options);
  for (const auto& outcome : {daemon.Issue("b"), daemon.Revoke("a")}) EXPECT_EQ(outcome, "done");
  EXPECT_EQ(daemon.Pid("b"), std::to_string(getpid()));
}

}  // namespace ZELT::StoreTests

#include <fnmatch.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <new>

#include "database.h"
#include "open_store.h"
#include "process.h"
#include "record.h"
#include "support/testing.h"

namespace ZELT::StoreTests {

constexpr uid_t kAlice = 4001;
constexpr uid_t kBob = 4002;

Peer PeerOf(uid_t uid, pid_t pid = getpid()) {
  return {.credential = {.pid = pid, .uid = uid, .gid = 4100},
          .accepted = std::chrono::nanoseconds(Now().boot_time)};
}

/// A daemon of one worker, with what a token manager does with its store.
struct Daemon {
  explicit Daemon(const StoreOptions& store_options = Options()) : options(store_options) {
    CheckStore(options);
    opened = OpenStore(options, lock, slot);
  }

  static StoreOptions Options() {
    StoreOptions options;
    options.path = "/tmp/store/tokens.mdb";
    return options;
  }

  std::string InChange(const Peer& peer, const std::function<void()>& use) {
    return Outcome([&] {
      Change change(*opened.store, peer);
      use();
      change.Commit();
    });
  }

  std::string Issue(const std::string& token, const Peer& peer = PeerOf(kAlice),
                    const std::string& payload = "[{'api':'A','method':'get'}]") {
    Json::Value data = Value("{'requester':'alice','service':'fastapi'}");
    data["pid"] = peer.credential.pid;
    data["payload"] = Value(payload);
    return InChange(peer, [&] { opened.store->Insert(token, data); });
  }

  std::string Revoke(const std::string& token, const Peer& peer = PeerOf(kAlice)) {
    return InChange(peer, [&] {
      opened.store->GetAssociatedData(token);
      opened.store->Remove(token);
    });
  }

  std::string Transfer(const std::string& token, pid_t pid, const Peer& peer = PeerOf(kAlice)) {
    return InChange(peer, [&] {
      Json::Value data = opened.store->GetAssociatedData(token);
      data["pid"] = pid;
      opened.store->Remove(token);
      opened.store->Insert(token, data);
    });
  }

  std::string Pid(const std::string& token) {
    return Outcome([&] { return opened.store->GetAssociatedData(token)["pid"]; });
  }

  /// The ids, a comma behind each, of all pages.
  std::string Ids(const TokenFilter& filter = {}, bool drop = false) {
    std::string ids;
    for (std::uint64_t after = 0;;) {
      TokenStore& store = *opened.store;
      const Page page = drop ? store.Drop(filter, after) : store.List(filter, after);
      for (const Json::Value& row : page.rows) ids += row["id"].asString() + ",";
      if (!page.next) return ids;
      after = *page.next;
    }
  }

  StoreOptions options;
  StoreLock lock{options};
  WorkerSlot slot;
  OpenedStore opened;
};

// A process that lives until it is ended.
struct Sleeper {
  pid_t pid = Start([] { return pause(); });
  ~Sleeper() { End(); }
  void Kill() const {
    kill(pid, SIGKILL);
    siginfo_t ended{};
    waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT);  // leaves a zombie
  }
  void End() {
    if (pid != 0) EndProcess(std::exchange(pid, 0));
  }
};

using StoreTest = PrivateFiles;
constexpr const char* kUnknown = "the store has no such token";
constexpr const char* kStranger =
    "the peer has the process id of the owner, but is another process";

TEST_F(StoreTest, KeepsTokensOverRestartsAndNoChangeThatWasNotCommitted) {
  std::string pid = std::to_string(getpid());
  {
    Daemon daemon;
    for (const char* token : {"a", "b", "c"}) EXPECT_EQ(daemon.Issue(token), "done");
    EXPECT_EQ(daemon.Issue("a"),
              "cannot use the tables of the store: MDB_KEYEXIST: Key/data pair "
              "already exists");
    EXPECT_EQ(daemon.Revoke("c"), "done");
    EXPECT_EQ(daemon.opened.store->ChangedId(), 3U);
    TokenStore& store = *daemon.opened.store;
    for (const bool reinserted : {false, true}) {
      const Change change(store, PeerOf(kAlice));
      const Json::Value data = store.GetAssociatedData("a");
      store.Remove("a");
      EXPECT_EQ(Outcome([&] { return store.GetAssociatedData("a"); }), kUnknown);
      if (reinserted) store.Insert("a", data);
      EXPECT_EQ(Outcome([&] { store.Drop({.ids = {1}}, 0); }), "~a change is already in progress");
    }
  }
  Daemon daemon;
  EXPECT_EQ(daemon.Pid("a"), pid);
  for (const std::string& token : {std::string("c"), std::string(), std::string(600, 'x')}) {
    EXPECT_EQ(daemon.Pid(token), kUnknown);
  }
  EXPECT_EQ(daemon.Issue("d"), "done");
  EXPECT_EQ(daemon.Ids(), "1,2,4,");  // no id comes again
}

TEST_F(StoreTest, OwnersAreProcessesAndNotNumbers) {
  Daemon daemon;
  Sleeper other;
  static std::atomic<pid_t> thread_number = 0;
  std::thread([] { thread_number = gettid(), pause(); }).detach();
  EXPECT_TRUE(Eventually([&] { return thread_number != 0; }));
  EXPECT_EQ(daemon.Issue("a"), "done");
  Sleeper zombie;
  zombie.Kill();
  for (const pid_t pid : {0, -1, thread_number.load(), zombie.pid, 1 << 22}) {
    EXPECT_THAT(daemon.Transfer("a", pid), testing::StartsWith("no living process has the id"));
    if (pid == thread_number) continue;  // never a peer's id
    EXPECT_THAT(daemon.Issue("b", PeerOf(kAlice, pid)), testing::HasSubstr("is gone"));
  }
  EXPECT_EQ(daemon.Revoke("a", PeerOf(kAlice, other.pid)), kStranger);

  // Whoever connected before the owner had started is not the owner, though the number be the same.
  Peer early = PeerOf(kAlice, other.pid);
  early.accepted = std::chrono::nanoseconds(1);
  EXPECT_THAT(daemon.Issue("b", early), testing::HasSubstr("is gone"));
  EXPECT_EQ(daemon.Transfer("a", other.pid), "done");
  EXPECT_EQ(daemon.Revoke("a"), kStranger);
  EXPECT_EQ(daemon.Revoke("a", early), kStranger);
  EXPECT_EQ(daemon.Ids({.user = kAlice}), "1,");  // the user who asked for it, and the id, stay
  EXPECT_EQ(daemon.opened.store->List({}, 0).rows[0]["pid"], other.pid);
  EXPECT_EQ(daemon.Ids({.orphans = true}), "");
  other.End();
  EXPECT_EQ(daemon.Ids({.orphans = true}), "1,");
  EXPECT_EQ(daemon.Pid("a"),
            std::to_string(daemon.opened.store->List({}, 0).rows[0]["pid"].asInt()));
}

TEST_F(StoreTest, TellsWhichProcessesLive) {
  const ProcessIdentity self = *IdentifyProcess(getpid());
  EXPECT_TRUE(IsAlive(self));
  EXPECT_FALSE(IsAlive({.pid = self.pid, .start = self.start + 1, .boot = self.boot}));
  EXPECT_FALSE(IsAlive({.pid = self.pid, .start = self.start}));  // of another boot
  // The first thread may end before the process does.
  const pid_t process = Start([] {
    std::thread([] { pause(); }).detach();
    syscall(SYS_exit, 0);
    return 0;
  });
  const std::string status = "/proc/" + std::to_string(process) + "/stat";
  EXPECT_TRUE(Eventually([&] { return ReadFile(status).find(") Z ") != std::string::npos; }));
  EXPECT_TRUE(IdentifyProcess(process));
  kill(process, SIGKILL);
  EXPECT_TRUE(Eventually([&] { return !IdentifyProcess(process); }));
  Finish(process);
  EXPECT_EQ(prctl(PR_SET_NAME, "a) R 1 (b"), 0);
  EXPECT_EQ(ProcessName(getpid()), "a) R 1 (b");
  EXPECT_EQ(IdentifyProcess(getpid()), self);
}

TEST_F(StoreTest, LimitsUsersAndDropsTheirOrphansFirst) {
  StoreOptions options = Daemon::Options();
  options.tokens_per_user = 5;
  Daemon daemon(options);
  Sleeper dead;
  for (const char* token : {"a", "b", "c"}) daemon.Issue(token, PeerOf(kAlice, dead.pid));
  for (const char* token : {"d", "e"}) EXPECT_EQ(daemon.Issue(token), "done");
  EXPECT_THAT(daemon.Issue("f"), testing::HasSubstr("user 4001 holds 5 of at most 5 tokens"));
  EXPECT_EQ(daemon.Issue("g", PeerOf(kBob)), "done");
  dead.End();
  daemon.opened = {};
  daemon.opened = OpenStore(options, daemon.lock, daemon.slot);  // one that has not just looked
  EXPECT_EQ(daemon.Issue("f"), "done");
  EXPECT_EQ(daemon.Ids(), "2,3,4,5,6,7,");
  for (const char* token : {"h", "i"}) EXPECT_EQ(daemon.Issue(token), "done");
  EXPECT_THAT(daemon.Issue("j"), testing::HasSubstr("no orphans were found"));
  EXPECT_EQ(daemon.Ids(), "4,5,6,7,8,9,");
}

TEST_F(StoreTest, LimitsTokensAndEachUsersShare) {
  StoreOptions options = Daemon::Options();
  options.bytes = 2U << 20;
  Daemon daemon(options);
  const std::string many = "[" + Repeated("1,", 255);
  EXPECT_EQ(daemon.Issue("a", PeerOf(kAlice), many + "1]"), "done");
  EXPECT_THAT(daemon.Issue("b", PeerOf(kAlice), many + "1,1]"), testing::HasSubstr("257 grants"));
  const std::string large = "'" + std::string(60'000, 'x') + "'";
  EXPECT_THAT(daemon.Issue("b", PeerOf(kAlice), "[" + large + "," + large + "]"),
              testing::HasSubstr("more than 65536"));
  std::string token = "t";
  while (token.size() < 100 && daemon.Issue(token, PeerOf(kAlice), large) == "done") token += "t";
  EXPECT_EQ(token.size(), 9U);  // after 8 of 15 pages each, in a quarter of 512 pages
  EXPECT_EQ(daemon.Issue("c", PeerOf(kBob), large), "done");
}

TEST_F(StoreTest, RefusesAndDropsTokensThatAreTooOld) {
  Sleeper dead;
  {
    Daemon daemon;
    daemon.Issue("a");
    daemon.Issue("b", PeerOf(kAlice, dead.pid));
  }
  dead.End();
  StoreOptions options = Daemon::Options();
  options.drop_orphans_after = std::chrono::nanoseconds(1);
  {
    Daemon daemon(options);
    EXPECT_NE(daemon.Pid("b"), kUnknown);  // an orphan that nobody has noted yet
    daemon.opened.store->KeepHouse();
    EXPECT_EQ(daemon.Pid("b"), kUnknown);
    daemon.opened.store->KeepHouse();
    EXPECT_EQ(daemon.Ids(), "1,");
  }
  options.max_age = std::chrono::nanoseconds(1);
  options.tokens_per_user = 1;
  Daemon daemon(options);
  EXPECT_EQ(daemon.Pid("a"), kUnknown);
  EXPECT_EQ(daemon.Issue("c"), "done") << "in the place of the old one";
  for (const unsigned int count : {1U, 0U}) {
    EXPECT_EQ(daemon.opened.store->GetStatistics()["tokens"], count);
    daemon.opened.store->KeepHouse();
  }
}

TEST_F(StoreTest, ListsAndDropsInPages) {
  Daemon daemon;
  std::string odd;
  std::string even;
  for (int i = 1; i <= 250; ++i) {
    daemon.Issue("t" + std::to_string(i), PeerOf(i % 2 == 0 ? kAlice : kBob));
    (i % 2 == 0 ? even : odd) += std::to_string(i) + ",";
  }
  EXPECT_EQ(daemon.opened.store->List({}, 0).rows.size(), 100U);
  EXPECT_EQ(daemon.Ids({.user = kAlice}), even);
  EXPECT_EQ(daemon.Ids({.user = kBob, .service = "fastapi"}), odd);
  EXPECT_EQ(daemon.Ids({.service = "fast"}), "");
  EXPECT_EQ(daemon.Ids({.user = kAlice, .ids = {300, 7, 4, 2, 4}}), "2,4,");
  EXPECT_EQ(Text(daemon.opened.store->Usage(kBob).rows[0]["tokens"]), "125");
  EXPECT_EQ(daemon.Ids({.user = kBob}, true), odd);
  EXPECT_EQ(daemon.Ids(), even);
  EXPECT_EQ(daemon.Pid("t1"), kUnknown);
  Json::Value row = daemon.opened.store->List({.ids = {2}}, 0).rows[0];
  EXPECT_LE(row["age"].asInt(), 60);
  for (const char* member : {"age", "pid", "owner"}) row.removeMember(member);
  EXPECT_EQ(Text(row),
            "{'alive':true,'grants':1,'id':2,'requester':'alice','service':'fastapi',"
            "'uid':4001}");
  CheckStore(daemon.options);
}

// How a store becomes full: a file system or a limit too small for it, or its own size.
TEST_F(StoreTest, RevokesHoweverFullTheStoreIs) {
  const struct {
    const char* tmpfs;
    rlim_t file_limit;
    std::uint64_t bytes;
    const char* refusal;
  } rows[] = {
      {"64m", RLIM_INFINITY, 4U << 20, "the store is full: 419*bytes are used"},
      {"5m", RLIM_INFINITY, 64U << 20, "no room*file system or quota*No space left on device"},
      {"64m", 5U << 20, 64U << 20, "no room*file system or quota*File too large"}};
  for (const auto& row : rows) {
    const pid_t process = Start([&] {
      MountEmpty("/tmp", std::string("mode=755,size=") + row.tmpfs);
      signal(SIGXFSZ, SIG_IGN);
      const rlimit limit{.rlim_cur = row.file_limit, .rlim_max = row.file_limit};
      Check(setrlimit(RLIMIT_FSIZE, &limit), "setrlimit");
      StoreOptions options = Daemon::Options();
      options.bytes = row.bytes;
      options.users_share = 1;
      Daemon daemon(options);
      for (int round = 0; round < 3; ++round) {
        std::vector<std::string> tokens;
        std::string outcome = "done";
        while (outcome == "done") {
          tokens.push_back(std::to_string(tokens.size()));
          outcome = daemon.Issue(tokens.back(), PeerOf(kAlice),
                                 "'" + std::string(tokens.size() % 3000, 'x') + "'");
        }
        EXPECT_EQ(fnmatch(row.refusal, outcome.c_str(), 0), 0) << outcome;
        tokens.pop_back();
        EXPECT_GT(tokens.size(), 500U);
        for (const std::string& token : tokens) EXPECT_EQ(daemon.Transfer(token, getpid()), "done");
        for (const std::string& token : tokens) EXPECT_EQ(daemon.Revoke(token), "done");
      }
      return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(Finish(process), 0) << row.refusal;
  }
}

TEST_F(StoreTest, WaitsForAReaderThatWasStoppedToBeKilled) {
  void* const shared =
      mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  auto& done = *new (shared) std::atomic<int>(0);
  StoreOptions options = Daemon::Options();
  options.bytes = 1U << 20;
  options.users_share = 1;
  Daemon(options).Issue("a");
  const pid_t reader = Start([&] {
    Database database(options.path, MapBytes(options), Database::Use::kServe);
    const Database::ReadScope scope(database);
    return raise(SIGSTOP);
  });
  EXPECT_EQ(waitpid(reader, nullptr, WUNTRACED), reader);
  const pid_t writer = Start([&] {
    Daemon daemon(options);
    daemon.Issue("b");
    while (done < 5000 && daemon.Transfer("b", getpid()) == "done") ++done;
    return done == 5000 ? 0 : 1;
  });
  EXPECT_TRUE(Eventually([&] {
    const int before = done;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return done == before && before > 0;
  }));
  EXPECT_LT(done, 5000);
  EndProcess(reader);
  EXPECT_EQ(Finish(writer), 0);
}

std::string Shell(const std::string& commands) {
  std::string output;
  FILE* pipe = popen(commands.c_str(), "r");
  for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) output += static_cast<char>(c);
  pclose(pipe);
  return output;
}

// What was done to the store or its directory, commands of the shell, and what the daemon says, as
// of fnmatch(3).
const std::pair<const char*, const char*> kDamageRows[] = {
    {"truncate -s 0 tokens.mdb", "*is damaged*the file is empty. Move it away*"},
    {"truncate -s 40000 tokens.mdb", "*the file is truncated*"},
    {"echo tokens >tokens.mdb", "*MDB_INVALID*"},
    {"tail -c +4097 tokens.mdb >t; cat t >tokens.mdb", "*MDB_*"},
    {"cp fresh tokens.mdb", "*database of another program, or of another version*"},
    {"chmod 640 tokens.mdb", "*is open to others*"},
    {"chown 4001 tokens.mdb", "*belongs to another user*"},
    {"rm tokens.mdb; mkdir tokens.mdb", "*not a regular file"},
    {"mv tokens.mdb x; ln -s x tokens.mdb", "*not a regular file"},
    {"chmod 1777 .", "/tmp/store is writable by users other*"},
    {"chown 4001 .", "/tmp/store belongs to user 4001*"},
    {"chmod 775 ..", "/tmp is writable by users other*"},
    {"chown 4001 ..", "/tmp belongs to user 4001*"},
};

TEST_F(StoreTest, RefusesWhatIsDamagedOrForeignAndLeavesItAsItIs) {
  const std::string look = "stat -c '%n %f %u %s %h' /tmp /tmp/store /tmp/store/*";
  for (const auto& [damage, outcome] : kDamageRows) {
    Shell("chown 0 /tmp; chmod 755 /tmp; rm -rf /tmp/store");
    {
      Daemon daemon;
      for (int i = 0; i < 300; ++i) daemon.Issue("t" + std::to_string(i));
      const Database fresh("/tmp/store/fresh", 1U << 20, Database::Use::kMake);
    }
    Shell(std::string("cd /tmp/store; ") + damage);
    const std::string before = Shell(look);
    const std::string seen = Outcome([] { const Daemon daemon; });
    EXPECT_EQ(fnmatch(outcome, seen.c_str(), 0), 0) << damage << ": " << seen;
    EXPECT_EQ(Shell(look), before) << damage;
  }
}

// Whatever page is overwritten, the check says so, or nothing that it protects is lost.
TEST_F(StoreTest, FindsPagesThatWereOverwritten) {
  {
    Daemon daemon;
    for (int i = 0; i < 300; ++i) daemon.Issue("t" + std::to_string(i));
  }
  const std::string good = ReadFile(Daemon::Options().path);
  int found = 0;
  for (std::size_t page = 2; page * 4096 < good.size() && page < 60; ++page) {
    std::string bad = good;
    std::fill_n(bad.begin() + static_cast<std::ptrdiff_t>(page * 4096), 4096, '\x5a');
    std::ofstream(Daemon::Options().path) << bad << std::flush;
    const pid_t check = Start([] {
      signal(SIGSEGV, SIG_DFL);  // no report of a sanitizer
      CheckStore(Daemon::Options());
      return 0;
    });
    if (Finish(check) != 0) ++found;
  }
  EXPECT_GT(found, 20);
}

TEST_F(StoreTest, IsUsedByOneDaemonOnly) {
  Daemon daemon;
  EXPECT_EQ(Outcome([&] { StoreLock(daemon.options, std::chrono::milliseconds(1)); }),
            "another daemon uses the store /tmp/store/tokens.mdb");
  fs::rename("/tmp/store/tokens.mdb", "/tmp/store/old");
  for (int replaced = 0; replaced < 2; ++replaced) {
    EXPECT_EQ(Outcome([&] { OpenStore(daemon.options, daemon.lock, daemon.slot); }),
              "/tmp/store/tokens.mdb was removed or replaced; restart the daemon");
    fs::copy_file("/tmp/store/old", "/tmp/store/tokens.mdb", fs::copy_options::overwrite_existing);
  }
}

TEST_F(StoreTest, MakesItsDirectory) {
  const mode_t mask = umask(0);
  StoreOptions options = Daemon::Options();
  options.path = "/tmp/a/b/tokens";
  Daemon{options};
  options.public_directory = options.path = "/tmp/c";
  options.path += "/tokens";
  Daemon{options};
  EXPECT_EQ(Shell("stat -c %a /tmp/a /tmp/a/b /tmp/a/b/tokens /tmp/c"), "755\n700\n600\n755\n");
  umask(mask);
}

TEST_F(StoreTest, TheTextStoreHasItsOwnDirectoryAndOneOwnerForAToken) {
  StoreOptions options;
  options.format = StoreFormat::kText;
  options.path = "/tmp/tokens";
  EXPECT_EQ(
      Outcome([&] { Daemon{options}; }),
      "/tmp was not created by the text store, which would change its mode; choose a store in a "
      "directory that does not exist yet");
  EXPECT_EQ(fs::status("/tmp").permissions(), fs::perms(0755));
  options.path = "/tmp/text/tokens";
  {
    Daemon daemon(options);
    EXPECT_EQ(daemon.Issue("a"), "done");
    EXPECT_THAT(daemon.Transfer("a", 0), testing::StartsWith("no living process"));
    EXPECT_EQ(daemon.Pid("a"), std::to_string(getpid()));
    EXPECT_EQ(daemon.Transfer("a", getppid()), "done");
    EXPECT_EQ(daemon.Pid("a"), std::to_string(getppid()));
    EXPECT_EQ(Outcome([&] { daemon.Ids(); }), "the text store cannot do this");
  }
  std::ofstream(options.path, std::ios::app) << "torn {";
  Daemon daemon(options);
  for (const auto& outcome : {daemon.Issue("b"), daemon.Revoke("a")}) EXPECT_EQ(outcome, "done");
  EXPECT_EQ(daemon.Pid("b"), std::to_string(getpid()));
}

}  // namespace ZELT::StoreTests

// Tortures a real daemon on a private machine. Clients of five users issue, validate, transfer and
// revoke tokens all the while, and note on a board in shared memory what they were told. After each
// blow what the daemon answers is compared with the board. To be run by scripts/torture.
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <map>
#include <optional>

#include "clients.h"

namespace ZELT::Torture {

using namespace Clients;

constexpr long kGrowth = 1024;  // KiB that an allocator may keep
const std::string kFolder = "/run/zelttokenmgr";

constexpr std::uint64_t kAny = 1U << 20;

struct Torture;
struct Phase {
  const char* name;
  double share;        // of all the time
  unsigned int limit;  // how often at most
  void (*blow)(Torture&);
  std::uint64_t unanswered = 0;  // requests, each time; kAny: the daemon is away
  const char* store = "tmpfs";
  const char* options = "";
};

struct Torture : ProgramsTest, testing::WithParamInterface<Phase> {
  static void Mount() {
    const std::string type = GetParam().store;
    fs::create_directories(kFolder);
    type == "tmpfs" ? MountEmpty(kFolder, "mode=755,size=160m") : MountImage(kFolder, type);
  }

  void SetUp() override {
    ProgramsTest::SetUp();
    const std::string mounted = Outcome(Mount);
    if (mounted != "done") GTEST_SKIP() << "NOT SHOWN: " << mounted;
    Prepare();
    board->pause = 0;
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    std::setbuf(stdout, nullptr);
    StartDaemon();
    StartClients();
    ASSERT_TRUE(Eventually([] { return board->counts[kAnswered] > 5000; })) << daemon->Errors();
    board->pause = kPause;
  }

  void TearDown() override {
    EndClients();
    daemon.reset();
    umount2(kFolder.c_str(), MNT_DETACH);
  }

  void StartDaemon() {
    daemon.emplace("--workers 2 " + std::string(GetParam().options));
    AwaitService();
  }

  // Waits for two workers, none of them `old`, and an answer.
  void AwaitService(pid_t old = 0) {
    EXPECT_TRUE(Eventually([&] {
      const auto workers = daemon->Children();
      return workers.size() == 2 && workers[0] != old && workers[1] != old &&
             Validate("none") != "none";
    })) << daemon->Errors();
  }

  void EndDaemon(int signal, bool workers_too = false) {
    const auto workers = daemon->Children();
    kill(daemon->pid, signal);
    for (const pid_t worker : workers) kill(worker, workers_too ? signal : 0);
    EXPECT_EQ(daemon->End(), signal == SIGTERM ? 0 : 128 + signal);
    for (const pid_t worker : workers) {  // which have become children of this process
      EXPECT_TRUE(Eventually([&] { return waitpid(worker, nullptr, WNOHANG) != 0; })) << worker;
    }
  }

  // Waits for the replacement.
  void KillWorker() {
    const pid_t worker = daemon->Children().at(Below(2));
    kill(worker, SIGKILL);
    AwaitService(worker);
  }

  void KillAll() {
    board->cut = true;
    SignalClients(SIGKILL);
    EndDaemon(SIGKILL, true);
    EndClients();
    board->cut = false;
    StartDaemon();
    StartClients();
  }

  // Stops a worker until the other one waits for a lock, and goes on waiting. Stops make a worker
  // late, and one that is accepts all that wait.
  void StopWriter() {
    board->pause = 0;
    const auto workers = daemon->Children();
    const std::string waits = std::to_string(SYS_futex) + " ";
    const std::string call = "/proc/" + std::to_string(workers.at(1)) + "/syscall";
    EXPECT_TRUE(Eventually([&] {
      int times = 0;
      for (kill(workers.at(0), SIGSTOP); times < 5 && ReadFile(call).starts_with(waits); ++times) {
        Pause(1000);
      }
      return times == 5 || kill(workers.at(0), SIGCONT) != 0;
    })) << "no worker was stopped inside a transaction";
    AwaitService(workers.at(0));
  }

  // Fills the store, or the file system below it, which the store does not notice. Revoking goes on
  // all the while.
  static void Fill() {
    const bool store = !std::string(GetParam().options).empty();
    board->counts[kFull] = board->pause = 0;
    board->slot_count = kManySlots;
    board->mode = Mode::kHoard;
    const std::uint32_t enough = board->count + 1000;
    std::ofstream ballast(store ? "" : kFolder + "/ballast");
    const auto is_full = [&] {  // btrfs finds more room now and then
      for (ballast.clear(); ballast << std::string(4096, 'b') << std::flush;) {
      }
      return store ? board->counts[kFull] > 200 : board->count > enough;
    };
    EXPECT_TRUE(Eventually(is_full)) << "nothing was full, or no token was issued";
    board->mode = Mode::kDrain;
    const auto many = board->counts[kRevoked] + 500;
    EXPECT_TRUE(Eventually([many] { return board->counts[kRevoked] > many; })) << "not revoked";
    ballast.close();
    fs::remove(kFolder + "/ballast");
    board->slot_count = kSlots;
    board->pause = kPause;
    board->mode = Mode::kUsual;
    Pause(200000);
  }

  void CutPower() {
    constexpr auto kShutDown = _IOR('X', 125, std::uint32_t);  // EXT4_IOC_SHUTDOWN
    std::uint32_t without_log = 2;                             // EXT4_GOING_FLAGS_NOLOGFLUSH
    const int folder = open(kFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    board->cut = true;
    Check(ioctl(folder, kShutDown, &without_log), "shutdown of the file system");
    close(folder);
    EndDaemon(SIGKILL, true);
    EXPECT_TRUE(Eventually([] { return umount(kFolder.c_str()) == 0; }));
    Mount();
    StartDaemon();
    board->cut = false;
  }

  std::optional<Daemon> daemon;
};

const Phase kPhases[] = {
    {"FullSpeed", 0.08, 1U << 30, [](Torture&) { board->pause = 0, Pause(100000); }},
    {"WorkerKilled", 0.16, 500, [](Torture& t) { t.KillWorker(); }, 1},
    {"DaemonKilled", 0.10, 200, [](Torture& t) { t.EndDaemon(SIGKILL), t.StartDaemon(); }, kAny},
    {"AllKilled", 0.06, 50, [](Torture& t) { t.KillAll(); }, kAny},
    {"DaemonRestarted", 0.04, 50, [](Torture& t) { t.EndDaemon(SIGTERM), t.StartDaemon(); }, kAny},
    {"WriterStopped", 0.06, 20, [](Torture& t) { t.StopWriter(); }, 4, "tmpfs",
     "--request-timeout 2s"},
    {"FullTmpfs", 0.03, 10, [](Torture&) { Torture::Fill(); }},
    {"FullExt4", 0.03, 10, [](Torture&) { Torture::Fill(); }, 0, "ext4"},
    {"FullBtrfs", 0.03, 10, [](Torture&) { Torture::Fill(); }, 0, "btrfs"},
    {"PowerCut", 0.10, 200, [](Torture& t) { t.CutPower(); }, kAny, "ext4"},
};
INSTANTIATE_TEST_SUITE_P(, Torture, testing::ValuesIn(kPhases),
                         [](const auto& row) { return row.param.name; });

TEST_P(Torture, Withstands) {
  const Phase& phase = GetParam();
  SignalClients(SIGSTOP);
  std::map<pid_t, std::pair<long, long>> before;
  for (const pid_t worker : daemon->Children()) {
    const std::string process = std::to_string(worker);
    before[worker] = {OpenDescriptors(process), OwnMemory(process)};
  }
  for (auto& count : board->counts) count = 0;
  board->answered_at = board->gap = 0;
  SignalClients(SIGCONT);
  unsigned int times = 0;
  const auto end = Clock::now() + std::chrono::duration<double>(
                                      std::stod(getenv("TORTURE_SECONDS")) * phase.share);
  for (; times == 0 || (times < phase.limit && Clock::now() < end && !HasFailure()); ++times) {
    Pause(Below(60000));
    phase.blow(*this);
    Audit(20);
  }
  SignalClients(SIGSTOP);
  Audit(3000);
  for (const pid_t worker : daemon->Children()) {
    const auto small = [&, process = std::to_string(worker), old = before[worker]] {
      return OpenDescriptors(process) <= old.first && OwnMemory(process) <= old.second + kGrowth;
    };
    EXPECT_TRUE(before[worker].first == 0 || Eventually(small)) << "a worker has grown";
  }
  const auto& counts = board->counts;
  EXPECT_EQ(Wrongs(), 0);
  EXPECT_LE(counts[kUnanswered], times * phase.unanswered);
  EndDaemon(SIGTERM);
  std::printf("| %s | %u |", phase.name, times);
  for (int i = kAnswered; i <= kFull; ++i) std::printf(" %lu |", counts.at(i).load());
  std::printf(" %.1f ms |\n", static_cast<double>(board->gap) / 1e6);
  if (HasFailure()) std::fputs(daemon->Errors().c_str(), stderr);
}

}  // namespace ZELT::Torture

// Tortures a real daemon on a private machine. Clients of five users issue, validate, transfer and
// revoke tokens all the while, and note on a board in shared memory what they were told. After each
// blow what the daemon answers is compared with the board. To be run by scripts/torture.
#include <sys/ioctl.h>

#include <optional>

#include "clients.h"

namespace ZELT::Torture {

using namespace Clients;

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
};

struct Torture : ProgramsTest, testing::WithParamInterface<Phase> {
  static void Mount() {
    const std::string type = GetParam().store;
    fs::create_directories(kFolder);
    if (type == "tmpfs") return MountEmpty(kFolder, "mode=755,size=160m");
    Shell("[ -e image ] || { truncate -s 160M image && /sbin/mkfs." + type +
          " -q image >/dev/null; } && mount -o loop image " + kFolder);
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
    daemon.emplace();
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

  void EndDaemon(int signal) {
    const auto workers = daemon->Children();
    EXPECT_EQ(daemon->End(signal), signal == SIGTERM ? 0 : 128 + signal);
    for (const pid_t worker : workers) {  // which have become children of this process
      EXPECT_EVENTUALLY(waitpid(worker, nullptr, WNOHANG) != 0) << worker;
    }
  }

  // Waits for the replacement.
  void KillWorker() {
    const pid_t worker = daemon->Children().at(Below(2));
    kill(worker, SIGKILL);
    AwaitService(worker);
  }

  // Fills the file system below the store, which does not notice. Revoking goes on all the while.
  static void Fill() {
    board->pause = 0;
    board->slot_count = kManySlots;
    board->mode = Mode::kHoard;
    const std::uint32_t enough = board->count + 1000;
    std::ofstream ballast(kFolder + "/ballast");
    const auto issues = [&] {  // btrfs finds more room now and then
      for (ballast.clear(); ballast << std::string(4096, 'b') << std::flush;) {
      }
      return board->count > enough;
    };
    EXPECT_TRUE(Eventually(issues)) << "no token was issued";
    board->mode = Mode::kDrain;
    const auto many = board->counts[kRevoked] + 500;
    EXPECT_EVENTUALLY(board->counts[kRevoked] > many) << "not revoked";
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
    EndDaemon(SIGKILL);
    EXPECT_EVENTUALLY(umount(kFolder.c_str()) == 0);
    Mount();
    StartDaemon();
    board->cut = false;
  }

  std::optional<Daemon> daemon;
};

const Phase kPhases[] = {
    {"FullSpeed", 0.08, 1U << 30, [](Torture&) { board->pause = 0, Pause(100000); }},
    {"WorkerKilled", 0.16, 500, [](Torture& t) { t.KillWorker(); }, 4},
    {"DaemonKilled", 0.10, 200, [](Torture& t) { t.EndDaemon(SIGKILL), t.StartDaemon(); }, kAny},
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
  const auto& counts = board->counts;
  EXPECT_EQ(counts[kLost] + counts[kHonoured] + counts[kTwoOwners] + counts[kWrong], 0);
  EXPECT_LE(counts[kUnanswered], times * phase.unanswered);
  EndDaemon(SIGTERM);
  std::printf("| %s | %u |", phase.name, times);
  for (int i = kAnswered; i < kRevoked; ++i) std::printf(" %lu |", counts.at(i).load());
  std::printf(" %.1f ms |\n", static_cast<double>(board->gap) / 1e6);
  if (HasFailure()) std::fputs(daemon->Errors().c_str(), stderr);
}

}  // namespace ZELT::Torture

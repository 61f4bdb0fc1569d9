// Tortures a real daemon on a private machine. Clients of five users issue, validate, transfer and
// revoke tokens all the while, and note on a board in shared memory what they were told. After each
// blow what the daemon answers is compared with the board. To be run by scripts/torture.
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <iostream>
#include <map>
#include <numeric>
#include <optional>
#include <random>
#include <unordered_set>

#include "support/programs.h"

namespace ZELT::Torture {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kClients = 12;
constexpr std::array<uid_t, 5> kUsers = {4001, 4002, 4003, 4004, 0};
constexpr uid_t kMallory = 4666;
constexpr std::uint32_t kSlots = 384, kManySlots = 60000;
constexpr unsigned int kPause = 2000;  // of a client between two requests, on average, in µs
constexpr rlim_t kDescriptors = 16384;
constexpr long kGrowth = 1024;  // KiB that an allocator may keep
constexpr std::uint64_t kAny = 1U << 20;
const std::string kFolder = "/run/zelttokenmgr";
const std::string kGrant = "{'fastapi':[{'api':'Demo.Item','method':'get','runner':'any'}]}";

double seconds = 600;  // for all phases together

// A token, and what was asked of it. Only its owner changes it.
enum class State { kFree, kLive, kMoving, kRevoking, kDead };
struct Record {
  std::array<char, 80> token;
  std::atomic<State> state;
  std::atomic<pid_t> owner, heir;  // heir: until it is known whether a transfer was done
};

enum class Mode { kUsual, kHoard, kDrain };  // kHoard: mostly issue; kDrain: do not issue
enum Counter { kAnswered, kUnanswered, kLost, kHonoured, kTwoOwners, kWrong, kFull, kCounters };

// What all processes see. It begins with zeros.
struct Board {
  std::array<Record, 2U << 20> records;  // the first one is no token
  std::atomic<std::uint32_t> count;
  std::array<std::atomic<std::uint32_t>, kManySlots> slots;  // the records that clients work on
  std::atomic<std::uint32_t> slot_count;
  std::array<std::atomic<pid_t>, kClients> clients;
  std::atomic<Mode> mode;
  std::atomic<unsigned int> pause;
  std::atomic<bool> rest, cut;  // cut: the power is, so a refusal means nothing
  std::atomic<std::size_t> resting;
  std::array<std::atomic<std::uint64_t>, kCounters> counts;
  std::atomic<Clock::rep> answered_at, gap;  // the longest time without any answer, in ns
};
Board* board = nullptr;

std::uint32_t Below(std::size_t limit) {
  static std::mt19937 random(static_cast<unsigned int>(getpid()) ^ std::random_device()());
  return static_cast<std::uint32_t>(random() % limit);
}

void Pause(unsigned int microseconds) {
  std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

enum class Answer { kYes, kNo, kNone };

Answer Send(const char* type, const Record& record, const std::string& payload = "null",
            std::string* answer = nullptr) {
  const bool cut = board->cut;
  const std::string text = Ask(type, record.token.data(), payload);
  if (text == "none") return ++board->counts[kUnanswered], Answer::kNone;
  ++board->counts[kAnswered];
  const Clock::rep now = Clock::now().time_since_epoch().count();
  const Clock::rep before = board->answered_at.exchange(now);
  if (before != 0 && now - before > board->gap) board->gap = now - before;
  if (answer != nullptr) *answer = text;
  if (text == kPermitted || text.starts_with("{'success':true")) return Answer::kYes;
  return cut || board->cut ? Answer::kNone : Answer::kNo;
}

bool Holds(const Record& record) {
  return record.state == State::kLive || record.state == State::kMoving;
}

// Validates a token, whose state may change meanwhile.
void CheckToken(const Record& record) {
  const bool held = Holds(record);
  const bool dead = record.state == State::kDead;
  const Answer answer = Send("validate", record, kRun);
  if (answer == Answer::kNo && held && Holds(record)) ++board->counts[kLost];
  if (answer == Answer::kYes && dead) ++board->counts[kHonoured];
}

// Revokes a token, and learns what became of earlier requests that were not answered.
void Settle(Record& record) {
  const bool first = record.state.exchange(State::kRevoking) != State::kRevoking;
  const Answer answer = Send("revoke", record);
  const Answer valid = answer == Answer::kNo ? Send("validate", record, kRun) : Answer::kNo;
  if (answer == Answer::kNone || valid == Answer::kNone) return;
  const pid_t heir = record.heir.exchange(0);
  if (valid == Answer::kYes && heir == 0) ++board->counts[kWrong];  // its owner was refused
  if (valid == Answer::kNo && answer == Answer::kNo && first) ++board->counts[kLost];
  record.state = valid == Answer::kYes ? State::kLive : State::kDead;
  if (valid == Answer::kYes && heir != 0) record.owner = heir;
  CheckToken(record);
}

void Transfer(Record& record, const std::atomic<pid_t>& seat) {
  const bool must_work = board->mode == Mode::kUsual;
  const pid_t heir = seat;
  record.heir = heir;
  record.state = State::kMoving;
  const Answer answer = Send("transfer", record, std::to_string(heir));
  if (answer == Answer::kNone) return;
  if (answer == Answer::kNo && must_work && heir != 0 && seat == heir) ++board->counts[kWrong];
  const bool tries = answer == Answer::kYes && Below(4) == 0;  // what it may no longer do
  if (tries && Send("revoke", record) == Answer::kYes) ++board->counts[kTwoOwners];
  record.heir = 0;
  record.state = State::kLive;
  if (answer == Answer::kYes) record.owner = heir;
}

// Returns the number of a new record, or 0.
std::uint32_t IssueNew() {
  const Counter refused = board->mode == Mode::kUsual ? kWrong : kFull;
  std::string text;
  const Answer answer = Send("issue", board->records[0], kGet, &text);
  if (answer == Answer::kNo) ++board->counts[refused];
  if (answer != Answer::kYes) return 0;
  const std::uint32_t number = ++board->count;
  Record& record = board->records.at(number);
  Value(text)["token"].asString().copy(record.token.data(), record.token.size() - 1);
  record.owner = getpid();
  record.state = State::kLive;
  return number;
}

// Looks for a slot in which there is something to do for client `self`.
void Act(std::size_t self) {
  for (int tries = 0; tries < 8; ++tries) {
    std::atomic<std::uint32_t>& slot = board->slots.at(Below(board->slot_count));
    std::uint32_t number = slot;
    Record& record = board->records.at(number);
    const auto& clients = board->clients;
    const bool orphan = std::count(clients.begin(), clients.end(), record.owner.load()) == 0;
    const bool free = number == 0 || record.state == State::kDead || orphan;
    if (free && board->mode != Mode::kDrain) {
      const std::uint32_t issued = IssueNew();
      const bool kept = issued == 0 || slot.compare_exchange_strong(number, issued);
      return kept ? void() : Settle(board->records.at(issued));
    }
    const bool leave = board->mode == Mode::kHoard && Below(16) != 0;
    if (free || leave || record.owner != getpid()) continue;
    const bool give = record.state == State::kLive && Below(5) < 2;
    return give ? Transfer(record, clients.at((self + 1 + Below(kClients - 1)) % kClients))
                : Settle(record);
  }
}

void BecomeUser(uid_t user) {
  Check(setgid(user), "setgid");
  Check(setuid(user), "setuid");
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // setuid(2) clears it
}

[[noreturn]] void Live(std::size_t self) {
  BecomeUser(kUsers.at(self % kUsers.size()));
  for (board->clients.at(self) = getpid();; Pause(Below(2 * board->pause + 1))) {
    if (board->rest) {
      ++board->resting;
      while (board->rest) Pause(1000);
      --board->resting;
    }
    Act(self);
    CheckToken(board->records.at(Below(board->count + 1)));
  }
}

struct Connection : zeltdaemon::DomainSockConnection {
  Connection() : DomainSockConnection(kSocket) { EXPECT_TRUE(Connect()); }
  // The daemon may close the connection before it has read everything.
  void Write(const std::string& bytes, unsigned int interval_us) const {
    const std::size_t step = interval_us == 0 ? bytes.size() : 1;
    for (std::size_t i = 0; i < bytes.size(); i += step, Pause(interval_us)) {
      if (send(fd, &bytes[i], step, MSG_NOSIGNAL) < 0) return;
    }
  }
};

std::string Times(std::size_t count, const std::string& text) {
  std::string all;
  while (count-- > 0) all += text;
  return all;
}

std::string RandomBytes() {
  std::string bytes(4000, '\0');
  Check(getrandom(bytes.data(), bytes.size(), 0) < 0 ? -1 : 0, "getrandom");
  return bytes + "\n";
}

const std::string kUnknown = "{\"type\":\"validate\",\"service\":\"fastapi\",\"token\":\"none\"}\n";
const struct {
  const char* name;
  std::string bytes;
  unsigned int interval_us;  // between two bytes; 0: all at once
  const char* answer;        // null: the client is gone before it
} kHostiles[] = {
    {"too slow", kUnknown, 200000, "none"},
    {"random bytes", RandomBytes(), 0, kRefused},
    {"too long", Times(2 << 20, "a"), 0, "none"},
    {"too deep", Times(1 << 20, "[") + "\n", 0, kRefused},
    {"deep members", Times(200000, "{\"a\":") + "\n", 0, kRefused},
    {"just too deep", Times(1001, "[") + Times(1001, "]") + "\n", 0, kRefused},
    {"NUL bytes", "{\"type\":\"" + Times(100000, "\\u0000") + "\"}\n", 0, kRefused},
    {"many values", "[" + Times(90000, "0,") + "0]\n", 0, kRefused},
    {"many members", "{" + Times(90000, "\"a\":0,") + "\"a\":0}\n", 0, kRefused},
    {"one byte at a time", kUnknown, 1000, kRefused},
    {"gone before the answer", kUnknown, 0, nullptr},
    {"half a request", kUnknown.substr(0, 20), 0, nullptr},
};

int Attack(unsigned int user) {
  BecomeUser(kMallory + user);
  for (std::size_t i = 0; i < 2 * std::size(kHostiles); ++i) {
    const auto& hostile = kHostiles[(user + i) % std::size(kHostiles)];
    Connection connection;
    connection.Write(hostile.bytes, hostile.interval_us);
    std::string answer = "none";
    if (hostile.answer == nullptr) continue;
    connection.Recv(answer);
    EXPECT_EQ(Requoted(answer), hostile.answer) << hostile.name;
  }
  return testing::Test::HasFailure() ? 1 : 0;
}

int StaySilent() {
  BecomeUser(kMallory);
  const std::array<Connection, 1000> connections;
  return Pause(500000), 0;
}

struct Torture;
struct Phase {
  const char* name;
  double share;        // of all the time
  unsigned int limit;  // how often at most
  void (*blow)(Torture&);
  std::uint64_t unanswered = 0;  // requests that each time may cost
  const char* store = "tmpfs";
  const char* options = "";
};

struct Torture : ProgramsTest, testing::WithParamInterface<Phase> {
  // Makes an empty file system the first time.
  static void Mount() {
    const std::string type = GetParam().store;
    fs::create_directories(kFolder);
    if (type == "tmpfs") return MountEmpty(kFolder, "mode=755,size=160m");
    const std::string commands = "[ -e image ] || { truncate -s 160M image && mkfs." + type +
                                 " -q image; } && mount -o loop image " + kFolder;
    if (std::system(commands.c_str()) != 0) throw std::runtime_error("no " + type + " here");
  }

  void SetUp() override {
    ProgramsTest::SetUp();
    setenv("PATH", (getenv("PATH") + std::string(":/usr/sbin:/sbin")).c_str(), 1);
    for (const char* user : {"alice", "bob", "any", "carol", "root"}) {
      WriteFile(std::string("/var/packages/") + user, "");
      WriteFile(std::string("/var/lib/zelttokenmgr/installed/") + user, Requoted(kGrant));
    }
    const std::string mounted = Outcome(Mount);
    if (mounted != "done") GTEST_SKIP() << "NOT SHOWN: " << mounted;
    void* memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    board = static_cast<Board*>(memory);
    board->slot_count = kSlots;
    StartDaemon();
    for (std::size_t client = 0; client < kClients; ++client) Seat(client);
    ASSERT_TRUE(Eventually([] { return board->counts[kAnswered] > 5000; })) << daemon->Errors();
    board->pause = kPause;
  }

  void TearDown() override {
    for (std::size_t client = 0; board != nullptr && client < kClients; ++client) Unseat(client);
    daemon.reset();
    if (board != nullptr) munmap(std::exchange(board, nullptr), sizeof(Board));
    umount2(kFolder.c_str(), MNT_DETACH);
  }

  void StartDaemon() {
    daemon.emplace("--workers 2 --request-timeout 2s " + std::string(GetParam().options));
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
    CheckLog();
  }

  void CheckLog() {
    static const std::regex words("[A-Za-z0-9_-]{32,}");
    while (learnt < board->count) tokens.insert(board->records.at(++learnt).token.data());
    const std::string log = daemon->Errors();
    for (std::sregex_iterator word(log.begin(), log.end(), words), end; word != end; ++word) {
      EXPECT_FALSE(tokens.contains(word->str())) << "a token in the log: " << word->str();
    }
  }

  static void Unseat(std::size_t client) {
    const pid_t process = board->clients.at(client).exchange(0);
    if (process != 0 && kill(process, SIGKILL) == 0) Finish(process);
  }
  static void Seat(std::size_t client) {
    Unseat(client);
    Start([client]() -> int { Live(client); });
    EXPECT_TRUE(Eventually([&] { return board->clients.at(client) != 0; }));
  }
  static void Rest(bool rest) {
    board->rest = rest;
    EXPECT_TRUE(Eventually([&] { return board->resting == (rest ? kClients : 0); }));
  }

  // Validates some of the tokens that clients work on, and the newest.
  static void Audit(std::uint32_t size) {
    const std::uint32_t count = board->count;
    for (std::uint32_t i = 0; i < size; ++i) {
      CheckToken(board->records.at(board->slots.at(Below(kSlots))));
      CheckToken(board->records.at(count - std::min(i, count)));
    }
  }

  // Descriptors and own memory, in KiB, of each worker.
  std::map<pid_t, std::pair<long, long>> Sizes() const {
    std::map<pid_t, std::pair<long, long>> sizes;
    for (const pid_t worker : daemon->Children()) {
      const std::string folder = "/proc/" + std::to_string(worker);
      const std::string status = ReadFile(folder + "/status");
      sizes[worker] = {std::distance(fs::directory_iterator(folder + "/fd"), {}),
                       std::stol(status.substr(status.find("RssAnon:") + 8))};
    }
    return sizes;
  }

  // Sends a worker a signal, and waits for its replacement.
  void Strike(int signal) {
    const pid_t worker = daemon->Children().at(Below(2));
    kill(worker, signal);
    AwaitService(worker);
  }

  void Restart(int signal) {
    EndDaemon(signal);
    StartDaemon();
  }

  void KillAll() {
    for (const auto& client : board->clients) kill(client, SIGKILL);
    EndDaemon(SIGKILL, true);
    StartDaemon();
    for (std::size_t client = 0; client < kClients; ++client) Seat(client);
  }

  // Stops a worker until the other one waits for a lock, and goes on waiting.
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

  static void SendHostile() {
    std::vector<pid_t> processes;
    for (unsigned int i = 0; i < 8; ++i) processes.push_back(Start([i] { return Attack(i); }));
    for (const pid_t process : processes) EXPECT_EQ(Finish(process), 0);
  }

  // Fills the store, or the file system below it. Revoking goes on all the while.
  static void Fill() {
    const auto held = [] {
      const auto holds = [](const auto& slot) { return Holds(board->records.at(slot)); };
      return std::count_if(board->slots.begin(), board->slots.end(), holds);
    };
    std::ofstream ballast(*GetParam().options == '\0' ? kFolder + "/ballast" : "");
    while (ballast << std::string(4096, 'b') << std::flush) {
    }
    board->counts[kFull] = board->pause = 0;
    board->slot_count = kManySlots;
    board->mode = Mode::kHoard;
    EXPECT_TRUE(Eventually([] { return board->counts[kFull] > 200; })) << "nothing was full";
    board->mode = Mode::kDrain;
    EXPECT_TRUE(Eventually([&, half = held() / 2] { return held() <= half; })) << "not revoked";
    fs::remove(kFolder + "/ballast");
    board->slot_count = kSlots;
    board->pause = kPause;
    board->mode = Mode::kUsual;
    Pause(200000);
  }

  void TakeDescriptors() {
    board->cut = true;
    for (const rlim_t count : {rlim_t{3}, kDescriptors}) {
      const rlimit limit = {.rlim_cur = count, .rlim_max = kDescriptors};
      for (const pid_t worker : daemon->Children()) prlimit(worker, RLIMIT_NOFILE, &limit, nullptr);
      Pause(300000);
    }
    AwaitService();
    board->cut = false;
  }

  // Copies the store to where btrfs checks what it reads, and damages some of it on the disk.
  void DamageBlocks() {
    Rest(true);
    EndDaemon(SIGTERM);
    EXPECT_EQ(std::system(("cp --reflink=never " + kStore + " x && cp x " + kStore + "2 && mv " +
                           kStore + "2 " + kStore + " && sync")
                              .c_str()),
              0);
    StartDaemon();
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

  // Another process gets the number of an owner that was killed.
  static void TakeNumber() {
    std::atomic<std::uint32_t>& slot = board->slots.back();
    slot = 0;
    const pid_t owner = Start([&] {
      BecomeUser(kUsers[0]);
      slot = IssueNew();
      return pause();
    });
    EXPECT_TRUE(Eventually([&] { return slot != 0; }));
    kill(owner, SIGKILL);
    Finish(owner);
    Pause(20000);  // start times count hundredths of a second (proc_pid_stat(5))
    const auto steal = [&, &record = board->records.at(slot)] {
      if (getpid() != owner) return 1;
      BecomeUser(kUsers.at(Below(2)));
      const Answer taken = Send("transfer", record, std::to_string(owner));
      const Answer ended = Send("revoke", record);
      if (taken == Answer::kYes || ended == Answer::kYes) ++board->counts[kTwoOwners];
      return 0;
    };
    EXPECT_TRUE(Eventually([&] {
      WriteFile("/proc/sys/kernel/ns_last_pid", std::to_string(owner - 1));
      return Finish(Start(steal)) == 0;
    })) << "the number did not come again";
  }

  std::optional<Daemon> daemon;
  std::unordered_set<std::string> tokens;
  std::uint32_t learnt = 0;
};

const Phase kPhases[] = {
    {"FullSpeed", 0.08, 1U << 30, [](Torture&) { board->pause = 0, Pause(100000); }},
    {"WorkerKilled", 0.16, 500, [](Torture& t) { t.Strike(SIGKILL); }, 1},
    {"DaemonKilled", 0.10, 200, [](Torture& t) { t.Restart(SIGKILL); }, kAny},
    {"AllKilled", 0.06, 50, [](Torture& t) { t.KillAll(); }, kAny},
    {"DaemonRestarted", 0.04, 50, [](Torture& t) { t.Restart(SIGTERM); }, kAny},
    {"ClientKilled", 0.03, 100, [](Torture&) { Torture::Seat(Below(kClients)); }},
    {"WorkerStopped", 0.06, 20, [](Torture& t) { t.Strike(SIGSTOP); }, 1},
    {"WriterStopped", 0.06, 20, [](Torture& t) { t.StopWriter(); }, 1},
    {"Silent", 0.04, 20, [](Torture&) { EXPECT_EQ(Finish(Start(StaySilent)), 0); }},
    {"Hostile", 0.08, 20, [](Torture&) { Torture::SendHostile(); }},
    {"FullTmpfs", 0.03, 10, [](Torture&) { Torture::Fill(); }},
    {"FullExt4", 0.03, 10, [](Torture&) { Torture::Fill(); }, 0, "ext4"},
    {"FullBtrfs", 0.03, 10, [](Torture&) { Torture::Fill(); }, 0, "btrfs"},
    {"FullStore", 0.03, 10, [](Torture&) { Torture::Fill(); }, 0, "tmpfs", "--store-size 4M"},
    {"Descriptors", 0.02, 20, [](Torture& t) { t.TakeDescriptors(); }},
    {"DamagedBlock", 0.02, 10, [](Torture& t) { t.DamageBlocks(); }, kAny, "btrfs"},
    {"NumberTaken", 0.02, 50, [](Torture&) { Torture::TakeNumber(); }},
    {"PowerCut", 0.10, 200, [](Torture& t) { t.CutPower(); }, kAny, "ext4"},
};
INSTANTIATE_TEST_SUITE_P(, Torture, testing::ValuesIn(kPhases),
                         [](const auto& row) { return row.param.name; });

TEST_P(Torture, Withstands) {
  const Phase& phase = GetParam();
  Rest(true);
  const auto before = Sizes();
  for (auto& count : board->counts) count = 0;
  board->answered_at = board->gap = 0;
  Rest(false);
  unsigned int times = 0;
  const auto end = Clock::now() + std::chrono::duration<double>(seconds * phase.share);
  for (; times == 0 || (times < phase.limit && Clock::now() < end && !HasFailure()); ++times) {
    Pause(Below(60000));
    phase.blow(*this);
    Audit(20);
  }
  Rest(true);
  Audit(3000);
  EXPECT_TRUE(Eventually([&] {
    const auto sizes = Sizes();
    return std::all_of(sizes.begin(), sizes.end(), [&](const auto& worker) {
      const auto& [descriptors, memory] = worker.second;
      const auto old = before.find(worker.first);
      return old == before.end() ||
             (descriptors <= old->second.first && memory <= old->second.second + kGrowth);
    });
  })) << "a worker has grown";
  const auto& counts = board->counts;
  EXPECT_EQ(counts[kLost] + counts[kHonoured] + counts[kTwoOwners] + counts[kWrong], 0);
  EXPECT_LE(counts[kUnanswered], times * phase.unanswered);
  EndDaemon(SIGTERM);
  std::printf("%-16s%7u", phase.name, times);
  for (const auto& count : counts) std::printf("%11lu", count.load());
  std::printf("%8ld ms%s\n", board->gap / 1000000, HasFailure() ? " FAILED" : "");
  if (HasFailure()) std::cout << daemon->Errors();
}

}  // namespace ZELT::Torture

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    if (option == "--seconds") ZELT::Torture::seconds = std::stod(argv[i + 1]);
    if (option == "--only") testing::GTEST_FLAG(filter) = std::string("*/") + argv[i + 1];
  }
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  std::puts(
      "phase             times   answered unanswered       lost   honoured two owners      wrong   "
      "    full     gap");
  return RUN_ALL_TESTS();
}

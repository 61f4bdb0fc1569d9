// The supervisor with workers that fail on purpose.
#include "supervisor.h"

#include <sys/socket.h>

#include <cstdlib>
#include <new>

#include "service_manager.h"
#include "support/testing.h"
#include "unix_address.h"
#include "watch.h"

namespace {
bool no_memory = false;
}

void* operator new(std::size_t size) {
  void* const memory = no_memory ? nullptr : std::malloc(size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }

namespace ZELT {

using enum Activity;
using std::chrono::milliseconds;
using std::chrono::seconds;

std::int64_t Ago(seconds time) {
  return (std::chrono::steady_clock::now() - time).time_since_epoch().count();
}

TEST(WatchTest, FindsTheOneThatHoldsUpTheOthers) {
  struct Worker {
    int seen;
    Activity activity;
    pid_t pid = 1;
  };
  struct Row {
    std::array<Worker, 3> workers;
    std::ptrdiff_t stuck;
    bool any_responds;
  };
  const Row rows[] = {
      {{{{0, kIdle}, {4, kServing}, {4, kStarting}}}, -1, true},
      {{{{9, kWaitingForStore}, {6, kIdle}, {7, kServing}}}, 2, false},
      {{{{7, kWaitingForStore}, {8, kWaitingForStore}, {9, kIdle, 0}}}, 1, false},
      {{{{9, kStarting}, {0, kStarting}, {0, kIdle, 0}}}, 0, false},
      {{{{9, kServing, 0}, {0, kWaitingForStore}, {9, kIdle, 0}}}, -1, true},
  };
  for (const Row& row : rows) {
    std::array<WorkerSlot, 3> slots;
    for (std::size_t i = 0; i < slots.size(); ++i) {
      slots[i].seen = Ago(seconds(row.workers[i].seen));
      slots[i].activity = row.workers[i].activity;
      slots[i].pid = row.workers[i].pid;
    }
    const WorkerSlot* const stuck = FindStuck(slots, seconds(5));
    EXPECT_EQ(stuck == nullptr ? -1 : stuck - slots.data(), row.stuck) << &row - rows;
    EXPECT_EQ(AnyResponds(slots, seconds(5)), row.any_responds) << &row - rows;
  }
}

/// A supervisor of two workers, in a process without memory.
struct Supervised {
  explicit Supervised(const std::function<void(WorkerSlot&)>& work)
      : pid(Start([&] {
          Supervisor supervisor(
              board, {2, milliseconds(900), work, [] {}, "a long text that does not fit"});
          no_memory = true;
          return supervisor.Run(), 0;
        })) {}
  ~Supervised() {
    kill(pid, SIGTERM);
    EXPECT_EQ(Finish(pid), 0);
  }
  static inline Board& board = MapBoard();
  static inline WorkerSlot& first = board.slots[0];
  static inline WorkerSlot& second = board.slots[1];
  const pid_t pid;
};

// Counts a worker's starts.
std::atomic<std::uint64_t>& Starts(WorkerSlot& slot) { return slot.refused[0]; }

TEST(SupervisorTest, ReplacesAtOnceWhoHasServed) {
  const Supervised workers([](WorkerSlot& slot) {
    if (Starts(slot)++ == 0 || &slot == &Supervised::second) ++slot.times[0];
    throw 1;
  });
  EXPECT_EVENTUALLY(Starts(Supervised::second) > 0);
  kill(workers.pid, SIGUSR1);  // which it cannot do
  EXPECT_EVENTUALLY(Starts(Supervised::second) > 50 * (Starts(Supervised::first) + 2))
      << "the other one waits ever longer";
  EXPECT_EVENTUALLY(Supervised::first.pid == 0);
  EXPECT_GE(Supervised::board.deaths, 100U);
}

// The second waits until the first is replaced.
TEST(SupervisorTest, KillsOneOfTwoThatHang) {
  new (&Supervised::board) Board;
  const int notified = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  const std::string address = "@supervised" + std::to_string(getpid());
  ASSERT_EQ(TokenManager::UnixAddress(address).Bind(notified), 0);
  sockaddr_un bound{};
  socklen_t length = sizeof bound;
  getsockname(notified, reinterpret_cast<sockaddr*>(&bound), &length);
  EXPECT_EQ(length, offsetof(sockaddr_un, sun_path) + address.size());
  setenv("NOTIFY_SOCKET", address.c_str(), 1);
  setenv("WATCHDOG_USEC", "1000", 1);
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  EXPECT_EQ(WatchdogInterval(), std::chrono::microseconds(500));
  unsetenv("WATCHDOG_PID");
  const auto hears = [notified](char first) {
    std::array<char, 10> state{};
    return recv(notified, state.data(), state.size(), 0) > 0 && state[0] == first;
  };
  const Supervised workers([&](WorkerSlot& slot) {
    ++Starts(slot);
    const bool fresh = slot.seen != 0 && slot.activity == kStarting;
    slot.seen = 0;
    slot.activity = &slot == &Supervised::first ? kServing : kWaitingForStore;
    Eventually([] { return Starts(Supervised::first) > 1; });
    if (&slot == &Supervised::first) slot.refused[1] = !fresh || !hears('R') || hears('W');
    Eventually([&slot] {
      slot.seen = Ago(seconds(0));
      slot.activity = kIdle;
      sigset_t pending;
      sigpending(&pending);
      return sigismember(&pending, SIGTERM) == 1;
    });
  });
  EXPECT_EVENTUALLY(Supervised::first.activity == kIdle);
  EXPECT_EVENTUALLY(hears('W'));
  EXPECT_EQ(Supervised::first.refused[1], 0U) << "nobody served";
  for (const int signal : {SIGSTOP, SIGCONT}) {  // the machine is suspended
    for (const pid_t pid : {workers.pid, +Supervised::first.pid, +Supervised::second.pid}) {
      kill(pid, signal);
      std::this_thread::sleep_for(milliseconds(signal == SIGSTOP ? 500 : 50));
    }
  }
  EXPECT_EQ(Starts(Supervised::first) + Starts(Supervised::second), 3U);
}

}  // namespace ZELT

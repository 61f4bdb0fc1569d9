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
    seconds seen;
    Activity activity;
    pid_t pid = 1;
  };
  struct Row {
    std::array<Worker, 3> workers;
    std::ptrdiff_t stuck;
    bool any_responds;
  };
  const std::array rows = {
      Row{{{{seconds(0), kIdle}, {seconds(4), kServing}, {seconds(4), kStarting}}}, -1, true},
      Row{{{{seconds(9), kWaitingForStore}, {seconds(6), kIdle}, {seconds(7), kServing}}},
          2,
          false},
      Row{{{{seconds(7), kWaitingForStore},
            {seconds(8), kWaitingForStore},
            {seconds(9), kIdle, 0}}},
          1,
          false},
      Row{{{{seconds(9), kStarting}, {seconds(0), kStarting}, {seconds(0), kIdle, 0}}}, 0, false},
      Row{{{{seconds(9), kServing, 0}, {seconds(0), kWaitingForStore}, {seconds(9), kIdle, 0}}},
          -1,
          true}};
  for (const Row& row : rows) {
    std::array<WorkerSlot, 3> slots;
    for (std::size_t i = 0; i < slots.size(); ++i) {
      slots[i].seen = Ago(row.workers[i].seen);
      slots[i].activity = row.workers[i].activity;
      slots[i].pid = row.workers[i].pid;
    }
    const WorkerSlot* const stuck = FindStuck(slots, seconds(5));
    EXPECT_EQ(stuck == nullptr ? -1 : stuck - slots.data(), row.stuck) << &row - rows.data();
    EXPECT_EQ(AnyResponds(slots, seconds(5)), row.any_responds) << &row - rows.data();
  }
}

/// A supervisor of two workers, in a process without memory.
struct Supervised {
  explicit Supervised(const std::function<void(WorkerSlot&)>& work)
      : pid(Start([&] {
          Supervisor supervisor(board, {.workers = 2,
                                        .request_timeout = milliseconds(400),
                                        .work = work,
                                        .on_stop = [] {},
                                        .serving = "a long text that does not fit"});
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
  EXPECT_TRUE(Eventually([] { return Starts(Supervised::second) > 0; }));
  kill(workers.pid, SIGUSR1);  // which it cannot do
  EXPECT_TRUE(Eventually([] {
    return Starts(Supervised::second) > 50 * (Starts(Supervised::first) + 2);
  })) << "the other one waits ever longer";
  EXPECT_TRUE(Eventually([] { return Supervised::first.pid == 0; }));
  EXPECT_GE(Supervised::board.deaths, 100U);
}

// The second waits until the first is replaced.
TEST(SupervisorTest, KillsOneOfTwoThatHang) {
  new (&Supervised::board) Board;
  const int notified = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  const std::string address = "@supervised" + std::to_string(getpid());
  ASSERT_EQ(TokenManager::UnixAddress(address).Bind(notified), 0);
  setenv("NOTIFY_SOCKET", address.c_str(), 1);
  setenv("WATCHDOG_USEC", "1000", 1);
  EXPECT_EQ(WatchdogInterval(), std::chrono::microseconds(500));
  const auto hears_watchdog = [notified] {
    std::array<char, 10> state{};
    return recv(notified, state.data(), state.size(), 0) > 0 && state[0] == 'W';
  };
  const timespec tick{.tv_sec = 0, .tv_nsec = 1000000};
  sigset_t terminate;
  sigemptyset(&terminate);
  sigaddset(&terminate, SIGTERM);
  const Supervised workers([&](WorkerSlot& slot) {
    ++Starts(slot);
    slot.seen = 0;
    slot.activity = &slot == &Supervised::first ? kServing : kWaitingForStore;
    Eventually([] { return Starts(Supervised::first) > 1; });
    if (&slot == &Supervised::first) slot.refused[1] = hears_watchdog() || hears_watchdog();
    do {
      slot.seen = Ago(seconds(0));
      slot.activity = kIdle;
    } while (sigtimedwait(&terminate, nullptr, &tick) < 0);
  });
  EXPECT_TRUE(Eventually([] { return Supervised::first.activity == kIdle; }));
  EXPECT_TRUE(Eventually(hears_watchdog));
  EXPECT_EQ(Supervised::first.refused[1], 0U) << "nobody served";
  EXPECT_EQ(Starts(Supervised::second), 1U);
}

}  // namespace ZELT

#include "supervisor.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <numeric>
#include <string>
#include <system_error>
#include <utility>

#include "child.h"
#include "log.h"
#include "service_manager.h"
#include "watch.h"

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

namespace {

// Between checks of the workers.
constexpr milliseconds kCheckInterval{500};

// Before the replacement of a worker that ended without serving a request.
constexpr milliseconds kFirstDelay{10};
constexpr milliseconds kLongestDelay{1000};

// A killed process ends at once, unless it waits in the kernel for a device or file system that
// does not respond. Such processes keep their memory and descriptors, so their number is limited.
constexpr std::size_t kMaxDying = 16;

// An ending worker gives clients one second, and answers before and after it what has arrived.
constexpr seconds kStopGrace{6};

// If they were ignored, faults would recur at once or stay hidden, and children would leave no exit
// status (wait(2)). The last two cannot be ignored.
constexpr std::array kNotIgnored = {SIGSEGV, SIGBUS,  SIGFPE, SIGILL,  SIGSYS,  SIGTRAP,
                                    SIGABRT, SIGTERM, SIGINT, SIGCHLD, SIGKILL, SIGSTOP};

sigset_t SetOf(auto... numbers) {
  sigset_t set;
  sigemptyset(&set);
  (sigaddset(&set, numbers), ...);
  return set;
}

// sigtimedwait(2) receives a blocked signal even if it is ignored.
sigset_t BlockSignals() {
  const sigset_t taken = SetOf(SIGTERM, SIGINT, SIGUSR1, SIGCHLD);
  sigprocmask(SIG_SETMASK, &taken, nullptr);
  return taken;
}

std::uint64_t Served(const WorkerSlot& slot) {
  return std::accumulate(slot.times.begin(), slot.times.end(), std::uint64_t{0});
}

nanoseconds MonotonicTime() { return std::chrono::steady_clock::now().time_since_epoch(); }

// Returns -1 if none arrives before the deadline.
int TakeSignal(const sigset_t& awaited, std::chrono::steady_clock::time_point deadline) {
  const nanoseconds wait =
      std::max(deadline.time_since_epoch() - MonotonicTime(), nanoseconds::zero());
  const auto whole = std::chrono::duration_cast<seconds>(wait);
  const timespec timeout{.tv_sec = whole.count(), .tv_nsec = (wait - whole).count()};
  return sigtimedwait(&awaited, nullptr, &timeout);
}

bool WasToldToEnd(int status) { return WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS; }

void LogEnd(pid_t worker, int status) {
  if (WIFSIGNALED(status)) {
    Log(LOG_ERR, "worker %d was killed by signal %d", worker, WTERMSIG(status));
  } else if (!WasToldToEnd(status)) {
    Log(LOG_ERR, "worker %d exited with %d", worker, WEXITSTATUS(status));
  }
}

}  // namespace

void IgnoreSignals() {
  for (int number = 1; number <= SIGRTMAX; ++number) {
    const bool is_needed = std::ranges::count(kNotIgnored, number) > 0;
    signal(number, is_needed ? SIG_DFL : SIG_IGN);
  }
}

Board& MapBoard() {
  void* memory =
      mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
  auto* board = new (memory) Board;
  board->started = MonotonicTime().count();
  return *board;
}

Supervisor::Supervisor(Board& shared_board, SupervisorSettings supervisor_settings)
    : board(shared_board),
      settings(std::move(supervisor_settings)),
      slots(board.slots.data(), settings.workers),
      watchdog_interval(WatchdogInterval()),
      supervisor(getpid()),
      signals(BlockSignals()) {
  for (WorkerSlot& slot : slots) workers.push_back({.slot = slot});
}

// Clients that come now are served, even if the workers need a moment: the sockets listen, and the
// store was tried before.
void Supervisor::Run() {
  StartWorkers();
  Log(LOG_NOTICE, "ready, serving %s with %u workers", settings.serving.c_str(), settings.workers);
  NotifyServiceManager("READY=1");
  for (int signal = -1; signal != SIGTERM && signal != SIGINT;) {
    try {
      DoRound(signal);
    } catch (const std::exception& error) {
      Log(LOG_ERR, "supervisor: %s", error.what());
    }
    signal = TakeSignal(signals, NextDeadline());
  }
  Stop();
}

void Supervisor::DoRound(int signal) {
  ReapWorkers();
  StartWorkers();
  if (Clock::now() >= next_check) CheckWorkers();
  if (signal == SIGUSR1) LogCounters();
}

void Supervisor::StartWorkers() {
  for (Worker& worker : workers) {
    if (worker.pid == 0 && worker.due <= Clock::now()) Start(worker);
  }
}

void Supervisor::Start(Worker& worker) {
  worker.slot.activity = Activity::kStarting;
  worker.slot.seen = MonotonicTime().count();
  worker.served = Served(worker.slot);
  board.lines.lost += ReportLostLines();  // or the worker would report them again
  const pid_t pid = fork();
  if (pid == 0) {
    _exit(ExitStatusOf([&] { Work(worker.slot); },
                       [](const char* error) { Log(LOG_ERR, "worker: %s", error); }));
  }
  if (pid < 0) {
    if (!fork_fails) Log(LOG_ERR, "cannot fork a worker, trying again: %s", std::strerror(errno));
    Vacate(worker);
  } else {
    worker.slot.pid = worker.pid = pid;
  }
  fork_fails = pid < 0;
}

// Runs in the forked process.
void Supervisor::Work(WorkerSlot& slot) const {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // even if the worker is blocked
  if (getppid() != supervisor) return;
  signal(SIGINT, SIG_IGN);  // a terminal sends it to the workers too, but the supervisor stops them
  const sigset_t blocked = SetOf(SIGTERM);
  sigprocmask(SIG_SETMASK, &blocked, nullptr);
  settings.work(slot);
}

void Supervisor::ReapWorkers() {
  int status = 0;
  pid_t pid = 0;
  while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
    if (!WasToldToEnd(status)) ++board.deaths;
    const auto ended = std::ranges::find(workers, pid, &Worker::pid);
    if (ended != workers.end()) {
      Vacate(*ended);
    } else if (dying > 0) {  // not a child from before exec(3)
      --dying;
    }
    LogEnd(pid, status);
  }
}

void Supervisor::Vacate(Worker& worker) {
  worker.slot.pid = worker.pid = 0;
  const bool has_served = Served(worker.slot) != worker.served;
  worker.delay =
      has_served ? milliseconds(0) : std::clamp(2 * worker.delay, kFirstDelay, kLongestDelay);
  worker.due = Clock::now() + worker.delay;
}

void Supervisor::CheckWorkers() {
  // After this process or the whole machine was suspended, the workers get time to show that they
  // are alive.
  const bool was_held_up = Clock::now() > next_check + kCheckInterval;
  next_check = Clock::now() + kCheckInterval;
  board.lines.lost += ReportLostLines();
  if (was_held_up) return;
  KillStuckWorker();
  NotifyWatchdog();
}

// The killed worker never runs again, so another one can use its slot before it has ended.
void Supervisor::KillStuckWorker() {
  const WorkerSlot* const stuck =
      dying < kMaxDying ? FindStuck(slots, settings.request_timeout) : nullptr;
  if (stuck == nullptr) return;
  LogStuck(*stuck);
  Worker& worker = workers[static_cast<std::size_t>(stuck - slots.data())];
  kill(worker.pid, SIGKILL);
  ++dying;
  Vacate(worker);
}

void Supervisor::NotifyWatchdog() {
  const bool is_due = watchdog_interval && Clock::now() >= next_watchdog;
  if (!is_due || !AnyResponds(slots, settings.request_timeout)) return;
  NotifyServiceManager("WATCHDOG=1");
  next_watchdog = Clock::now() + *watchdog_interval;
}

// Workers that do not end in time are killed by the end of this process.
void Supervisor::Stop() {
  NotifyServiceManager("STOPPING=1");
  settings.on_stop();
  for (const Worker& worker : workers) {
    if (worker.pid != 0) kill(worker.pid, SIGTERM);
  }
  const auto deadline = Clock::now() + kStopGrace;
  const auto runs = [](const Worker& worker) { return worker.pid != 0; };
  for (ReapWorkers(); std::ranges::any_of(workers, runs); ReapWorkers()) {
    if (TakeSignal(SetOf(SIGCHLD), deadline) > 0 || Clock::now() < deadline) continue;
    return Log(LOG_WARNING, "some workers have not finished within %d s; killing them",
               static_cast<int>(kStopGrace.count()));
  }
}

Supervisor::Clock::time_point Supervisor::NextDeadline() const {
  auto next = next_check;
  for (const Worker& worker : workers) {
    if (worker.pid == 0) next = std::min(next, worker.due);
  }
  return next;
}

void Supervisor::LogCounters() const {
  std::string counts;
  for (std::size_t type = 0; type < kRequestTypes; ++type) {
    std::uint64_t done = 0;
    std::uint64_t refused = 0;
    for (const WorkerSlot& slot : slots) {
      done += slot.done[type];
      refused += slot.refused[type];
    }
    counts += std::string(" ") + kRequestTypeNames[type] + "=" + std::to_string(done) + "/" +
              std::to_string(refused);
  }
  const auto up = std::chrono::duration_cast<seconds>(MonotonicTime() - nanoseconds(board.started));
  Log(LOG_NOTICE, "up %lld s, workers=%zu deaths=%llu, requests done/refused:%s",
      static_cast<long long>(up.count()), workers.size(),
      static_cast<unsigned long long>(board.deaths.load()), counts.c_str());
  const CacheCounts& cache = slots.front().cache;  // a text store has one worker
  if (cache.total == 0) return;
  Log(LOG_NOTICE, "cache hit=%ju miss=%ju total=%ju", std::uintmax_t{cache.hit},
      std::uintmax_t{cache.miss}, std::uintmax_t{cache.total});
}

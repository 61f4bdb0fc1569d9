#include "supervisor.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <new>
#include <numeric>
#include <string>
#include <system_error>
#include <utility>

#include "log.h"
#include "service_manager.h"

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

namespace {

// Between checks of the workers. The second applies until the first worker is ready, because the
// service manager waits for it.
constexpr milliseconds kCheckInterval{500};
constexpr milliseconds kStartInterval{2};

// Before the replacement of a worker that ended without serving a request.
constexpr milliseconds kFirstDelay{10};
constexpr milliseconds kLongestDelay{1000};

// A killed process ends at once, unless it waits in the kernel for a device or file system that
// does not respond. Such processes keep their memory and descriptors, so their number is limited.
constexpr milliseconds kKillGrace{1000};
constexpr std::size_t kMaxLingering = 16;

// Longer than any response may take.
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

std::uint64_t Sum(const auto& counters) {
  return std::accumulate(counters.begin(), counters.end(), std::uint64_t{0});
}

std::uint64_t Served(const WorkerSlot& slot) { return Sum(slot.done) + Sum(slot.refused); }

nanoseconds Now() { return std::chrono::steady_clock::now().time_since_epoch(); }

nanoseconds TimeSinceSeen(const WorkerSlot& slot) { return Now() - nanoseconds(slot.seen); }

// A worker that waits for the store gets more time, so that the worker that holds it is killed
// first.
nanoseconds Patience(const WorkerSlot& slot, nanoseconds request_timeout) {
  return slot.activity == Activity::kWaitingForStore ? 2 * request_timeout : request_timeout;
}

std::string Doing(const WorkerSlot& slot) {
  const Activity activity = slot.activity;
  if (activity == Activity::kIdle) return "waiting for requests";
  const auto type =
      std::min<std::size_t>(static_cast<std::size_t>(slot.type.load()), kRequestTypes - 1);
  return std::string(activity == Activity::kServing ? "serving" : "waiting for the store with") +
         " a request type=" + kRequestTypeNames[type] +
         " pid=" + std::to_string(slot.client_process) + " uid=" + std::to_string(slot.client_user);
}

// Returns -1 if none arrives before the deadline.
int TakeSignal(const sigset_t& awaited, std::chrono::steady_clock::time_point deadline) {
  const nanoseconds wait = std::max(deadline.time_since_epoch() - Now(), nanoseconds::zero());
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
    const bool is_needed =
        std::find(kNotIgnored.begin(), kNotIgnored.end(), number) != kNotIgnored.end();
    signal(number, is_needed ? SIG_DFL : SIG_IGN);
  }
}

Board& MapBoard() {
  void* memory =
      mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
  auto* board = new (memory) Board;
  board->started = Now().count();
  return *board;
}

Supervisor::Supervisor(Board& shared_board, SupervisorSettings supervisor_settings)
    : board(shared_board),
      settings(std::move(supervisor_settings)),
      watchdog_interval(WatchdogInterval()),
      supervisor(getpid()),
      signals(BlockSignals()),
      workers(settings.workers) {}

void Supervisor::Run() {
  for (;;) {
    StartWorkers();
    switch (AwaitSignal()) {
      case SIGTERM:
      case SIGINT:
        return Stop();
      case SIGUSR1:
        LogCounters();
        break;
      default:  // SIGCHLD, or the next check is due
        break;
    }
    ReapWorkers();
    AnnounceReadiness();
    if (Clock::now() >= next_check) CheckWorkers();
  }
}

void Supervisor::StartWorkers() {
  for (std::size_t number = 0; number < workers.size(); ++number) {
    const Worker& worker = workers[number];
    const bool is_due = worker.pid == 0 && worker.start <= Clock::now();
    if (is_due && !Start(number)) return;  // the others would fail too
  }
}

bool Supervisor::Start(std::size_t number) {
  Worker& worker = workers[number];
  WorkerSlot& slot = board.slots[number];
  slot.activity = Activity::kIdle;
  slot.seen = Now().count();
  // Recorded before the worker can do anything.
  Worker started = {.served_before = Served(slot), .start = Clock::now(), .delay = worker.delay};
  const pid_t pid = fork();
  if (pid == 0) Work(slot);
  if (pid < 0) {
    if (!fork_fails) Log(LOG_ERR, "cannot fork a worker, trying again: %s", std::strerror(errno));
    fork_fails = true;
    ScheduleStart(worker, false);
    return false;
  }
  fork_fails = false;
  started.pid = pid;
  worker = started;
  slot.pid = pid;
  return true;
}

// Runs in the forked child.
void Supervisor::Work(WorkerSlot& slot) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // even if the worker is blocked
  if (getppid() != supervisor) _exit(EXIT_FAILURE);
  signal(SIGINT, SIG_IGN);  // a terminal sends it to the workers too, but the supervisor stops them
  const sigset_t blocked = SetOf(SIGTERM);
  sigprocmask(SIG_SETMASK, &blocked, nullptr);
  try {
    settings.work(slot);
    _exit(EXIT_SUCCESS);
  } catch (const std::exception& error) {
    Log(LOG_ERR, "worker: %s", error.what());
    _exit(EXIT_FAILURE);
  }
}

// Waits until there is something to do. Returns the signal that has arrived, or -1.
int Supervisor::AwaitSignal() {
  auto next = ready ? next_check : Clock::now() + kStartInterval;
  for (const Worker& worker : workers) {
    if (worker.pid == 0) next = std::min(next, worker.start);
  }
  return TakeSignal(signals, next);
}

void Supervisor::ReapWorkers() {
  int status = 0;
  while (const pid_t pid = waitpid(-1, &status, WNOHANG)) {
    if (pid < 0) return;
    LogEnd(pid, status);
    std::erase(lingering, pid);
    const auto ended = std::find_if(workers.begin(), workers.end(),
                                    [pid](const Worker& worker) { return worker.pid == pid; });
    if (ended != workers.end()) {
      HandleDeath(static_cast<std::size_t>(ended - workers.begin()), status);
    }
  }
}

void Supervisor::HandleDeath(std::size_t number, int status) {
  Worker& worker = workers[number];
  WorkerSlot& slot = board.slots[number];
  slot.pid = 0;
  worker.pid = 0;
  if (!WasToldToEnd(status)) Count(board.deaths);
  ScheduleStart(
      worker, Served(slot) != worker.served_before || Clock::now() - worker.start > kLongestDelay);
}

void Supervisor::ScheduleStart(Worker& worker, bool has_worked) {
  worker.delay =
      has_worked ? milliseconds(0) : std::clamp(2 * worker.delay, kFirstDelay, kLongestDelay);
  worker.start = Clock::now() + worker.delay;
}

void Supervisor::AnnounceReadiness() {
  const auto serves = [this](const Worker& worker) {
    const WorkerSlot& slot = board.slots[static_cast<std::size_t>(&worker - workers.data())];
    return worker.pid != 0 && nanoseconds(slot.seen) > worker.start.time_since_epoch();
  };
  if (ready || std::none_of(workers.begin(), workers.end(), serves)) return;
  ready = true;
  Log(LOG_NOTICE, "ready, serving %s with %u workers", settings.serving.c_str(), settings.workers);
  NotifyServiceManager("READY=1");
}

void Supervisor::CheckWorkers() {
  // After this process or the whole machine was suspended, the workers get time to show that they
  // are alive.
  const bool was_held_up = Clock::now() > next_check + kCheckInterval;
  next_check = Clock::now() + kCheckInterval;
  ReportLostLines();
  if (was_held_up) return;
  for (std::size_t number = 0; number < workers.size(); ++number) CheckWorker(number);
  NotifyWatchdog();
}

void Supervisor::CheckWorker(std::size_t number) {
  Worker& worker = workers[number];
  WorkerSlot& slot = board.slots[number];
  if (worker.pid == 0) return;
  if (worker.killed) {
    if (Clock::now() - *worker.killed >= kKillGrace) Abandon(worker, slot);
    return;
  }
  if (TimeSinceSeen(slot) <= Patience(slot, settings.request_timeout)) return;
  if (WaitsForAnother(slot)) return;
  Log(LOG_ERR, "worker %d has not responded for %.1f s, %s; killing it", worker.pid,
      std::chrono::duration<double>(TimeSinceSeen(slot)).count(), Doing(slot).c_str());
  kill(worker.pid, SIGKILL);
  worker.killed = Clock::now();
}

// Returns whether the worker waits for the store, but another one has waited for longer. That one
// may have been stopped after it got the store, before it recorded so. Killing it lets the others
// continue.
bool Supervisor::WaitsForAnother(const WorkerSlot& slot) const {
  const auto waits_longer = [&slot](const WorkerSlot& other) {
    return other.pid != 0 && other.activity == Activity::kWaitingForStore && other.seen < slot.seen;
  };
  return slot.activity == Activity::kWaitingForStore &&
         std::any_of(board.slots.begin(), board.slots.end(), waits_longer);
}

// The killed worker never runs again, so another one can use its slot.
void Supervisor::Abandon(Worker& worker, WorkerSlot& slot) {
  if (lingering.size() == kMaxLingering) return;
  Log(LOG_ERR, "worker %d was killed but has not ended; starting another in its place", worker.pid);
  lingering.push_back(worker.pid);
  Count(board.deaths);
  slot.pid = 0;
  worker = {};
}

void Supervisor::NotifyWatchdog() {
  if (!watchdog_interval || Clock::now() < next_watchdog) return;
  const auto end = board.slots.begin() + workers.size();
  const bool any_serves = std::any_of(board.slots.begin(), end, [this](const WorkerSlot& slot) {
    return slot.pid != 0 && TimeSinceSeen(slot) <= settings.request_timeout;
  });
  if (!any_serves) return;
  NotifyServiceManager("WATCHDOG=1");
  next_watchdog = Clock::now() + *watchdog_interval;
}

void Supervisor::Stop() {
  NotifyServiceManager("STOPPING=1");
  settings.on_stop();
  if (EndWorkers(SIGTERM, kStopGrace)) return;
  Log(LOG_WARNING, "some workers have not finished within %d s; killing them",
      static_cast<int>(kStopGrace.count()));
  EndWorkers(SIGKILL, kKillGrace);
}

// Returns whether all have ended within `grace`.
bool Supervisor::EndWorkers(int signal, milliseconds grace) {
  for (const Worker& worker : workers) {
    if (worker.pid != 0) kill(worker.pid, signal);
  }
  const auto deadline = Clock::now() + grace;
  for (;;) {
    ReapWorkers();
    const bool ended = std::none_of(workers.begin(), workers.end(),
                                    [](const Worker& worker) { return worker.pid != 0; });
    if (ended || Clock::now() >= deadline) return ended;
    TakeSignal(SetOf(SIGCHLD), deadline);
  }
}

void Supervisor::LogCounters() {
  std::string counts;
  for (std::size_t type = 0; type < kRequestTypes; ++type) {
    std::uint64_t done = 0;
    std::uint64_t refused = 0;
    for (const WorkerSlot& slot : board.slots) {
      done += slot.done[type];
      refused += slot.refused[type];
    }
    counts += std::string(" ") + kRequestTypeNames[type] + "=" + std::to_string(done) + "/" +
              std::to_string(refused);
  }
  const auto up = std::chrono::duration_cast<seconds>(Now() - nanoseconds(board.started));
  Log(LOG_NOTICE, "up %lld s, workers=%zu deaths=%llu, requests done/refused:%s",
      static_cast<long long>(up.count()), workers.size(),
      static_cast<unsigned long long>(board.deaths.load()), counts.c_str());
}

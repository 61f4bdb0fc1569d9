// The process that keeps the workers alive.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "board.h"

/// The supervisor's settings.
struct SupervisorSettings {
  unsigned int workers = 1;  ///< at most kMaxWorkers

  /// A worker that has not responded for this long is killed. At least two seconds, since idle
  /// workers show that they are alive once a second.
  std::chrono::seconds request_timeout{5};

  std::function<void(WorkerSlot& slot)> work;  ///< what a worker does; it exits when this returns
  std::function<void()> on_stop;               ///< called before the workers are told to end
  std::string serving;                         ///< what is served, for the log
};

/// Ignores all signals that would end or stop the process, except those that report a fault,
/// SIGTERM and SIGINT. A client that has left (SIGPIPE) and a file at its size limit (SIGXFSZ) then
/// make the system call fail.
void IgnoreSignals();

/// Maps a board that is shared with all processes that are forked later. It is never unmapped.
/// Throws `std::system_error`.
Board& MapBoard();

/// Forks the workers, each with a slot of the board, and replaces them when they end.
///
/// A worker that ends unexpectedly is replaced at once. If workers end before they have served
/// anything, the delay before the next one grows from 10 ms to one second. The supervisor never
/// gives up: as long as any worker serves, clients do not notice. A stuck worker is killed and
/// replaced. Workers never outlive the supervisor.
///
/// Signals: SIGTERM and SIGINT end the daemon, SIGUSR1 logs the counters. They are blocked in the
/// constructor and taken in `Run`; workers start with SIGTERM blocked. The process must have no
/// other threads and no other children, and have called `IgnoreSignals`.
class Supervisor {
 public:
  /// `shared_board` must outlive the supervisor.
  Supervisor(Board& shared_board, SupervisorSettings supervisor_settings);

  /// Serves until told to end, then ends the workers.
  void Run();

 private:
  using Clock = std::chrono::steady_clock;

  // The process that runs in the board's slot with the same index.
  struct Worker {
    pid_t pid = 0;                       // 0: none
    std::uint64_t served_before = 0;     // requests that its predecessors have answered
    Clock::time_point start{};           // start time or, without a process, when to start it
    std::chrono::milliseconds delay{0};  // before it is started again
    std::optional<Clock::time_point> killed{};  // when it was killed for being stuck
  };

  void StartWorkers();
  bool Start(std::size_t number);
  [[noreturn]] void Work(WorkerSlot& slot);
  int AwaitSignal();
  void ReapWorkers();
  void HandleDeath(std::size_t number, int status);
  void ScheduleStart(Worker& worker, bool has_worked);
  void AnnounceReadiness();
  void CheckWorkers();
  void CheckWorker(std::size_t number);
  bool WaitsForAnother(const WorkerSlot& slot) const;
  void Abandon(Worker& worker, WorkerSlot& slot);
  void NotifyWatchdog();
  void Stop();
  bool EndWorkers(int signal, std::chrono::milliseconds grace);
  void LogCounters();

  Board& board;
  const SupervisorSettings settings;
  const std::optional<std::chrono::microseconds> watchdog_interval;
  const pid_t supervisor;
  sigset_t signals{};
  std::vector<Worker> workers;
  std::vector<pid_t> lingering;  // killed and replaced, but not ended
  Clock::time_point next_check;
  Clock::time_point next_watchdog;
  bool ready = false;
  bool fork_fails = false;
};

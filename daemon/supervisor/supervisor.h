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

/// What the supervisor is told.
struct SupervisorSettings {
  unsigned int workers = 1;  ///< at most kMaxWorkers

  /// A worker that has not been seen for so long is killed. At least two seconds, since idle
  /// workers show themselves once a second.
  std::chrono::seconds request_timeout{5};

  std::function<void(WorkerSlot& slot)> work;  ///< what a worker does; it exits when this returns
  std::function<void()> on_stop;               ///< called before the workers are told to end
  std::string serving;                         ///< what is served, for the log
};

/// Ignores all signals that would end or stop the process, but for those that report a fault and
/// for SIGTERM and SIGINT. A client that left, or a store at the file-size limit, is then an error
/// of the system call.
void IgnoreSignals();

/// Maps a board that is shared with all processes that are forked later. It is never unmapped.
/// Throws `std::system_error`.
Board& MapBoard();

/// Forks the workers, each of which has a slot of the board, and waits.
///
/// A worker that ends unasked is replaced at once, whatever the others do; one that ends before it
/// served anything is replaced after 10 ms at first, and after up to a second when that happens
/// again and again. It never gives up: as long as any worker serves, clients do not notice. A
/// worker that is stuck is killed, and replaced. Workers never outlive the supervisor.
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

  // What runs in the board's slot of the same number.
  struct Worker {
    pid_t pid = 0;                              // 0: none
    std::uint64_t served_before = 0;            // requests that its predecessors have answered
    Clock::time_point born{};                   // or, without a process, when it is to be started
    std::chrono::milliseconds delay{0};         // before it is started again
    std::optional<Clock::time_point> killed{};  // being stuck
  };

  void StartWorkers();
  bool Start(std::size_t number);
  [[noreturn]] void Work(WorkerSlot& slot);
  int AwaitSignal();
  void ReapWorkers();
  void HandleDeath(std::size_t number, int status);
  void PutOff(Worker& worker, bool has_worked);
  void AnnounceReadiness();
  void CheckWorkers();
  void CheckWorker(std::size_t number);
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

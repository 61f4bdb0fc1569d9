// The process that keeps the workers alive.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "board.h"

/// The supervisor's settings.
struct SupervisorSettings {
  unsigned int workers = 1;  ///< at most kMaxWorkers

  /// A worker that was not seen for this long is killed. At least two seconds, since idle workers
  /// show that they are alive once a second.
  std::chrono::milliseconds request_timeout{5000};

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

/// Forks the workers, each with a slot of the board, and replaces them when they end or are stuck.
///
/// A worker that has served is replaced at once. If it has not, the delay before the next one in
/// its slot grows from 10 ms to one second. The supervisor never gives up, and a fault of its own
/// costs what it was about to do: it goes on with the next signal or check. Workers never outlive
/// it.
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

  struct Worker {
    WorkerSlot& slot;
    pid_t pid = 0;             // 0: none
    std::uint64_t served = 0;  // requests that its predecessors have answered
    Clock::time_point due{};   // when to start it, if there is none
    std::chrono::milliseconds delay{0};
  };

  void DoRound(int signal);
  void StartWorkers();
  void Start(Worker& worker);
  void Work(WorkerSlot& slot) const;
  void ReapWorkers();
  void Vacate(Worker& worker);
  void CheckWorkers();
  void KillStuckWorker();
  void NotifyWatchdog();
  void Stop();
  Clock::time_point NextDeadline() const;
  void LogCounters() const;

  Board& board;
  const SupervisorSettings settings;
  const std::span<WorkerSlot> slots;
  const std::optional<std::chrono::microseconds> watchdog_interval;
  const pid_t supervisor;
  sigset_t signals{};
  std::vector<Worker> workers;  // in the order of their slots
  std::size_t dying = 0;        // killed and replaced, but not ended
  Clock::time_point next_check;
  Clock::time_point next_watchdog;
  bool fork_fails = false;
};

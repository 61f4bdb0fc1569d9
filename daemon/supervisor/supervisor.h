// The process that keeps the workers alive.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "options.h"
#include "safe_store.h"
#include "server.h"
#include "shared_state.h"
#include "zelttokenmanager/token_manager.h"

/// Forks the workers, which share the listening socket, the store and one cache, and waits.
///
/// The mutex of the cache stays locked when its holder is killed, and the store may be torn. So
/// when a worker ends unasked, its whole generation does: the supervisor ends the other workers,
/// mends the store, and forks a new generation with a new cache. The socket listens all the while,
/// so clients wait instead of failing.
///
/// Signals: SIGTERM and SIGINT end the daemon, SIGUSR1 logs the statistics of the cache. They are
/// blocked in the constructor, in the calling thread, and taken in `Run`. The process must have no
/// other threads and no other children.
class Supervisor {
 public:
  /// Makes the store, the cache, the manager with its services, and the listening socket, in this
  /// order. `daemon_options` must outlive the supervisor. Throws what making them throws.
  explicit Supervisor(const Options& daemon_options);

  /// Serves until told to end. Throws `std::runtime_error` when generations keep dying at once, and
  /// what making the next one throws.
  void Run();

 private:
  struct Generation {
    std::shared_ptr<ZELT::TokenManager::CacheStorage> cache;  // may be empty
    std::unique_ptr<ZELT::TokenManager::TokenManager> manager;
    std::vector<pid_t> workers;
    std::chrono::steady_clock::time_point born;
  };

  Generation MakeGeneration();
  void ForkWorkers();
  void EndWorkers(int signal, std::chrono::milliseconds grace);
  void ReplaceGeneration();
  [[noreturn]] void Work();
  void Serve();
  bool ReapWorkers();
  void LogStatistics();

  const sigset_t signals;
  const Options& options;
  std::shared_ptr<SharedState> shared;
  std::shared_ptr<SafeStore> store;
  Generation generation;
  zeltdaemon::DomainSockServer server;
  pid_t supervisor;
  int stillborn = 0;  // generations in a row that died at once
};

// zelttokenmgrd, the token daemon.
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "check.h"
#include "child.h"
#include "listeners.h"
#include "log.h"
#include "open_store.h"
#include "options.h"
#include "standard_descriptors.h"
#include "supervisor.h"
#include "worker.h"
#include "writers.h"

namespace {

constexpr int kLargeBlock = 128 << 10;  // bytes, the initial value of glibc (mallopt(3))

void PrepareProcess(const Options& options) {
  // Setting these keeps glibc from raising them after a large message, so that the memory of large
  // messages is returned to the system.
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
  mallopt(M_TRIM_THRESHOLD, kLargeBlock);
  umask(S_IRWXG | S_IRWXO);  // the store holds tokens
  const rlimit no_core{};    // a core dump would hold them too
  setrlimit(RLIMIT_CORE, &no_core);
  IgnoreSignals();
  OpenLog(options.log_to_stderr);
}

int Check(const Options& options) {
  const CheckOptions& check = *options.check;
  if (check.user.empty()) return CheckFiles(options.installed_config, std::cout);
  return CheckIssue(options.installed_config, check.user, check.service, check.payload, std::cout);
}

// Ends the daemon if no worker could open the store. A damaged file may kill the process that reads
// it (mmap(2)), so child processes try it.
void TryStore(const StoreOptions& options, StoreLock& lock) {
  if (options.format == StoreFormat::kIndexed) {
    RunInChild(options.path, [&] { RebuildStore(options); });
    lock.LockRebuilt();
  }
  RunInChild(options.path, [&] {
    WorkerSlot slot;
    OpenStore(options, lock, slot);
  });
}

// Whoever may write to these files can grant themselves anything.
void WarnOfWriters(const std::string& installed_config) {
  constexpr std::size_t kMostLines = 10;  // --check prints all
  const std::vector<std::string> lines = ForeignWriters(installed_config);
  for (std::size_t i = 0; i < std::min(lines.size(), kMostLines); ++i) {
    Log(LOG_WARNING, "%s", lines[i].c_str());
  }
}

void Serve(const Options& options) {
  // Locked first: a daemon that cannot have the store leaves the sockets to the one that has it.
  StoreLock store_lock(options.store);
  TryStore(options.store, store_lock);
  WarnOfWriters(options.installed_config);
  const Listeners listeners = OpenListeners();
  Board& board = MapBoard();
  const WorkerContext context{options, listeners.sockets, store_lock, board};
  Supervisor supervisor(board, {.workers = options.workers,
                                .request_timeout = options.request_timeout,
                                .work = [&](WorkerSlot& slot) { Work(context, slot); },
                                .on_stop = [&] { StopListening(listeners); },
                                .serving = listeners.names});
  supervisor.Run();
}

}  // namespace

int main(int argc, char** argv) {
  ZELT::TokenManager::OpenStandardDescriptors();
  const Options options = ParseOptions(argc, argv);
  if (options.check) return Check(options);
  PrepareProcess(options);
  const auto serve = [&] {
    Serve(options);
    Log(LOG_NOTICE, "stopped");
  };
  return ExitStatusOf(serve, [&](const char* error) {
    Log(LOG_ERR, "%s", error);
    if (!options.log_to_stderr) std::cerr << "zelttokenmgrd: " << error << '\n';
  });
}

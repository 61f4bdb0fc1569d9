// zelttokenmgrd, the token daemon.
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cstdlib>
#include <exception>
#include <iostream>

#include "check.h"
#include "child.h"
#include "listeners.h"
#include "log.h"
#include "open_store.h"
#include "options.h"
#include "start_error.h"
#include "supervisor.h"
#include "worker.h"

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
void TryStore(const StoreOptions& options, const StoreLock& lock) {
  RunInChild(options.path, [&] { CheckStore(options); });
  RunInChild(options.path, [&] {
    WorkerSlot slot;
    OpenStore(options, lock, slot);
  });
}

void Serve(const Options& options) {
  // Locked first: a daemon that cannot have the store leaves the sockets to the one that has it.
  const StoreLock store_lock(options.store);
  TryStore(options.store, store_lock);
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

int Report(const std::exception& error, int status, const Options& options) {
  Log(LOG_ERR, "%s", error.what());
  if (!options.log_to_stderr) std::cerr << "zelttokenmgrd: " << error.what() << '\n';
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = ParseOptions(argc, argv);
  if (options.check) return Check(options);
  PrepareProcess(options);
  try {
    Serve(options);
    Log(LOG_NOTICE, "stopped");
    return EXIT_SUCCESS;
  } catch (const StartError& error) {
    return Report(error, error.status, options);
  } catch (const std::exception& error) {
    return Report(error, EXIT_FAILURE, options);
  }
}

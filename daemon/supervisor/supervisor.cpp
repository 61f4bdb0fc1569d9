#include "supervisor.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <system_error>

#include "json_text.h"
#include "readiness.h"
#include "request_handler.h"
#include "zelttokenmanager/service/fastapi.h"
#include "zelttokenmanager/service/taskmanager.h"
#include "zelttokenmanager/storage/lru_cache_storage.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using namespace ZELT::TokenManager;

namespace {

constexpr const char* kSocketPath = "/tmp/zelttokenmgr.sock";

// Tells a worker to finish the requests that it has accepted and leave those in the backlog to the
// next generation. SIGTERM tells it to finish the backlog as well.
constexpr int kHandOver = SIGUSR2;

// Workers that wait for the mutex of a dead one never finish. Half of the 100 ms in which service
// is to be whole again; a request takes far less.
constexpr milliseconds kHandOverGrace{40};

// Longer than any answer may take.
constexpr milliseconds kStopGrace{6000};

// A generation that died before it answered anything and within this time of its birth has failed
// by itself: forking it takes a tenth.
constexpr milliseconds kStillborn{20};
constexpr int kMaxStillborn = 10;

// Blocks the signals that the supervisor takes, and returns them.
sigset_t BlockSignals() {
  signal(SIGCHLD, SIG_DFL);  // ignored, which may be inherited, it would never come
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT, SIGUSR1, SIGCHLD}) sigaddset(&signals, number);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

sigset_t ChildSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGCHLD);
  return signals;
}

std::shared_ptr<SharedState> MakeSharedState() {
  void* memory =
      mmap(nullptr, sizeof(SharedState), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
  return {new (memory) SharedState, [](SharedState* state) { munmap(state, sizeof *state); }};
}

// Waits for the end of a child, until `deadline` at most.
void AwaitChild(steady_clock::time_point deadline) {
  const auto left = std::max(deadline - steady_clock::now(), steady_clock::duration::zero());
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
  const timespec wait{.tv_sec = seconds.count(), .tv_nsec = (left - seconds).count()};
  const sigset_t child = ChildSignal();
  sigtimedwait(&child, nullptr, &wait);
}

}  // namespace

Supervisor::Supervisor(const Options& daemon_options)
    : signals(BlockSignals()),
      options(daemon_options),
      shared(MakeSharedState()),
      store(std::make_shared<SafeStore>(daemon_options.store, *shared)),
      generation(MakeGeneration()),
      server(kSocketPath, daemon_options.limits),
      supervisor(getpid()) {}

void Supervisor::Run() {
  ForkWorkers();
  syslog(LOG_NOTICE, "ready, serving %s with %u workers", kSocketPath, options.workers);
  NotifyReady();
  for (;;) {
    switch (sigwaitinfo(&signals, nullptr)) {
      case SIGTERM:
      case SIGINT:
        server.RemoveSocket();
        return EndWorkers(SIGTERM, kStopGrace);
      case SIGUSR1:
        LogStatistics();
        break;
      case SIGCHLD:
        if (ReapWorkers()) ReplaceGeneration();
        break;
      default:  // interrupted
        break;
    }
  }
}

Supervisor::Generation Supervisor::MakeGeneration() {
  store->Recover();
  shared->answered = false;
  Generation made;
  if (options.cache_bytes != 0) made.cache = std::make_shared<LRUCacheStorage>(options.cache_bytes);
  made.manager = std::make_unique<TokenManager>(options.installed_config, store, made.cache);
  made.manager->AddService(std::make_shared<FastAPI>());
  made.manager->AddService(std::make_shared<TaskManager>());
  return made;
}

void Supervisor::ForkWorkers() {
  while (generation.workers.size() < options.workers) {
    const pid_t pid = fork();
    if (pid == 0) Work();
    if (pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
    generation.workers.push_back(pid);
  }
  generation.born = steady_clock::now();  // many take longer to fork than to die
}

void Supervisor::EndWorkers(int signal, milliseconds grace) {
  for (const pid_t worker : generation.workers) kill(worker, signal);
  const auto deadline = steady_clock::now() + grace;
  while (!generation.workers.empty() && steady_clock::now() < deadline) {
    if (!ReapWorkers()) AwaitChild(deadline);
  }
  for (const pid_t worker : generation.workers) {
    kill(worker, SIGKILL);
    waitpid(worker, nullptr, 0);
  }
}

void Supervisor::ReplaceGeneration() {
  const bool died_at_once = !shared->answered && steady_clock::now() - generation.born < kStillborn;
  stillborn = died_at_once ? stillborn + 1 : 0;
  EndWorkers(kHandOver, kHandOverGrace);
  if (stillborn == kMaxStillborn) throw std::runtime_error("workers keep dying at once");
  generation = MakeGeneration();
  ForkWorkers();
}

// Runs in the forked child.
void Supervisor::Work() {
  try {
    Serve();
    _exit(EXIT_SUCCESS);
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "worker: %s", error.what());
    _exit(EXIT_FAILURE);
  }
}

void Supervisor::Serve() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // whatever the worker waits for
  if (getppid() != supervisor) return;
  signal(SIGINT, SIG_IGN);  // a terminal sends it to the workers too, the supervisor decides
  signal(SIGUSR1, SIG_IGN);

  RequestHandler handler(*generation.manager, *store, *shared);
  server.OnSignal(SIGTERM, [this] { server.Stop(); });
  server.OnSignal(kHandOver, [this] { server.HandOver(); });
  server.Serve([&handler](int connection, const std::string& request) {
    return handler.Answer(connection, request);
  });
}

// Returns whether any worker has ended.
bool Supervisor::ReapWorkers() {
  return std::erase_if(generation.workers, [](pid_t worker) {
           int status = 0;
           if (waitpid(worker, &status, WNOHANG) != worker) return false;
           if (WIFSIGNALED(status)) {
             syslog(LOG_ERR, "worker %d was ended by signal %d", worker, WTERMSIG(status));
           } else if (WEXITSTATUS(status) != EXIT_SUCCESS) {
             syslog(LOG_ERR, "worker %d exited with %d", worker, WEXITSTATUS(status));
           }
           return true;
         }) != 0;
}

void Supervisor::LogStatistics() {
  const std::string counters =
      generation.cache ? toString(generation.cache->GetStatistics()) : "no cache";
  syslog(LOG_NOTICE, "cache: %s", counters.c_str());
}

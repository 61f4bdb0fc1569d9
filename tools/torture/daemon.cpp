#include "daemon.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "board.h"

namespace ZELT::Torture {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{30};  // long for a busy machine

long StatusField(pid_t process, const std::string& name) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string word; status >> word;) {
    long kib = 0;
    if (word == name + ":" && status >> kib) return kib;
  }
  return 0;
}

bool Serves() {
  static const Record unknown{{"a-token-that-nobody-was-ever-given"}, false, 0, {}, {}};
  return Validate(unknown) != Answer::kNone;
}

}  // namespace

Daemon::Daemon(std::string program_path, unsigned int workers)
    : program(std::move(program_path)), worker_count(workers) {}

void Daemon::Start(unsigned int descriptors) {
  const auto deadline = Clock::now() + kPatience;
  for (Spawn(descriptors); !Serves(); Pause(1000)) {
    if (Clock::now() > deadline) throw std::runtime_error("the daemon does not start");
    if (!Ended()) continue;
    ++refused_starts;
    Spawn(descriptors);
  }
}

void Daemon::Spawn(unsigned int descriptors) {
  supervisor = fork();
  if (supervisor != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int log = open(kDaemonLog, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  dup2(log, STDERR_FILENO);
  const rlimit limit{.rlim_cur = descriptors, .rlim_max = descriptors};
  if (descriptors != 0) setrlimit(RLIMIT_NOFILE, &limit);
  const std::string workers = std::to_string(worker_count);
  // A cache that holds a part of the records, so that some always come from the store.
  execl(program.c_str(), "zelttokenmgrd", "--workers", workers.c_str(), "--cache-size", "256K",
        "--store", kStore, "--stderr", nullptr);
  _exit(127);
}

bool Daemon::Ended() { return waitpid(supervisor, nullptr, WNOHANG) == supervisor; }

void Daemon::Kill() {
  kill(supervisor, SIGKILL);
  waitpid(supervisor, nullptr, 0);
}

void Daemon::Stop() {
  int status = 0;
  kill(supervisor, SIGTERM);
  waitpid(supervisor, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) Wrong("the daemon did not stop with 0");
}

std::vector<pid_t> Daemon::Workers() const {
  const std::string pid = std::to_string(supervisor);
  std::ifstream children("/proc/" + pid + "/task/" + pid + "/children");
  return {std::istream_iterator<pid_t>(children), {}};
}

void Daemon::AwaitService(const std::vector<pid_t>& old) {
  const auto is_old = [&](pid_t worker) {
    return std::find(old.begin(), old.end(), worker) != old.end();
  };
  const auto deadline = Clock::now() + kPatience;
  for (;; Pause(200)) {
    if (Clock::now() > deadline) throw std::runtime_error("the daemon does not serve again");
    if (Ended()) throw std::runtime_error("the daemon ended: " + LastWords());
    const auto workers = Workers();
    if (workers.size() != worker_count) continue;
    if (std::none_of(workers.begin(), workers.end(), is_old) && Serves()) return;
  }
}

std::string LastWords() {
  std::ifstream log(kDaemonLog);
  std::string last;
  for (std::string line; std::getline(log, line);) {
    if (line.find("refused type=") == std::string::npos) last = line;
  }
  return last;
}

long Descriptors(pid_t process) {
  std::error_code gone;
  return std::distance(
      std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/fd", gone), {});
}

long OwnMemory(pid_t process) {
  return StatusField(process, "VmRSS") - StatusField(process, "RssShmem");
}

}  // namespace ZELT::Torture

// The daemon under torture, seen from outside.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace ZELT::Torture {

constexpr const char* kStore = "/var/lib/zelttokenmgr/tokens";
constexpr const char* kDaemonLog = "/tmp/daemon.log";
constexpr const char* kSocket = "/tmp/zelttokenmgr.sock";

/// Runs one daemon. All waiting ends with an exception after a generous deadline.
class Daemon {
 public:
  explicit Daemon(std::string program, unsigned int workers);

  /// Starts it, and again while it finds the socket still served; returns when it answers.
  /// `descriptors` limits those of each of its processes; 0 leaves the limit alone.
  void Start(unsigned int descriptors = 0);

  /// Kills the supervisor and waits for its end.
  void Kill();

  /// Ends it as a service manager does.
  void Stop();

  pid_t Supervisor() const { return supervisor; }
  std::vector<pid_t> Workers() const;

  /// Waits until as many workers as there should be live, none of them in `old`, and an answer
  /// came.
  void AwaitService(const std::vector<pid_t>& old = {});

  unsigned int refused_starts = 0;  ///< the socket of a killed daemon was still served

 private:
  void Spawn(unsigned int descriptors);
  bool Ended();

  std::string program;
  unsigned int worker_count;
  pid_t supervisor = -1;
};

/// What the daemon logged last beside refusals: the cause when it ended unasked.
std::string LastWords();

long Descriptors(pid_t process);

/// Resident memory without what is shared, in KiB: the cache is as large as it was asked to be.
long OwnMemory(pid_t process);

}  // namespace ZELT::Torture

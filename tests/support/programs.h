// The daemon and the command line as processes, on a private machine.
#pragma once

#include <string>
#include <vector>

#include "support/testing.h"

namespace ZELT::TestSupport {

using Words = std::vector<std::string>;

/// What a finished program left.
struct Ended {
  int exit_code;  ///< 128 + N when signal N ended it
  std::string output;
  std::string errors;
};

/// Runs a program ("daemon/zelttokenmgrd" or "cli/zelttoken") to its end.
Ended RunProgram(const std::string& program, const Words& arguments);

/// A private machine on which the package "notes" runs as root, granted "Demo.Item" "get" for the
/// requester and tasks beginning with "backup_" for any owner.
class ProgramsTest : public PrivateFiles {
 protected:
  void SetUp() override;
};

/// A running daemon, ended by SIGKILL at the latest when it goes out of scope.
class Daemon {
 public:
  explicit Daemon(const Words& arguments = {});
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  std::vector<pid_t> Workers() const;
  std::string Log() const;
  bool Logs(const std::string& text) const;  ///< waits for it
  Ended End(int signal);

  pid_t pid;

 private:
  std::string log;
  bool ended = false;
};

/// Sends one request to the daemon and returns the answer, or "none".
std::string Ask(const std::string& request);

/// Polls until `condition` holds; false when it does not within 30 s, long for a busy machine.
bool Eventually(const std::function<bool()>& condition);

}  // namespace ZELT::TestSupport

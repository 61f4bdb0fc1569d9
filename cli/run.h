// Running a command with a token: in a process of its own, or in this one.
#pragma once

#include <csignal>
#include <string>
#include <vector>

/// Replaces this process by `command`, which finds `token` in the environment as ZELT_TOKEN. The
/// process keeps its id, signal mask, dispositions and descriptors. Throws `Failure` with exit code
/// 127 when there is no such command, and 126 when it cannot be run.
[[noreturn]] void Become(std::vector<std::string> command, const std::string& token);

/// Runs a command as a shell would. Signals are blocked from the construction of this object until
/// the process ends, and `Run` forwards them to the command. Only SIGKILL can end this process
/// early. Threads: one. A process has at most one runner.
class Runner {
 public:
  Runner();

  /// Runs `command` with `token` in the environment as ZELT_TOKEN, and waits for it. Returns its
  /// exit code, 128 + N when signal N ended it, 127 when there is no such command and 126 when it
  /// cannot be run. Throws `Failure` if no process can be created.
  int Run(const std::vector<std::string>& command, const std::string& token);

 private:
  [[noreturn]] void Execute(const std::vector<std::string>& command, const std::string& token);
  void Forward(const siginfo_t& signal, pid_t child);
  int AwaitEnd(pid_t child);

  sigset_t blocked{};
  sigset_t mask_before{};
  sigset_t early{};  ///< signals that arrived before the command ran
  sighandler_t child_handler_before = SIG_DFL;
};

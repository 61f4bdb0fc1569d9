#include "run.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "failure.h"

namespace {

constexpr int kNotFound = 127;
constexpr int kNotExecutable = 126;
constexpr int kEndedBySignal = 128;

}  // namespace

void Become(std::vector<std::string> command, const std::string& token) {
  setenv("ZELT_TOKEN", token.c_str(), 1);
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& argument : command) arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  execvp(arguments.front(), arguments.data());
  const int error = errno;
  throw Failure(error == ENOENT ? kNotFound : kNotExecutable,
                "cannot run " + command.front() + ": " + std::strerror(error));
}

Runner::Runner() {
  sigfillset(&blocked);
  for (const int stop : {SIGTSTP, SIGTTIN, SIGTTOU}) sigdelset(&blocked, stop);
  sigprocmask(SIG_BLOCK, &blocked, &mask_before);
  // While SIGCHLD is ignored, the kernel keeps no exit status (waitpid(2)).
  child_handler_before = std::signal(SIGCHLD, SIG_DFL);
}

int Runner::Run(const std::vector<std::string>& command, const std::string& token) {
  sigpending(&early);
  const pid_t child = fork();
  if (child < 0) throw Failure(kRefused, std::string("cannot fork: ") + std::strerror(errno));
  if (child == 0) Execute(command, token);
  return AwaitEnd(child);
}

void Runner::Execute(const std::vector<std::string>& command, const std::string& token) {
  std::signal(SIGCHLD, child_handler_before);
  sigprocmask(SIG_SETMASK, &mask_before, nullptr);
  try {
    Become(command, token);
  } catch (const Failure& failure) {
    std::cerr << "zelttoken: " << failure.what() << '\n';
    _exit(failure.exit_code);
  }
}

// Once the command runs, the terminal sends its signals to the command as well.
void Runner::Forward(const siginfo_t& signal, pid_t child) {
  const bool is_early = sigismember(&early, signal.si_signo) == 1;
  if (is_early || signal.si_code != SI_KERNEL) kill(child, signal.si_signo);
  sigdelset(&early, signal.si_signo);
}

int Runner::AwaitEnd(pid_t child) {
  for (;;) {
    siginfo_t signal{};
    if (sigwaitinfo(&blocked, &signal) < 0) continue;  // EINTR, after a stop
    if (signal.si_signo != SIGCHLD) Forward(signal, child);
    int status = 0;
    if (waitpid(child, &status, WNOHANG) != child) continue;
    return WIFSIGNALED(status) ? kEndedBySignal + WTERMSIG(status) : WEXITSTATUS(status);
  }
}

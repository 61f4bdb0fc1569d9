#include "run.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "failure.h"

namespace {

constexpr int kNotFound = 127;
constexpr int kNotExecutable = 126;
constexpr int kEndedBySignal = 128;

sigset_t SignalsToPassOn() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM, SIGWINCH}) {
    sigaddset(&signals, number);
  }
  return signals;
}

[[noreturn]] void Execute(std::vector<std::string>& command, const std::string& token) {
  setenv("ZELT_TOKEN", token.c_str(), 1);
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& argument : command) arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  execvp(arguments.front(), arguments.data());
  const int error = errno;
  std::cerr << "zelttoken: cannot run " << command.front() << ": " << std::strerror(error) << '\n';
  _exit(error == ENOENT ? kNotFound : kNotExecutable);
}

// A signal of the terminal's reaches the command by itself.
void PassOn(const siginfo_t& signal, pid_t child) {
  if (signal.si_code != SI_KERNEL) kill(child, signal.si_signo);
}

int AwaitEnd(pid_t child, const sigset_t& signals) {
  for (;;) {
    siginfo_t signal{};
    sigwaitinfo(&signals, &signal);
    if (signal.si_signo != SIGCHLD) PassOn(signal, child);
    int status = 0;
    if (waitpid(child, &status, WNOHANG) != child) continue;
    return WIFSIGNALED(status) ? kEndedBySignal + WTERMSIG(status) : WEXITSTATUS(status);
  }
}

}  // namespace

int RunWithToken(std::vector<std::string> command, const std::string& token) {
  // Blocked before the fork, so that none is lost between it and the wait.
  sigset_t signals = SignalsToPassOn();
  sigaddset(&signals, SIGCHLD);
  sigset_t before;
  sigprocmask(SIG_BLOCK, &signals, &before);
  const pid_t child = fork();
  if (child < 0) throw Failure(kRefused, std::string("cannot fork: ") + std::strerror(errno));
  if (child == 0) {
    sigprocmask(SIG_SETMASK, &before, nullptr);
    Execute(command, token);
  }
  return AwaitEnd(child, signals);
}

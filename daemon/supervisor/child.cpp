#include "child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

#include "owned_descriptor.h"

using ZELT::TokenManager::OwnedDescriptor;

namespace {

std::system_error SystemError(const char* call) { return {errno, std::generic_category(), call}; }

[[noreturn]] void Run(const std::function<void()>& work, int report) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  _exit(ExitStatusOf(work, [report](const char* error) {
    [[maybe_unused]] const ssize_t ignored = write(report, error, std::strlen(error));
  }));
}

std::string ReadAll(int fd) {
  std::string text;
  std::array<char, 4096> part{};
  ssize_t count = 0;
  while ((count = read(fd, part.data(), part.size())) > 0) {
    text.append(part.data(), static_cast<std::size_t>(count));
  }
  return text;
}

}  // namespace

void RunInChild(const std::string& subject, const std::function<void()>& work) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw SystemError("pipe");
  const OwnedDescriptor result(ends[0]);
  OwnedDescriptor report(ends[1]);
  const pid_t child = fork();
  if (child == 0) Run(work, report.Get());
  if (child < 0) throw SystemError("fork");
  report.Close();
  std::string text = ReadAll(result.Get());
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS) return;
  if (text.empty()) text = subject + " cannot be used: the process failed";
  if (!WIFSIGNALED(status)) throw StartError(WEXITSTATUS(status), text);
  // A fault is the store's, but anybody may have sent SIGKILL, as the kernel does without memory.
  throw StartError(WTERMSIG(status) == SIGKILL ? EXIT_FAILURE : EX_DATAERR,
                   subject + " cannot be used: " + strsignal(WTERMSIG(status)));
}

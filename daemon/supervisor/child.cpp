#include "child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>

#include "owned_descriptor.h"

using ZELT::TokenManager::OwnedDescriptor;

namespace {

[[noreturn]] void Run(const std::function<void()>& work, int report) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    work();
    _exit(EXIT_SUCCESS);
  } catch (const std::exception& error) {
    [[maybe_unused]] const ssize_t ignored = write(report, error.what(), std::strlen(error.what()));
    _exit(EXIT_FAILURE);
  }
}

std::string ReadAll(int fd) {
  std::string text;
  std::array<char, 4096> part{};
  for (;;) {
    const ssize_t count = read(fd, part.data(), part.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return text;
    text.append(part.data(), static_cast<std::size_t>(count));
  }
}

}  // namespace

void RunInChild(const std::string& subject, const std::function<void()>& work) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  const OwnedDescriptor result(ends[0]);
  OwnedDescriptor report(ends[1]);
  const pid_t child = fork();
  if (child == 0) Run(work, report.Get());
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  report.Close();
  const std::string text = ReadAll(result.Get());
  int status = 0;
  waitpid(child, &status, 0);
  if (!text.empty()) throw std::runtime_error(text);
  if (WIFSIGNALED(status)) {
    throw std::runtime_error(subject + " cannot be used: " + strsignal(WTERMSIG(status)));
  }
  if (WEXITSTATUS(status) != EXIT_SUCCESS) {
    throw std::runtime_error(subject + " cannot be used: the process failed");
  }
}

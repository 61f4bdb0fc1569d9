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
#include "start_error.h"

using ZELT::TokenManager::OwnedDescriptor;

namespace {

int Report(int report, const char* error, int status) {
  [[maybe_unused]] const ssize_t ignored = write(report, error, std::strlen(error));
  return status;
}

// Returns the exit status, whatever is thrown: the child must not go on as its parent.
int Run(const std::function<void()>& work, int report) {
  try {
    work();
    return EXIT_SUCCESS;
  } catch (const StartError& error) {
    return Report(report, error.what(), error.status);
  } catch (const std::exception& error) {
    return Report(report, error.what(), EXIT_FAILURE);
  } catch (...) {
    return EXIT_FAILURE;
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
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(Run(work, report.Get()));
  }
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  report.Close();
  const std::string text = ReadAll(result.Get());
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) {
    const int number = WTERMSIG(status);
    throw StartError(number == SIGKILL ? EXIT_FAILURE : EX_DATAERR,
                     subject + " cannot be used: " + strsignal(number));
  }
  if (WEXITSTATUS(status) == EXIT_SUCCESS) return;
  throw StartError(WEXITSTATUS(status),
                   text.empty() ? subject + " cannot be used: the process failed" : text);
}

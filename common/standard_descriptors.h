// The descriptors of standard input, output and error.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

namespace ZELT::TokenManager {

/// Opens those of the descriptors 0, 1 and 2 that are closed. Otherwise the next file to be opened
/// would become standard error, and the first error would be written into it. Call this first.
///
/// They are opened the wrong way round, so that reading and writing fail as before. Ends the
/// process if /dev/null cannot be opened.
inline void OpenStandardDescriptors() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) >= 0) continue;
    if (open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) != fd) _exit(EXIT_FAILURE);
  }
}

}  // namespace ZELT::TokenManager

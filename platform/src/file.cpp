#include "zeltsystem/file.h"

#include <fcntl.h>
#include <unistd.h>

int QLIBCFileTouch(const char* path) {
  // Without O_NONBLOCK, opening a FIFO would wait for its reader.
  const int fd = open(path, O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
  return fd < 0 ? -1 : close(fd);
}

#include "workers_lock.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace {

int Open(const std::string& path) {
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0) throw std::system_error(errno, std::generic_category(), path);
  return file;
}

// Sets a record lock over the whole file, fcntl(2): waiting for it with F_SETLKW, false with
// F_SETLK when somebody else's is in the way.
bool Set(int file, int command, int type) {
  struct flock lock {};
  lock.l_type = static_cast<decltype(lock.l_type)>(type);
  lock.l_whence = SEEK_SET;
  int result = 0;
  do {
    result = fcntl(file, command, &lock);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

void Release(int file) {
  if (Set(file, F_SETLK, F_UNLCK)) return;
  syslog(LOG_ERR, "cannot release the workers' lock: %s", std::strerror(errno));
}

}  // namespace

WorkersLock::WorkersLock(const std::string& store_path, SharedState& shared_state)
    : shared(shared_state),
      lock_file(Open(store_path + ".workers")),
      turn_file(Open(store_path + ".turn")) {}

WorkersLock::~WorkersLock() {
  close(turn_file);
  close(lock_file);
}

void WorkersLock::Lock(bool exclusive) {
  const int type = exclusive ? F_WRLCK : F_RDLCK;
  if (!shared.writer_waits && Set(lock_file, F_SETLK, type)) return;

  if (!Set(turn_file, F_SETLKW, type)) {
    throw std::system_error(errno, std::generic_category(), "cannot wait for a turn");
  }
  if (exclusive) shared.writer_waits = true;
  const bool locked = Set(lock_file, F_SETLKW, type);
  const int error = errno;
  if (exclusive) shared.writer_waits = false;
  Release(turn_file);
  if (!locked) {
    throw std::system_error(error, std::generic_category(), "cannot lock out the other workers");
  }
}

void WorkersLock::Unlock() { Release(lock_file); }

#include "workers_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace {

int Open(const std::string& path) {
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0) throw std::system_error(errno, std::generic_category(), path);
  return file;
}

// Waits for a lock of the type, or releases it, over the whole file: fcntl(2).
void Set(int file, int type) {
  struct flock lock {};
  lock.l_type = static_cast<decltype(lock.l_type)>(type);
  lock.l_whence = SEEK_SET;
  while (fcntl(file, F_SETLKW, &lock) != 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "workers' lock");
  }
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
  const bool in_turn = exclusive || shared.writer_waits;
  if (in_turn) Set(turn_file, type);
  if (exclusive) shared.writer_waits = true;
  try {
    Set(lock_file, type);
  } catch (...) {
    EndTurn(exclusive, in_turn);
    throw;
  }
  EndTurn(exclusive, in_turn);
}

void WorkersLock::EndTurn(bool exclusive, bool in_turn) {
  if (exclusive) shared.writer_waits = false;
  if (in_turn) Set(turn_file, F_UNLCK);
}

void WorkersLock::Unlock() { Set(lock_file, F_UNLCK); }

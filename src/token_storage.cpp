#include "zelttokenmanager/token_storage.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace ZELT::TokenManager {
namespace {

bool SetLock(int handle, int command, int type) {
  struct flock lock {};
  lock.l_type = static_cast<decltype(lock.l_type)>(type);
  lock.l_whence = SEEK_SET;  // start and length 0: the whole file, however it grows
  int result = 0;
  do {
    result = fcntl(handle, command, &lock);
  } while (result < 0 && errno == EINTR);
  return result == 0;
}

}  // namespace

TokenStorage::~TokenStorage() = default;

Json::Value TokenStorage::GetStatistics() { return {}; }

CacheStorage::~CacheStorage() = default;

FileLock::FileLock(const std::string& path, bool exclusive_lock) : exclusive(exclusive_lock) {
  handle = open(path.c_str(), O_RDWR);
  if (handle >= 0 && SetLock(handle, F_SETLKW, exclusive ? F_WRLCK : F_RDLCK)) return;
  const int error = errno;
  if (handle >= 0) close(handle);
  throw std::runtime_error(std::string("token_storage.cpp:27 failed to lock: ") +
                           std::strerror(error));
}

FileLock::~FileLock() {
  if (!SetLock(handle, F_SETLK, F_UNLCK)) {
    syslog(LOG_ERR, "%s:%d failed to unlock: %s", "token_storage.cpp", 40, std::strerror(errno));
  }
  if (handle >= 0) close(handle);
}

}  // namespace ZELT::TokenManager

#include "workers_lock.h"

#include <cerrno>
#include <system_error>

#include "zeltsystem/file.h"

using ZELT::TokenManager::FileLock;

namespace {

std::string LockPath(const std::string& store_path) { return store_path + ".workers"; }
std::string TurnPath(const std::string& store_path) { return store_path + ".turn"; }

}  // namespace

void WorkersLock::MakeFiles(const std::string& store_path) {
  for (const std::string& path : {LockPath(store_path), TurnPath(store_path)}) {
    if (QLIBCFileTouch(path.c_str()) != 0) {
      throw std::system_error(errno, std::generic_category(), path);
    }
  }
}

WorkersLock::WorkersLock(const std::string& store_path, SharedState& shared, bool exclusive) {
  std::optional<FileLock> turn;
  if (exclusive || shared.writer_waits) turn.emplace(TurnPath(store_path), exclusive);
  if (exclusive) shared.writer_waits = true;
  lock.emplace(LockPath(store_path), exclusive);
  if (exclusive) shared.writer_waits = false;
}

#include "safe_store.h"

#include <fcntl.h>
#include <sysexits.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "json_text.h"

namespace fs = std::filesystem;
using ZELT::TokenManager::FileLock;
using ZELT::TokenManager::toString;

namespace {

// A thousand granted API methods or tasks. Each validation of a token parses its record.
constexpr std::size_t kMaxRecordBytes = 64U << 10;

// Whether the file ends in the middle of a line. What is no regular file has no size.
bool IsTorn(int file) {
  const off_t size = lseek(file, 0, SEEK_END);
  char last = '\n';
  return size > 0 && pread(file, &last, 1, size - 1) == 1 && last != '\n';
}

// Ends the last line of the store where that was torn, so that the next record gets a line of its
// own.
void EndLastLine(const std::string& path) {
  const int file = open(path.c_str(), O_RDWR | O_APPEND | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) return;  // the store itself will say why
  const bool torn = IsTorn(file);
  const bool ended = torn && write(file, "\n", 1) == 1;
  const int error = errno;
  close(file);
  if (torn && !ended) {
    throw std::system_error(error, std::generic_category(), "cannot end a torn line of the store");
  }
  if (torn) syslog(LOG_WARNING, "ended the torn last line of %s", path.c_str());
}

}  // namespace

SafeStore::SafeStore(const std::string& path, SharedState& shared_state)
    : store(path),
      store_path(path),
      lock_path(path + ".lock"),
      undo_path(path + ".undo"),
      shared(shared_state),
      workers_lock(path, shared_state) {}

void SafeStore::Recover() {
  // No worker is in the middle of a change then, be it another daemon's.
  workers_lock.Lock(true);
  held = Held::kExclusive;
  const Ending ending{*this};
  const FileLock lock(lock_path, true);
  shared.changing = false;
  if (!fs::exists(undo_path)) return;
  fs::rename(undo_path, store_path);
  syslog(LOG_WARNING, "undid a change of %s that was cut short", store_path.c_str());
}

void SafeStore::Insert(const std::string& token, const Json::Value& data) {
  if (toString(data).size() > kMaxRecordBytes) throw std::runtime_error("the record is too long");
  Lock(Held::kExclusive);
  EndLastLine(store_path);
  store.Insert(token, data);
}

void SafeStore::Remove(const std::string& token) {
  try {
    // Without the lock file nothing can be removed, nor be put back.
    const FileLock lock(lock_path, false);
    Copy();
  } catch (const fs::filesystem_error& error) {
    if (must_copy) throw;
    syslog(LOG_WARNING, "removing without a copy of the store: %s", error.what());
  }
  store.Remove(token);
}

Json::Value SafeStore::GetAssociatedData(const std::string& token) {
  Lock(Held::kShared);
  return store.GetAssociatedData(token);
}

void SafeStore::BeginRemoval(bool copy_needed) {
  must_copy = copy_needed;
  Lock(Held::kExclusive);
}

void SafeStore::Commit() {
  const Ending ending{*this};
  if (std::exchange(copied, false)) fs::remove(undo_path);
  EndChange();
}

void SafeStore::Rollback() {
  const Ending ending{*this};
  if (std::exchange(copied, false)) {
    const FileLock lock(lock_path, true);
    fs::rename(undo_path, store_path);
  }
  EndChange();
}

// Not reached when a change could be neither finished nor undone: it counts as cut short then.
void SafeStore::EndChange() {
  if (held == Held::kExclusive) shared.changing = false;
}

void SafeStore::Lock(Held wanted) {
  if (held >= wanted) return;
  workers_lock.Lock(wanted == Held::kExclusive);
  held = wanted;
  if (shared.changing) _exit(EX_TEMPFAIL);
  if (wanted == Held::kExclusive) shared.changing = true;
}

void SafeStore::Unlock() {
  if (held != Held::kNothing) workers_lock.Unlock();
  held = Held::kNothing;
}

void SafeStore::Copy() {
  if (!fs::is_regular_file(store_path)) return;
  const std::string unfinished = undo_path + ".new";
  try {
    fs::copy_file(store_path, unfinished, fs::copy_options::overwrite_existing);
  } catch (...) {
    std::error_code ignored;
    fs::remove(unfinished, ignored);  // it may have taken the last of the disk
    throw;
  }
  fs::rename(unfinished, undo_path);  // so that a file of that name is always whole
  copied = true;
}

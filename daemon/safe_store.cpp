#include "safe_store.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "json_text.h"

namespace fs = std::filesystem;
using ZELT::TokenManager::FileLock;
using ZELT::TokenManager::toString;

namespace {

// A thousand granted API methods or tasks. Each validation of a token parses its record, some of
// that under the mutex of the cache.
constexpr std::size_t kMaxRecordBytes = 64U << 10;

// Ends the last line of the file where that was torn, so that the next record gets a line of its
// own. Returns whether it was. What is no regular file has no size.
bool EndLastLine(int file) {
  const off_t size = lseek(file, 0, SEEK_END);
  char last = '\n';
  if (size <= 0 || pread(file, &last, 1, size - 1) != 1 || last == '\n') return false;
  if (write(file, "\n", 1) == 1) return true;
  throw std::system_error(errno, std::generic_category(), "cannot end a torn line of the store");
}

void EndLastLine(const std::string& path) {
  const int file = open(path.c_str(), O_RDWR | O_APPEND | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) return;  // the store itself will say why
  try {
    if (EndLastLine(file)) syslog(LOG_WARNING, "ended the torn last line of %s", path.c_str());
  } catch (...) {
    close(file);
    throw;
  }
  close(file);
}

}  // namespace

SafeStore::SafeStore(const std::string& path)
    : store(path), store_path(path), lock_path(path + ".lock"), undo_path(path + ".undo") {}

const std::string& SafeStore::Path() const { return store_path; }

void SafeStore::Recover() {
  const FileLock lock(lock_path, true);
  if (!fs::exists(undo_path)) return;
  fs::rename(undo_path, store_path);
  syslog(LOG_WARNING, "undid a change of %s that was cut short", store_path.c_str());
}

void SafeStore::Insert(const std::string& token, const Json::Value& data) {
  if (toString(data).size() > kMaxRecordBytes) throw std::runtime_error("the record is too long");
  EndLastLine(store_path);
  store.Insert(token, data);
}

void SafeStore::Remove(const std::string& token) {
  try {
    Copy();
  } catch (const fs::filesystem_error& error) {
    if (!uncopied_allowed) throw;
    syslog(LOG_WARNING, "removing without a copy of the store: %s", error.what());
  }
  store.Remove(token);
}

Json::Value SafeStore::GetAssociatedData(const std::string& token) {
  return store.GetAssociatedData(token);
}

void SafeStore::AllowUncopied(bool allowed) { uncopied_allowed = allowed; }

void SafeStore::Commit() {
  if (copied) fs::remove(undo_path);
  copied = false;
}

void SafeStore::Rollback() {
  if (!copied) return;
  copied = false;
  const FileLock lock(lock_path, true);
  fs::rename(undo_path, store_path);
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

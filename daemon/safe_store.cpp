#include "safe_store.h"

#include <syslog.h>

#include <boost/filesystem/fstream.hpp>
#include <boost/filesystem/operations.hpp>
#include <stdexcept>

namespace fs = boost::filesystem;
using ZELT::TokenManager::FileLock;

SafeStore::SafeStore(const std::string& path)
    : store(path), store_path(path), lock_path(path + ".lock"), undo_path(path + ".undo") {}

const std::string& SafeStore::Path() const { return store_path; }

void SafeStore::Recover() {
  const FileLock lock(lock_path, true);
  if (fs::exists(undo_path)) {
    fs::rename(undo_path, store_path);
    syslog(LOG_WARNING, "undid a change of %s that was cut short", store_path.c_str());
  }
  if (fs::is_regular_file(store_path)) EndLastLine();
}

void SafeStore::Insert(const std::string& token, const Json::Value& data) {
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
  fs::copy_file(store_path, unfinished, fs::copy_option::overwrite_if_exists);
  fs::rename(unfinished, undo_path);  // so that a file of that name is always whole
  copied = true;
}

void SafeStore::EndLastLine() {
  fs::fstream file(store_path, std::ios::in | std::ios::out | std::ios::ate | std::ios::binary);
  if (!file.is_open()) throw std::runtime_error("cannot open the store " + store_path);
  if (file.tellg() <= 0) return;
  file.seekg(-1, std::ios::end);
  if (file.get() == '\n') return;
  file.seekp(0, std::ios::end);
  file << '\n' << std::flush;
  syslog(LOG_WARNING, "ended the torn last line of %s", store_path.c_str());
}

// The persistent store: one text file, one line for each token.
#pragma once

#include <json/value.h>

#include <string>

#include "zelttokenmanager/token_storage.h"

namespace ZELT::TokenManager {

/// Keeps records as lines "TOKEN JSON\n" in the order of their insertion. A token that was inserted
/// twice has two lines, of which the first counts. Lookups scan the file; nothing is kept in memory
/// between calls.
///
/// Processes: any number may use one path. Each operation holds a `FileLock` on the path with
/// ".lock" appended: shared to read, exclusive to write. Threads: record locks belong to the
/// process, so calls from several threads of one process must be serialised by the caller.
///
/// Operations throw `std::runtime_error`; a store file that exists but cannot be opened, sized or
/// mapped gives `boost::interprocess::interprocess_exception`. A file of length zero cannot be
/// mapped (mmap(2)), so that is also what reading or removing meets after the last record is gone.
class [[gnu::visibility("default")]] JsonFileStorage : public TokenStorage {
 public:
  /// Makes the directory that `path` names where it is missing, sets its mode to 0300 in any case,
  /// and makes the lock file. A path without a "/" leaves the current directory as it is. The store
  /// file itself is made by the first `Insert`. Failures of the directory pass through as
  /// `boost::filesystem::filesystem_error`.
  explicit JsonFileStorage(const std::string& path);
  ~JsonFileStorage() override;

  /// Appends a record. When it cannot be written whole, what was written of it is cut off again as
  /// far as the file allows. Data that JSON text cannot express changes nothing.
  void Insert(const std::string& token, const Json::Value& data) override;

  /// Deletes the first record of `token`, if there is one.
  void Remove(const std::string& token) override;

  /// Returns the data of the first record of `token`. Throws when there is none or its text is not
  /// valid JSON.
  Json::Value GetAssociatedData(const std::string& token) override;

 private:
  std::string storage_path;
  std::string lock_path;
};

}  // namespace ZELT::TokenManager

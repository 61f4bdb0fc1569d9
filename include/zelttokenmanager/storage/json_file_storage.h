// The persistent store: one text file, one line for each token.
#pragma once

#include <json/value.h>

#include <string>

#include "../token_storage.h"

namespace ZELT::TokenManager {

/// Keeps records as lines "TOKEN JSON\n" in the order of their insertion. A token that was inserted
/// twice has two lines, of which the first counts. Lookups scan the file; nothing is kept in memory
/// between calls.
///
/// Processes: any number may use one path. Each operation holds a `FileLock` on the path with
/// ".lock" appended: shared to read, exclusive to write. Threads: record locks belong to the
/// process, so calls from several threads of one process must be serialised by the caller.
///
/// Operations throw `std::runtime_error`, among them `boost::filesystem::filesystem_error` when it
/// is unknown whether the store file exists, and `boost::interprocess::interprocess_exception` when
/// it exists but cannot be opened, sized or mapped. An empty file cannot be mapped (mmap(2)), so
/// reading and removing throw it too when the last record has been removed.
class [[gnu::visibility("default")]] JsonFileStorage : public TokenStorage {
 public:
  /// Creates the directory of `path` if it is missing, sets its mode to 0300 in any case, and
  /// creates the lock file, which must be writable if it exists. The first `Insert` creates the
  /// store file. Throws `boost::filesystem::filesystem_error` for the directory, also when `path`
  /// names none; use "./NAME" for a file in the current directory.
  explicit JsonFileStorage(const std::string& path);
  ~JsonFileStorage() override;

  /// Appends a record. If not all of it can be written, the file is truncated to its former size if
  /// possible.
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

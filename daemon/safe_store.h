// The daemon's store: a file store that survives a process killed in the middle of a change.
#pragma once

#include <string>

#include "zelttokenmanager/storage/json_file_storage.h"

/// A `JsonFileStorage` whose removals can be undone. Removing moves the rest of the file within the
/// file, and a process killed meanwhile leaves records torn; a transfer killed between its removal
/// and its insertion leaves the token nowhere. So a removal first copies the store to a file beside
/// it, its path with ".undo" appended, which stands until the request that removes is done.
///
/// Processes: those that serve one store must exclude each other from the first change of a request
/// to `Commit` or `Rollback`. Threads: as `JsonFileStorage`. Throws what that throws.
class SafeStore : public ZELT::TokenManager::TokenStorage {
 public:
  explicit SafeStore(const std::string& path);

  const std::string& Path() const;

  /// Undoes a removal that was not committed, because whoever removed was killed. To be called
  /// while nobody else changes the store.
  void Recover();

  /// Ends a torn last line first, which the record would become a part of. Throws
  /// `std::runtime_error` for a record of more than 64 KiB.
  void Insert(const std::string& token, const Json::Value& data) override;
  void Remove(const std::string& token) override;
  Json::Value GetAssociatedData(const std::string& token) override;

  /// Says whether removals of the coming request may do without a copy when the disk is full. A
  /// revocation may, since it matters more than a kill in its midst; a transfer may not, since it
  /// would lose the token if its insertion failed.
  void AllowUncopied(bool allowed);

  void Commit();    ///< the change is whole: drops the copy
  void Rollback();  ///< the change failed: puts the store back as it was

 private:
  void Copy();

  ZELT::TokenManager::JsonFileStorage store;
  std::string store_path;
  std::string lock_path;
  std::string undo_path;
  bool uncopied_allowed = false;
  bool copied = false;
};

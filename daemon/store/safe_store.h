// The daemon's store: a file store that several workers change, and that survives one of them
// killed in the middle of a change.
#pragma once

#include <string>

#include "shared_state.h"
#include "workers_lock.h"
#include "zelttokenmanager/storage/json_file_storage.h"

/// A `JsonFileStorage` for the requests of the workers, one request at a time in each.
///
/// A request that comes to the store has the workers' lock from then on until `Commit` or
/// `Rollback`: shared once it reads, exclusive once it changes something. One that is to take a
/// record away has it from `BeginRemoval` on, so that nobody changes what it has seen.
///
/// Removing moves the rest of the file within the file, and a worker killed meanwhile leaves
/// records torn; a transfer killed between its removal and its insertion leaves the token nowhere.
/// So a removal first copies the store to a file beside it, its path with ".undo" appended, which
/// stands until `Commit`. A worker that finds a change cut short ends at once, unanswered, and
/// leaves the mending to `Recover`, before the next generation.
///
/// Processes: those forked after it was made use their copies of one object. Threads: one. Throws
/// what `JsonFileStorage` and `WorkersLock` throw, and `std::filesystem::filesystem_error` for the
/// copy.
class SafeStore : public ZELT::TokenManager::TokenStorage {
 public:
  SafeStore(const std::string& path, SharedState& shared_state);

  /// Undoes a removal that was not committed, because whoever removed was killed. To be called
  /// while there are no workers.
  void Recover();

  /// Ends a torn last line first, which the record would become a part of. Throws
  /// `std::runtime_error` for a record of more than 64 KiB.
  void Insert(const std::string& token, const Json::Value& data) override;

  /// To be called after `BeginRemoval`.
  void Remove(const std::string& token) override;

  Json::Value GetAssociatedData(const std::string& token) override;

  /// Begins a request that takes a record away. `copy_needed` says whether it is refused when the
  /// disk has no room for the copy. A revocation is not, since it matters more than a kill in its
  /// midst; a transfer is, since it would lose the token if its insertion failed.
  void BeginRemoval(bool copy_needed);

  void Commit();    ///< the request is done: drops the copy
  void Rollback();  ///< the request failed: puts the store back as it was

 private:
  enum class Held { kNothing, kShared, kExclusive };

  // Lets go of the lock when a request is done.
  struct Ending {
    SafeStore& store;
    ~Ending() { store.Unlock(); }
  };

  void Lock(Held wanted);
  void Unlock();
  void EndChange();
  void Copy();

  ZELT::TokenManager::JsonFileStorage store;
  std::string store_path;
  std::string lock_path;
  std::string undo_path;
  SharedState& shared;
  WorkersLock workers_lock;
  Held held = Held::kNothing;
  bool must_copy = true;
  bool copied = false;
};

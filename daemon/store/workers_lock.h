// The lock among the workers.
#pragma once

#include <string>

#include "shared_state.h"

/// Held by a worker while it reads the store, shared, or changes something, exclusive, until it is
/// done with the request. A worker that fetches a record while another revokes it could otherwise
/// put the revoked record back into the cache. What the cache alone answers needs no lock.
///
/// The kernel wakes all who wait for a record lock and lets readers in beside readers, so that many
/// busy readers would keep a writer out for good. A waiting writer therefore says so, and whoever
/// comes after it waits for his turn.
///
/// Processes: those forked after it was made use their copies of one object. The kernel releases
/// what a process holds when it dies. Threads: one. The two files stay open, because opening them
/// for each request costs more than locking them.
class WorkersLock {
 public:
  /// Opens the two lock files beside the store at `store_path`, making them where they are missing.
  /// Throws `std::system_error`.
  WorkersLock(const std::string& store_path, SharedState& shared_state);
  ~WorkersLock();
  WorkersLock(const WorkersLock&) = delete;
  WorkersLock& operator=(const WorkersLock&) = delete;

  /// Waits for the lock. Throws `std::system_error`.
  void Lock(bool exclusive);

  /// Releases the lock; a failure is logged.
  void Unlock();

 private:
  SharedState& shared;
  int lock_file;
  int turn_file;
};

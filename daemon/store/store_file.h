// The store's directory and file, which must belong to this daemon alone.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "owned_descriptor.h"
#include "store_options.h"

/// Creates the store's directory and file if they are missing, checks them, and locks the file.
/// Deletes nothing, and does not change the mode of existing files.
///
/// The supervisor holds the lock as long as the daemon runs; the processes that it forks hold it
/// too.
class StoreLock {
 public:
  /// `patience` gives the workers of an earlier daemon time to end. Throws `std::runtime_error`
  /// with what is wrong, and what to do.
  explicit StoreLock(const StoreOptions& options,
                     std::chrono::milliseconds patience = std::chrono::seconds(5));

  /// Throws unless the path still names the locked file, which the other workers use.
  void ExpectSameFile() const;

 private:
  std::string path;
  ZELT::TokenManager::OwnedDescriptor file;
};

/// Returns the maximum size of the indexed store's file. It is twice what new tokens may use, so
/// that changes find room while a stopped reader keeps freed pages from being reused.
constexpr std::uint64_t MapBytes(const StoreOptions& options) {
  return 2 * options.bytes + (16U << 20);
}

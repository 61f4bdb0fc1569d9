// Where the store lies: its directory and its file, which nobody else may touch, nor may another
// daemon use them at the same time.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "owned_descriptor.h"
#include "store_options.h"

/// Makes what is missing of the store's directory and file, and checks what is there. Nothing is
/// deleted, and no mode is changed of what was there before.
///
/// The supervisor holds it as long as the daemon lives; processes forked meanwhile hold it too.
class StoreLock {
 public:
  /// `patience` is for the workers of an earlier daemon to end. Throws `std::runtime_error` with
  /// what is wrong, and what to do.
  explicit StoreLock(const StoreOptions& options,
                     std::chrono::milliseconds patience = std::chrono::seconds(5));

  /// Throws unless the file is still the one at its path: other workers use that.
  void ExpectSameFile() const;

 private:
  std::string path;
  ZELT::TokenManager::OwnedDescriptor file;
};

/// How large the file of the indexed store may become. Twice of what new tokens may take: changes
/// find room while a reader that was stopped keeps freed pages from being used again.
constexpr std::uint64_t MapBytes(const StoreOptions& options) {
  return 2 * options.bytes + (16U << 20);
}

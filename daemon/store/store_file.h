// The store's directory and files, which must belong to this daemon alone.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <string>
#include <vector>

#include "owned_descriptor.h"
#include "store_options.h"

/// Creates the store's directory and lock file if they are missing, checks them and the store's
/// file, and locks both files. Deletes nothing, and does not change the mode of existing files.
///
/// The supervisor holds the locks as long as the daemon runs; the processes that it forks hold them
/// too.
class StoreLock {
 public:
  /// `patience` gives the workers of an earlier daemon time to end (seam: tests have less). Throws
  /// `StartError` with what is wrong and what to do, and `std::system_error`.
  explicit StoreLock(const StoreOptions& options,
                     std::chrono::milliseconds patience = std::chrono::seconds(5));

  /// Locks the store's file, which was rebuilt.
  void LockRebuilt();

  /// Throws `std::runtime_error` unless the paths still name the locked files, which the other
  /// workers use, and the store has its size.
  void ExpectSameFiles() const;

 private:
  struct LockedFile {
    std::string path;
    ZELT::TokenManager::OwnedDescriptor file;
    struct stat status;
  };

  void Lock(const std::string& path, off_t bytes = 0);

  const std::string store;  // its path
  const bool is_indexed;
  const mode_t forbidden;  // to the files
  const std::chrono::milliseconds patience;
  std::vector<LockedFile> locked;
};

/// Throws `std::system_error` with `errno` and `what` unless a system call was `done`.
void ExpectDone(bool done, const std::string& what);

/// Writes the entries of a directory to the disk. Throws `std::system_error`.
void SyncDirectory(const std::string& directory);

/// Has an empty file's pages written in their places. Without this flag, btrfs writes each page to
/// a new place, which a full file system does not have. Other file systems do not support the flag.
void WriteInPlace(int file);

/// Allocates the blocks of a file. Throws `std::system_error`.
void Allocate(int file, off_t bytes, const std::string& path);

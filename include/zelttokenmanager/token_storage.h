// Storage of tokens and their data: the interfaces of stores and caches, the exception for a cache
// miss, and the lock that serialises processes on one store.
#pragma once

#include <json/value.h>

#include <exception>
#include <string>

namespace ZELT::TokenManager {

/// Thrown by a cache that cannot answer. It means "ask the persistent store", never "there is no
/// such token". It has no message: a cache that knows a reason logs it with syslog(3) first.
class [[gnu::visibility("default")]] cache_miss : public std::exception{};

/// A map from a token to its associated data.
///
/// Each implementation documents which threads and processes may use it concurrently, and which
/// exceptions it throws.
class [[gnu::visibility("default")]] TokenStorage {
 public:
  virtual ~TokenStorage();

  /// Stores `data` under `token`.
  virtual void Insert(const std::string& token, const Json::Value& data) = 0;

  /// Removes what is stored under `token`. An unknown token is not an error.
  virtual void Remove(const std::string& token) = 0;

  /// Returns what is stored under `token`. Throws when there is nothing.
  virtual Json::Value GetAssociatedData(const std::string& token) = 0;

  /// Returns an object of counters, or null from a store that keeps none (the default).
  virtual Json::Value GetStatistics();
};

/// A store that may drop records to stay within its size.
///
/// `Insert` and `Remove` take the cache's own lock. `Insert` is best effort: a record that cannot
/// be admitted is logged and dropped, so a full cache is never an error to its caller.
/// `GetAssociatedData` throws `cache_miss` when it cannot answer, and otherwise only when it cannot
/// lock.
class [[gnu::visibility("default")]] CacheStorage : public TokenStorage {
 public:
  ~CacheStorage() override;

  /// Drops up to `count` records, chosen by the replacement policy. The caller holds the lock.
  virtual void Evict(unsigned int count) = 0;

  /// Adds one record; throws when even an empty cache has no room. The caller holds the lock.
  virtual void Admit(const std::string& token, const Json::Value& data) = 0;
};

/// Holds a POSIX record lock (fcntl(2)) on a whole file for the lifetime of the object.
///
/// Processes: an exclusive lock excludes every other holder, shared locks exclude exclusive ones.
/// The kernel releases the lock of a process that dies. Threads: record locks belong to the
/// process, so two threads do not exclude each other, and closing any descriptor of the file
/// anywhere in the process drops the lock.
class [[gnu::visibility("default")]] FileLock {
 public:
  /// Opens the existing file at `path` and waits, without a time limit, for the lock: exclusive
  /// (for writing) or shared (for reading). Throws `std::runtime_error` when the file cannot be
  /// opened or locked.
  FileLock(const std::string& path, bool exclusive_lock);

  /// Releases the lock; a failure is logged.
  ~FileLock();

  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  bool exclusive;
  int handle = -1;
};

}  // namespace ZELT::TokenManager

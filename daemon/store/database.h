// LMDB as the indexed store uses it: an environment, its transactions, and its errors.
#pragma once

#include <lmdb.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

/// Throws unless `result` is MDB_SUCCESS: `NoRoom` for MDB_MAP_FULL, `std::system_error` for an
/// error of the system, and otherwise `std::runtime_error`, each with "cannot WHAT: REASON". Ends
/// the process if LMDB refuses all further work in it (MDB_PANIC).
void Expect(int result, const char* what);

/// The same, but returns false for MDB_NOTFOUND.
bool Found(int result, const char* what);

inline MDB_val ValueOf(std::string_view bytes) {
  return {bytes.size(), const_cast<char*>(bytes.data())};
}
inline std::string_view BytesOf(const MDB_val& value) {
  return {static_cast<const char*>(value.mv_data), value.mv_size};
}

template <auto end>
struct Ender {
  void operator()(auto* ended) const { end(ended); }
};
using Transaction = std::unique_ptr<MDB_txn, Ender<mdb_txn_abort>>;
using Cursor = std::unique_ptr<MDB_cursor, Ender<mdb_cursor_close>>;

/// Sees the store as it was when it began. Must be short, because pages freed in the meantime are
/// not reused before it ends. One at a time.
using Reading = std::unique_ptr<MDB_txn, Ender<mdb_txn_reset>>;

/// An open environment. A process has at most one per file, and must not use one opened before
/// fork(2).
class Database {
 public:
  /// `kServe` uses LMDB's locks. The others require that nobody else uses the file; `kMake` expects
  /// an empty one, and does not sync it.
  enum class Use { kMake, kRead, kServe };

  /// Opens the file, which keeps its size, or may have `bytes` if it is made. Throws as `Expect`
  /// does, and `std::runtime_error` if the file is truncated.
  Database(const std::string& path, Use use, std::uint64_t bytes = 0);

  MDB_env* Get() const { return environment.get(); }
  std::uint64_t PageBytes() const { return page_bytes; }

  /// Waits for the write lock, unless `flags` are MDB_RDONLY.
  Transaction Begin(unsigned int flags = 0);
  void Commit(Transaction transaction);
  Reading Read();

  /// Waits until no process reads the store as it was before the last commit, so that pages freed
  /// since can be reused; forgets dead processes. Returns whether there were any. Throws as
  /// `Expect` does.
  bool AwaitReaders(std::chrono::seconds patience);

 private:
  bool ForgetDeadReaders();

  std::unique_ptr<MDB_env, Ender<mdb_env_close>> environment;
  std::uint64_t page_bytes = 0;
  Transaction kept;  // the read transaction, reset when it is not used
};

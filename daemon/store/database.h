// LMDB as the indexed store uses it: an environment, its transactions, and its errors.
#pragma once

#include <lmdb.h>

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

struct TransactionAborter {
  void operator()(MDB_txn* transaction) const { mdb_txn_abort(transaction); }
};
using Transaction = std::unique_ptr<MDB_txn, TransactionAborter>;

struct CursorCloser {
  void operator()(MDB_cursor* cursor) const { mdb_cursor_close(cursor); }
};
using Cursor = std::unique_ptr<MDB_cursor, CursorCloser>;

Cursor OpenCursor(MDB_txn* transaction, MDB_dbi table);

/// An open environment. A process has at most one per file, and must not use one opened before
/// fork(2).
class Database {
 public:
  /// `kServe` uses LMDB's locks. The others require that nobody else uses the file; `kMake` does
  /// not sync it.
  enum class Use { kMake, kRead, kServe };

  /// Opens the file, which keeps its size. Throws as `Expect` does, and `std::runtime_error` if the
  /// file is truncated.
  Database(const std::string& path, Use use);

  /// Opens the empty file `path` to make it, with all blocks of `bytes` allocated.
  Database(const std::string& path, std::uint64_t bytes);

  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  MDB_env* Get() const { return environment.get(); }
  std::uint64_t PageBytes() const { return page_bytes; }
  std::uint64_t Pages() const;  ///< of the file

  /// Waits for the write lock.
  Transaction BeginWrite();
  void Commit(Transaction transaction);

  /// Sees the store as it was when the scope began. Scopes must be short, because pages freed in
  /// the meantime are not reused before the scope ends. One at a time.
  class ReadScope {
   public:
    explicit ReadScope(Database& database) : transaction(database.BeginRead()) {}
    ~ReadScope() { mdb_txn_reset(transaction); }
    ReadScope(const ReadScope&) = delete;
    ReadScope& operator=(const ReadScope&) = delete;

    MDB_txn* Get() const { return transaction; }

   private:
    MDB_txn* transaction;
  };

  /// Returns the number of the last commit.
  std::uint64_t LastCommit() const;

  /// Frees the pages that dead readers hold. Returns whether there were any. Throws as `Expect`
  /// does.
  bool ClearDeadReaders();

  /// Returns whether a process reads the store as it was before this commit, so that pages freed
  /// since are not reused.
  bool IsReadBefore(std::uint64_t commit) const;

 private:
  struct Closer {
    void operator()(MDB_env* closed) const { mdb_env_close(closed); }
  };

  void Open(const std::string& path, std::uint64_t bytes, unsigned int flags);
  MDB_txn* BeginRead();

  std::unique_ptr<MDB_env, Closer> environment;
  std::uint64_t page_bytes = 0;
  Transaction kept;  // the read transaction, reset between scopes
};

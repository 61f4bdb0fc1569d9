// LMDB as the indexed store uses it: an environment, its transactions, and its errors.
#pragma once

#include <lmdb.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

/// Throws `std::runtime_error` "cannot WHAT: REASON" unless `result` is MDB_SUCCESS.
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
  /// Only `kMake` and `kServe` write; only `kServe` uses LMDB's locks.
  enum class Use { kMake, kCheck, kServe };

  /// `map_bytes` is the maximum size of the file; the map is larger if the file already is. Throws
  /// `std::runtime_error`, also if the file is truncated.
  Database(const std::string& path, std::uint64_t map_bytes, Use use);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  MDB_env* Get() const { return environment.get(); }
  int File() const;
  std::uint64_t PageBytes() const { return page_bytes; }
  std::uint64_t MapPages() const { return Info().me_mapsize / page_bytes; }
  std::uint64_t LastPage() const { return Info().me_last_pgno; }     ///< as of the last commit
  std::uint64_t LastCommit() const { return Info().me_last_txnid; }  ///< its number

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

  /// Frees the pages that dead readers hold. Throws `std::runtime_error`.
  void ClearDeadReaders();

 private:
  struct Closer {
    void operator()(MDB_env* closed) const { mdb_env_close(closed); }
  };

  MDB_envinfo Info() const;
  MDB_txn* BeginRead();
  int Begin(unsigned int flags, Transaction& begun);

  std::unique_ptr<MDB_env, Closer> environment;
  std::uint64_t page_bytes = 0;
  Transaction kept;  // the read transaction, reset between scopes
};

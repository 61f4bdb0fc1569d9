// The tables of the indexed store, which change together.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "database.h"
#include "record.h"

/// Tokens that belong together: those of a user and a service, or all.
struct Total {
  std::uint64_t tokens = 0;
  std::uint64_t bytes = 0;      ///< of `Footprint`
  std::uint64_t checksums = 0;  ///< the sum of those of their records
};

/// Numbers in keys are big-endian, so that the order of the bytes is the order of the numbers.
///
///   tokens2    `TokenKey` -> record, so in the order of ids
///   usage2     uid, name of the service -> Total; one byte 0 -> Total of all tokens
///
/// Errors are those of `Expect`. After an error, a write transaction can only be aborted.
class Tables {
 public:
  /// Opens the tables, or creates them if the database was just `made`. Throws
  /// `std::runtime_error` if this is not a store of this daemon. Of a store of format 1, tokens can
  /// be visited, in any order, and verified.
  explicit Tables(Database& database, bool made = false);

  bool IsFormat1() const { return is_format1; }

  std::optional<Record> Find(MDB_txn* transaction, const TokenKey& key) const;

  /// Visits the tokens with ids greater than `after` in the order of their ids; all if `after` is
  /// 0. Ends when `visit` returns false, and then returns true.
  using TokenVisitor = std::function<bool(const TokenKey& key, const Record& record)>;
  bool VisitTokens(MDB_txn* transaction, std::uint64_t after, const TokenVisitor& visit) const;

  /// Visits what users from `first` on hold, until `visit` returns false.
  using UsageVisitor = std::function<bool(uid_t user, std::string_view service, const Total&)>;
  void VisitUsage(MDB_txn* transaction, uid_t first, const UsageVisitor& visit) const;
  Total TotalOf(MDB_txn* transaction, uid_t user) const;
  Total TotalOfAll(MDB_txn* transaction) const;

  /// Returns the number of pages that are not in use, as the transaction sees them.
  std::uint64_t FreePages(MDB_txn* transaction) const;

  /// Adds a record, with its sizes and checksum in the header.
  void Add(MDB_txn* transaction, const TokenKey& key, Record record) const;

  /// Erases a record, which must exist.
  void Erase(MDB_txn* transaction, const TokenKey& key) const;

  /// Reads everything, and returns the total of all tokens. Throws `std::runtime_error` with what
  /// is inconsistent, and where.
  Total Verify(MDB_txn* transaction) const;

 private:
  Total TotalOf(const Record& record) const;
  void Count(MDB_txn* transaction, const std::string& key, const Total& change) const;

  std::uint64_t page_bytes;
  bool is_format1 = false;
  MDB_dbi tokens = 0;
  MDB_dbi usage = 0;
};

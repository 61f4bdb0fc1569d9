// The tables of the indexed store, which change together.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "database.h"
#include "record.h"

/// The tokens that a user holds, of one service or of all.
struct UserTotal {
  std::uint64_t tokens = 0;
  std::uint64_t bytes = 0;  ///< of `Footprint`
};

/// Numbers in keys are big-endian, so that the order of the bytes is the order of the numbers.
///
///   tokens   token -> record
///   ids      id -> token
///   users    uid, id -> nothing
///   usage    uid, name of the service -> UserTotal
///   meta     "format" -> text, "last id" -> the greatest id ever assigned
///
/// Errors are `std::runtime_error`. After an error, a write transaction can only be aborted.
class Tables {
 public:
  /// Opens the tables, or creates them if `made` is true. Throws if this is not a store of this
  /// daemon.
  Tables(Database& database, bool made);

  std::optional<Record> Find(MDB_txn* transaction, std::string_view token) const;

  /// Visits the records with ids greater than `after`, of one user or of all, in the order of their
  /// ids, until `visit` returns false.
  using Visitor = std::function<bool(std::string_view token, const Record& record)>;
  void Visit(MDB_txn* transaction, std::optional<uid_t> user, std::uint64_t after,
             const Visitor& visit) const;

  /// Visits what users from `first` on hold, until `visit` returns false.
  using UsageVisitor =
      std::function<bool(uid_t user, std::string_view service, const UserTotal& total)>;
  void VisitUsage(MDB_txn* transaction, uid_t first, const UsageVisitor& visit) const;
  UserTotal TotalOf(MDB_txn* transaction, uid_t user) const;

  std::uint64_t CountTokens(MDB_txn* transaction) const;

  /// Returns the number of pages in use, as the transaction sees them.
  std::uint64_t UsedPages(MDB_txn* transaction) const;

  /// Adds a record under a new id, and returns the id.
  std::uint64_t Add(MDB_txn* transaction, const std::string& token, RecordHeader header,
                    std::string_view service, std::string_view text) const;

  /// Replaces the header and the text of a record.
  void Replace(MDB_txn* transaction, const std::string& token, const RecordHeader& header,
               std::string_view text) const;

  void Erase(MDB_txn* transaction, const std::string& token) const;

  /// Checks all tables. Throws an error that says what is wrong.
  void Check(MDB_txn* transaction) const;

 private:
  void AddUsage(MDB_txn* transaction, std::string_view token, const Record& record,
                bool added) const;
  std::uint64_t LastId(MDB_txn* transaction) const;
  bool HasEntries(MDB_txn* transaction, std::string_view token, const Record& record) const;

  MDB_dbi tokens = 0;
  MDB_dbi ids = 0;
  MDB_dbi users = 0;
  MDB_dbi usage = 0;
  MDB_dbi meta = 0;
};

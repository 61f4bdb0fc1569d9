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
  std::uint64_t last_id = 0;    ///< the greatest id that one of them ever had
  std::uint64_t checksums = 0;  ///< the sum of those of their records

  bool operator==(const Total&) const = default;
};

/// Numbers in keys are big-endian, so that the order of the bytes is the order of the numbers.
///
///   tokens2    `TokenKey` -> record
///   ids2       id -> `TokenKey`, uid
///   usage2     uid, name of the service -> Total; one byte 0 -> Total of all tokens
///
/// Errors are those of `Expect`. After an error, a write transaction can only be aborted.
class Tables {
 public:
  /// Opens the tables. Throws `std::runtime_error` if this is not a store of this daemon.
  explicit Tables(Database& database);

  /// Creates the tables if they are missing.
  static void Create(Database& database);

  std::optional<Record> Find(MDB_txn* transaction, const TokenKey& key) const;

  /// Visits the ids greater than `after`, until `visit` returns false.
  using IdVisitor = std::function<bool(std::uint64_t id, uid_t user, const TokenKey& key)>;
  void VisitIds(MDB_txn* transaction, std::uint64_t after, const IdVisitor& visit) const;

  /// Visits what users from `first` on hold, until `visit` returns false.
  using UsageVisitor = std::function<bool(uid_t user, std::string_view service, const Total&)>;
  void VisitUsage(MDB_txn* transaction, uid_t first, const UsageVisitor& visit) const;
  Total TotalOf(MDB_txn* transaction, uid_t user) const;
  Total TotalOfAll(MDB_txn* transaction) const;

  /// Returns the number of pages in use, as the transaction sees them.
  std::uint64_t UsedPages(MDB_txn* transaction) const;

  /// Adds a record, under a new id if its own is 0, and returns the id.
  std::uint64_t Add(MDB_txn* transaction, const TokenKey& key, Record record) const;

  /// Replaces the header and the text of a record.
  void Replace(MDB_txn* transaction, const TokenKey& key, const RecordHeader& header,
               std::string_view text) const;

  void Erase(MDB_txn* transaction, const TokenKey& key) const;

  /// Ensures that the last id is at least `id`.
  void SetLastId(MDB_txn* transaction, std::uint64_t id) const;

  /// Reads everything. Throws `std::runtime_error` with what is inconsistent, and where.
  void Verify(MDB_txn* transaction) const;

 private:
  void Count(MDB_txn* transaction, const Record& record, bool added) const;
  Record FindExisting(MDB_txn* transaction, const TokenKey& key) const;

  std::uint64_t page_bytes;
  MDB_dbi tokens = 0;
  MDB_dbi ids = 0;
  MDB_dbi usage = 0;
};

// Access to single tables, and numbers in keys.
MDB_dbi OpenTable(MDB_txn* transaction, const char* name, bool create = false);
std::optional<std::string_view> Get(MDB_txn* transaction, MDB_dbi table, std::string_view key);
std::uint64_t CountEntries(MDB_txn* transaction, MDB_dbi table);

/// Visits the entries from `first` on, until `visit` returns false.
using EntryVisitor = std::function<bool(std::string_view key, std::string_view value)>;
void VisitEntries(MDB_txn* transaction, MDB_dbi table, std::string_view first,
                  const EntryVisitor& visit);

template <typename Number>
std::string BigEndian(Number number) {
  std::string bytes(sizeof(number), '\0');
  for (std::size_t i = bytes.size(); i-- > 0; number >>= 8) bytes[i] = static_cast<char>(number);
  return bytes;
}

template <typename Number>
Number FromBigEndian(std::string_view bytes) {
  if (bytes.size() < sizeof(Number)) throw std::runtime_error("a number is truncated");
  Number number = 0;
  for (std::size_t i = 0; i < sizeof(Number); ++i) {
    number = static_cast<Number>(number << 8) | static_cast<unsigned char>(bytes[i]);
  }
  return number;
}

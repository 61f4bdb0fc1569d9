#include "tables.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <stdexcept>
#include <utility>

namespace {

constexpr const char* kWhat = "use the tables of the store";
constexpr const char* kTokens = "tokens2";
constexpr const char* kIds = "ids2";
constexpr const char* kUsage = "usage2";
constexpr std::string_view kAll("\0", 1);  // shorter than any user's key

std::string_view BytesOf(const TokenKey& key) { return {key.data(), key.size()}; }

std::string_view BytesOf(const Total& total) {
  return {reinterpret_cast<const char*>(&total), sizeof(total)};
}

void Put(MDB_txn* transaction, MDB_dbi table, std::string_view key, std::string_view value,
         unsigned int flags = 0) {
  MDB_val wanted = ValueOf(key);
  MDB_val put = ValueOf(value);
  Expect(mdb_put(transaction, table, &wanted, &put, flags), kWhat);
}

void Delete(MDB_txn* transaction, MDB_dbi table, std::string_view key) {
  MDB_val wanted = ValueOf(key);
  Expect(mdb_del(transaction, table, &wanted, nullptr), kWhat);
}

MDB_stat StatOf(MDB_txn* transaction, MDB_dbi table) {
  MDB_stat stat{};
  Expect(mdb_stat(transaction, table, &stat), kWhat);
  return stat;
}

Total DecodeTotal(std::string_view bytes) {
  Total total;
  if (bytes.size() != sizeof(total)) throw std::runtime_error("a total has the wrong size");
  std::memcpy(&total, bytes.data(), sizeof(total));
  return total;
}

std::string UsageKey(const Record& record) {
  return BigEndian(record.header.uid).append(record.service);
}

void AddTo(Total& total, const Record& record, std::uint64_t bytes) {
  ++total.tokens;
  total.bytes += bytes;
  total.last_id = std::max(total.last_id, record.header.id);
  total.checksums += record.header.checksum;
}

void TakeFrom(Total& total, const Record& record, std::uint64_t bytes) {
  --total.tokens;
  total.bytes -= bytes;
  total.checksums -= record.header.checksum;
}

bool Agree(const Total& counted, const Total& stored) {
  return counted.tokens == stored.tokens && counted.bytes == stored.bytes &&
         counted.checksums == stored.checksums && counted.last_id <= stored.last_id;
}

}  // namespace

MDB_dbi OpenTable(MDB_txn* transaction, const char* name, bool create) {
  MDB_dbi table = 0;
  if (Found(mdb_dbi_open(transaction, name, create ? MDB_CREATE : 0, &table), kWhat)) return table;
  throw std::runtime_error("it is the database of another program, or of another version");
}

std::optional<std::string_view> Get(MDB_txn* transaction, MDB_dbi table, std::string_view key) {
  MDB_val wanted = ValueOf(key);
  MDB_val value{};
  if (!Found(mdb_get(transaction, table, &wanted, &value), kWhat)) return std::nullopt;
  return ::BytesOf(value);
}

std::uint64_t CountEntries(MDB_txn* transaction, MDB_dbi table) {
  return StatOf(transaction, table).ms_entries;
}

void VisitEntries(MDB_txn* transaction, MDB_dbi table, std::string_view first,
                  const EntryVisitor& visit) {
  const Cursor cursor = OpenCursor(transaction, table);
  MDB_val key = ValueOf(first);
  MDB_val value{};
  const MDB_cursor_op begin = first.empty() ? MDB_FIRST : MDB_SET_RANGE;
  bool found = Found(mdb_cursor_get(cursor.get(), &key, &value, begin), kWhat);
  while (found && visit(::BytesOf(key), ::BytesOf(value))) {
    found = Found(mdb_cursor_get(cursor.get(), &key, &value, MDB_NEXT), kWhat);
  }
}

Tables::Tables(Database& database) : page_bytes(database.PageBytes()) {
  MDB_txn* begun = nullptr;
  Expect(mdb_txn_begin(database.Get(), nullptr, MDB_RDONLY, &begun), kWhat);
  Transaction transaction(begun);
  tokens = OpenTable(begun, kTokens);
  ids = OpenTable(begun, kIds);
  usage = OpenTable(begun, kUsage);
  Expect(mdb_txn_commit(transaction.release()), kWhat);  // this keeps the tables open
}

void Tables::Create(Database& database) {
  Transaction transaction = database.BeginWrite();
  OpenTable(transaction.get(), kTokens, true);
  OpenTable(transaction.get(), kIds, true);
  Put(transaction.get(), OpenTable(transaction.get(), kUsage, true), kAll, BytesOf(Total{}));
  database.Commit(std::move(transaction));
}

std::optional<Record> Tables::Find(MDB_txn* transaction, const TokenKey& key) const {
  const auto found = Get(transaction, tokens, BytesOf(key));
  if (!found) return std::nullopt;
  return DecodeRecord(*found);
}

void Tables::VisitIds(MDB_txn* transaction, std::uint64_t after, const IdVisitor& visit) const {
  if (after == std::numeric_limits<std::uint64_t>::max()) return;
  VisitEntries(transaction, ids, BigEndian(after + 1),
               [&](std::string_view id, std::string_view value) {
                 TokenKey key;
                 if (value.size() != key.size() + sizeof(uid_t))
                   throw std::runtime_error("an id is inconsistent");
                 std::copy_n(value.data(), key.size(), key.data());
                 return visit(FromBigEndian<std::uint64_t>(id),
                              FromBigEndian<uid_t>(value.substr(key.size())), key);
               });
}

void Tables::VisitUsage(MDB_txn* transaction, uid_t first, const UsageVisitor& visit) const {
  VisitEntries(
      transaction, usage, BigEndian(first), [&](std::string_view key, std::string_view value) {
        return visit(FromBigEndian<uid_t>(key), key.substr(sizeof(uid_t)), DecodeTotal(value));
      });
}

Total Tables::TotalOf(MDB_txn* transaction, uid_t user) const {
  Total sum;
  VisitUsage(transaction, user, [&](uid_t each, std::string_view, const Total& total) {
    if (each != user) return false;
    sum.tokens += total.tokens;
    sum.bytes += total.bytes;
    return true;
  });
  return sum;
}

Total Tables::TotalOfAll(MDB_txn* transaction) const {
  const auto found = Get(transaction, usage, kAll);
  if (!found) throw std::runtime_error("the totals are inconsistent");
  return DecodeTotal(*found);
}

std::uint64_t Tables::UsedPages(MDB_txn* transaction) const {
  constexpr MDB_dbi kFreePages = 0;  // the two tables of LMDB itself
  constexpr MDB_dbi kNames = 1;
  std::uint64_t pages = 2;  // LMDB's meta pages
  for (const MDB_dbi table : {kFreePages, kNames, tokens, ids, usage}) {
    const MDB_stat stat = StatOf(transaction, table);
    pages += stat.ms_branch_pages + stat.ms_leaf_pages + stat.ms_overflow_pages;
  }
  return pages;
}

void Tables::Count(MDB_txn* transaction, const Record& record, bool added) const {
  const std::uint64_t bytes = Footprint(record, page_bytes);
  for (const std::string& key : {UsageKey(record), std::string(kAll)}) {
    const auto found = Get(transaction, usage, key);
    Total total = found ? DecodeTotal(*found) : Total{};
    added ? AddTo(total, record, bytes) : TakeFrom(total, record, bytes);
    if (total.tokens == 0 && key != kAll) {
      Delete(transaction, usage, key);
    } else {
      Put(transaction, usage, key, BytesOf(total));
    }
  }
}

std::uint64_t Tables::Add(MDB_txn* transaction, const TokenKey& key, Record record) const {
  RecordHeader& header = record.header;
  if (header.id == 0) header.id = TotalOfAll(transaction).last_id + 1;
  header.service_size = static_cast<std::uint32_t>(record.service.size());
  header.text_size = static_cast<std::uint32_t>(record.text.size());
  header.checksum = Checksum(BytesOf(key), record);
  const std::string entry = std::string(BytesOf(key)) + BigEndian(header.uid);
  Put(transaction, tokens, BytesOf(key), EncodeRecord(record), MDB_NOOVERWRITE);
  Put(transaction, ids, BigEndian(header.id), entry, MDB_APPEND);
  Count(transaction, record, true);
  return header.id;
}

Record Tables::FindExisting(MDB_txn* transaction, const TokenKey& key) const {
  const auto record = Find(transaction, key);
  if (!record) throw std::runtime_error("the record to be changed is gone");
  return *record;
}

void Tables::Replace(MDB_txn* transaction, const TokenKey& key, const RecordHeader& header,
                     std::string_view text) const {
  const Record old = FindExisting(transaction, key);
  const std::string service(old.service);  // changes invalidate the old record
  Count(transaction, old, false);
  Record record{header, service, text};
  record.header.text_size = static_cast<std::uint32_t>(text.size());
  record.header.checksum = Checksum(BytesOf(key), record);
  Put(transaction, tokens, BytesOf(key), EncodeRecord(record));
  Count(transaction, record, true);
}

void Tables::Erase(MDB_txn* transaction, const TokenKey& key) const {
  const Record record = FindExisting(transaction, key);
  const std::string id = BigEndian(record.header.id);
  Count(transaction, record, false);
  Delete(transaction, ids, id);
  Delete(transaction, tokens, BytesOf(key));
}

void Tables::SetLastId(MDB_txn* transaction, std::uint64_t id) const {
  Total total = TotalOfAll(transaction);
  total.last_id = std::max(total.last_id, id);
  Put(transaction, usage, kAll, BytesOf(total));
}

void Tables::Verify(MDB_txn* transaction) const {
  std::map<std::string, Total> totals;
  Total& all = totals[std::string(kAll)];
  VisitIds(transaction, 0, [&](std::uint64_t id, uid_t user, const TokenKey& key) {
    const auto record = Find(transaction, key);
    if (!record || record->header.id != id || record->header.uid != user ||
        record->header.checksum != Checksum(BytesOf(key), *record)) {
      throw std::runtime_error("token " + std::to_string(id) + " is inconsistent");
    }
    const std::uint64_t bytes = Footprint(*record, page_bytes);
    AddTo(all, *record, bytes);
    AddTo(totals[UsageKey(*record)], *record, bytes);
    return true;
  });
  bool agree = true;
  VisitEntries(transaction, usage, {}, [&](std::string_view key, std::string_view value) {
    return agree &= Agree(totals[std::string(key)], DecodeTotal(value));
  });
  if (!agree || CountEntries(transaction, usage) != totals.size() ||
      CountEntries(transaction, tokens) != all.tokens) {
    throw std::runtime_error("the totals are inconsistent");
  }
}

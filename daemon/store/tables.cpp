#include "tables.h"

#include <cstring>
#include <map>
#include <stdexcept>
#include <utility>

namespace {

constexpr const char* kWhat = "use the tables of the store";
constexpr std::string_view kAll("\0", 1);  // shorter than any user's key

template <typename Number>
std::string BigEndian(Number number) {
  std::string bytes(sizeof(number), '\0');
  for (std::size_t i = bytes.size(); i-- > 0; number >>= 8) bytes[i] = static_cast<char>(number);
  return bytes;
}

std::string_view BytesOf(const TokenKey& key) { return {key.data(), key.size()}; }

std::string_view BytesOf(const Total& total) {
  return {reinterpret_cast<const char*>(&total), sizeof(total)};
}

// Throws if there are fewer or more bytes.
template <typename Object>
Object FromBytes(std::string_view bytes) {
  Object object;
  if (bytes.size() != sizeof(object)) throw std::runtime_error("an entry has the wrong size");
  std::memcpy(&object, bytes.data(), sizeof(object));
  return object;
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

bool IsOfFormat1(MDB_txn* transaction) {
  MDB_dbi meta = 0;
  return Found(mdb_dbi_open(transaction, "meta", 0, &meta), kWhat) &&
         Get(transaction, meta, "format") == "Zelt token store 1";
}

// Visits the entries from `first` on. Ends when `visit` returns false, and then returns true.
bool VisitEntries(MDB_txn* transaction, MDB_dbi table, std::string_view first,
                  const std::function<bool(std::string_view, std::string_view)>& visit) {
  MDB_cursor* opened = nullptr;
  Expect(mdb_cursor_open(transaction, table, &opened), kWhat);
  const Cursor cursor(opened);
  MDB_val key = ValueOf(first);
  MDB_val value{};
  const MDB_cursor_op begin = first.empty() ? MDB_FIRST : MDB_SET_RANGE;
  bool found = Found(mdb_cursor_get(cursor.get(), &key, &value, begin), kWhat);
  while (found && visit(::BytesOf(key), ::BytesOf(value))) {
    found = Found(mdb_cursor_get(cursor.get(), &key, &value, MDB_NEXT), kWhat);
  }
  return found;
}

std::string UsageKey(const Record& record) {
  return BigEndian(record.header.uid).append(record.service);
}

Total& operator+=(Total& sum, const Total& total) {
  sum.tokens += total.tokens;
  sum.bytes += total.bytes;
  sum.checksums += total.checksums;
  return sum;
}

Total operator-(const Total& total) {  // added, it takes the same away
  return {0 - total.tokens, 0 - total.bytes, 0 - total.checksums};
}

}  // namespace

Tables::Tables(Database& database, bool made) : page_bytes(database.PageBytes()) {
  Transaction transaction = database.Begin(made ? 0 : MDB_RDONLY);
  MDB_txn* const begun = transaction.get();
  is_format1 = IsOfFormat1(begun);
  tokens = OpenTable(begun, is_format1 ? "tokens" : "tokens2", made);
  usage = OpenTable(begun, is_format1 ? "usage" : "usage2", made);
  if (made) Put(begun, usage, kAll, BytesOf(Total{}));
  database.Commit(std::move(transaction));  // this keeps the tables open
}

std::optional<Record> Tables::Find(MDB_txn* transaction, const TokenKey& key) const {
  const auto found = Get(transaction, tokens, BytesOf(key));
  if (!found) return std::nullopt;
  return DecodeRecord(*found);
}

bool Tables::VisitTokens(MDB_txn* transaction, std::uint64_t after,
                         const TokenVisitor& visit) const {
  constexpr int kUnused = 8 * (sizeof after - kIdBytes);
  if (after >= ~std::uint64_t{0} >> kUnused) return false;
  const std::string first = after == 0 ? "" : BigEndian((after + 1) << kUnused);
  return VisitEntries(transaction, tokens, first, [&](auto key, auto value) {
    return visit(is_format1 ? KeyOf(key) : FromBytes<TokenKey>(key),
                 DecodeRecord(value, is_format1));
  });
}

void Tables::VisitUsage(MDB_txn* transaction, uid_t first, const UsageVisitor& visit) const {
  VisitEntries(transaction, usage, BigEndian(first),
               [&](std::string_view key, std::string_view value) {
                 const auto user = static_cast<uid_t>(FromBigEndian(key.substr(0, sizeof(uid_t))));
                 return visit(user, key.substr(sizeof user), FromBytes<Total>(value));
               });
}

Total Tables::TotalOf(MDB_txn* transaction, uid_t user) const {
  Total sum;
  VisitUsage(transaction, user, [&](uid_t each, std::string_view, const Total& total) {
    if (each == user) sum += total;
    return each == user;
  });
  return sum;
}

Total Tables::TotalOfAll(MDB_txn* transaction) const {
  const auto found = Get(transaction, usage, kAll);
  if (!found) throw std::runtime_error("the totals are inconsistent");
  return FromBytes<Total>(*found);
}

std::uint64_t Tables::FreePages(MDB_txn* transaction) const {
  constexpr MDB_dbi kFreePages = 0;  // the two tables of LMDB itself
  constexpr MDB_dbi kNames = 1;
  std::uint64_t used = 2;  // LMDB's meta pages
  for (const MDB_dbi table : {kFreePages, kNames, tokens, usage}) {
    MDB_stat stat{};
    Expect(mdb_stat(transaction, table, &stat), kWhat);
    used += stat.ms_branch_pages + stat.ms_leaf_pages + stat.ms_overflow_pages;
  }
  MDB_envinfo info{};
  mdb_env_info(mdb_txn_env(transaction), &info);
  return info.me_mapsize / page_bytes - used;
}

Total Tables::TotalOf(const Record& record) const {
  return {1, Footprint(record, page_bytes), record.header.checksum};
}

void Tables::Count(MDB_txn* transaction, const std::string& service, const Total& change) const {
  for (const std::string& key : {service, std::string(kAll)}) {
    const auto found = Get(transaction, usage, key);
    Total total = found ? FromBytes<Total>(*found) : Total{};
    total += change;
    if (total.tokens == 0 && key != kAll) {
      Delete(transaction, usage, key);
    } else {
      Put(transaction, usage, key, BytesOf(total));
    }
  }
}

void Tables::Add(MDB_txn* transaction, const TokenKey& key, Record record) const {
  RecordHeader& header = record.header;
  header.service_size = static_cast<std::uint32_t>(record.service.size());
  header.text_size = static_cast<std::uint32_t>(record.text.size());
  header.checksum = Checksum(key, record);
  Put(transaction, tokens, BytesOf(key), EncodeRecord(record), MDB_NOOVERWRITE);
  Count(transaction, UsageKey(record), TotalOf(record));
}

void Tables::Erase(MDB_txn* transaction, const TokenKey& key) const {
  const auto record = Find(transaction, key);
  if (!record) throw std::runtime_error("the record to be erased is gone");
  Count(transaction, UsageKey(*record), -TotalOf(*record));
  Delete(transaction, tokens, BytesOf(key));
}

Total Tables::Verify(MDB_txn* transaction) const {
  std::map<std::string, Total, std::less<>> totals;
  Total& all = totals[std::string(kAll)];
  VisitTokens(transaction, 0, [&](const TokenKey& key, const Record& record) {
    if (!is_format1 &&
        (record.header.checksum != Checksum(key, record) || !Find(transaction, key))) {
      throw std::runtime_error("token " + std::to_string(IdOf(key)) + " is inconsistent");
    }
    const Total one = TotalOf(record);
    all += one;
    totals[UsageKey(record)] += one;
    return true;
  });
  // Format 1 had no total of all, and counted other bytes.
  const std::size_t compared = is_format1 ? sizeof all.tokens : sizeof all;
  std::size_t found = is_format1 ? 1 : 0;
  const bool differ = VisitEntries(transaction, usage, {}, [&](auto key, auto value) {
    const auto counted = totals.find(key);
    ++found;
    return counted != totals.end() &&
           value.substr(0, compared) == BytesOf(counted->second).substr(0, compared);
  });
  if (differ || found != totals.size()) throw std::runtime_error("the totals are inconsistent");
  return all;
}

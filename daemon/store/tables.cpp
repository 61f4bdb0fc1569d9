#include "tables.h"

#include <array>
#include <cstring>
#include <limits>
#include <map>
#include <stdexcept>
#include <utility>

namespace {

constexpr std::string_view kFormatKey = "format";
constexpr std::string_view kFormat = "Zelt token store 1";
constexpr std::string_view kLastIdKey = "last id";
constexpr const char* kWhat = "use the tables of the store";

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

std::optional<std::string_view> Get(MDB_txn* transaction, MDB_dbi table, std::string_view key) {
  MDB_val wanted = ValueOf(key);
  MDB_val value{};
  if (!Found(mdb_get(transaction, table, &wanted, &value), kWhat)) return std::nullopt;
  return BytesOf(value);
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

// Visits the entries from `first` on, until `visit` returns false.
void VisitEntries(MDB_txn* transaction, MDB_dbi table, std::string_view first,
                  const std::function<bool(std::string_view, std::string_view)>& visit) {
  const Cursor cursor = OpenCursor(transaction, table);
  MDB_val key = ValueOf(first);
  MDB_val value{};
  const MDB_cursor_op begin = first.empty() ? MDB_FIRST : MDB_SET_RANGE;
  bool found = Found(mdb_cursor_get(cursor.get(), &key, &value, begin), kWhat);
  while (found && visit(BytesOf(key), BytesOf(value))) {
    found = Found(mdb_cursor_get(cursor.get(), &key, &value, MDB_NEXT), kWhat);
  }
}

MDB_stat StatOf(MDB_txn* transaction, MDB_dbi table) {
  MDB_stat stat{};
  Expect(mdb_stat(transaction, table, &stat), kWhat);
  return stat;
}

UserTotal DecodeTotal(std::string_view bytes) {
  UserTotal total;
  if (bytes.size() != sizeof(total)) throw std::runtime_error("a total has the wrong size");
  std::memcpy(&total, bytes.data(), sizeof(total));
  return total;
}

std::string_view Encode(const UserTotal& total) {
  return {reinterpret_cast<const char*>(&total), sizeof(total)};
}

std::string UserKey(uid_t user, std::uint64_t id) { return BigEndian(user) + BigEndian(id); }

}  // namespace

Tables::Tables(Database& database, bool made) {
  MDB_txn* begun = nullptr;
  Expect(mdb_txn_begin(database.Get(), nullptr, made ? 0 : MDB_RDONLY, &begun), kWhat);
  Transaction transaction(begun);
  const std::array<std::pair<const char*, MDB_dbi*>, 5> all = {
      {{"tokens", &tokens}, {"ids", &ids}, {"users", &users}, {"usage", &usage}, {"meta", &meta}}};
  bool complete = true;
  for (const auto& [name, table] : all) {
    complete &= Found(mdb_dbi_open(begun, name, made ? MDB_CREATE : 0, table), kWhat);
  }
  if (made) Put(begun, meta, kFormatKey, kFormat);
  if (!complete || Get(begun, meta, kFormatKey) != kFormat) {
    throw std::runtime_error("it is the database of another program, or of another version");
  }
  Expect(mdb_txn_commit(transaction.release()), kWhat);  // this keeps the tables open
}

std::optional<Record> Tables::Find(MDB_txn* transaction, std::string_view token) const {
  constexpr std::size_t kLongestKey = 511;  // bytes, mdb_env_get_maxkeysize
  if (token.empty() || token.size() > kLongestKey) return std::nullopt;
  const auto found = Get(transaction, tokens, token);
  if (!found) return std::nullopt;
  return DecodeRecord(*found);
}

void Tables::Visit(MDB_txn* transaction, std::optional<uid_t> user, std::uint64_t after,
                   const Visitor& visit) const {
  if (after == std::numeric_limits<std::uint64_t>::max()) return;
  const std::string prefix = user ? BigEndian(*user) : "";
  VisitEntries(transaction, user ? users : ids, prefix + BigEndian(after + 1),
               [&](std::string_view key, std::string_view value) {
                 if (!key.starts_with(prefix)) return false;
                 const auto token = user ? Get(transaction, ids, key.substr(prefix.size())) : value;
                 const auto record = token ? Find(transaction, *token) : std::nullopt;
                 if (!record) throw std::runtime_error("an id has no record");
                 return visit(*token, *record);
               });
}

void Tables::VisitUsage(MDB_txn* transaction, uid_t first, const UsageVisitor& visit) const {
  VisitEntries(
      transaction, usage, BigEndian(first), [&](std::string_view key, std::string_view value) {
        return visit(FromBigEndian<uid_t>(key), key.substr(sizeof(uid_t)), DecodeTotal(value));
      });
}

UserTotal Tables::TotalOf(MDB_txn* transaction, uid_t user) const {
  UserTotal sum;
  VisitUsage(transaction, user, [&](uid_t each, std::string_view, const UserTotal& total) {
    if (each != user) return false;
    sum.tokens += total.tokens;
    sum.bytes += total.bytes;
    return true;
  });
  return sum;
}

std::uint64_t Tables::CountTokens(MDB_txn* transaction) const {
  return StatOf(transaction, ids).ms_entries;
}

std::uint64_t Tables::UsedPages(MDB_txn* transaction) const {
  constexpr MDB_dbi kFreePages = 0;  // the two tables of LMDB itself
  constexpr MDB_dbi kNames = 1;
  std::uint64_t pages = 2;  // LMDB's meta pages
  for (const MDB_dbi table : {kFreePages, kNames, tokens, ids, users, usage, meta}) {
    const MDB_stat stat = StatOf(transaction, table);
    pages += stat.ms_branch_pages + stat.ms_leaf_pages + stat.ms_overflow_pages;
  }
  return pages;
}

std::uint64_t Tables::LastId(MDB_txn* transaction) const {
  const auto found = Get(transaction, meta, kLastIdKey);
  return found ? FromBigEndian<std::uint64_t>(*found) : 0;
}

void Tables::AddUsage(MDB_txn* transaction, std::string_view token, const Record& record,
                      bool added) const {
  const std::string key = BigEndian(record.header.uid).append(record.service);
  const auto found = Get(transaction, usage, key);
  UserTotal total = found ? DecodeTotal(*found) : UserTotal{};
  const std::uint64_t bytes = Footprint(token, record);
  total.tokens += added ? 1 : std::uint64_t{0} - 1;
  total.bytes += added ? bytes : std::uint64_t{0} - bytes;
  if (total.tokens == 0) return Delete(transaction, usage, key);
  Put(transaction, usage, key, Encode(total));
}

std::uint64_t Tables::Add(MDB_txn* transaction, const std::string& token, RecordHeader header,
                          std::string_view service, std::string_view text) const {
  header.id = LastId(transaction) + 1;
  const std::string id = BigEndian(header.id);
  Put(transaction, tokens, token, EncodeRecord(header, service, text), MDB_NOOVERWRITE);
  Put(transaction, ids, id, token, MDB_APPEND);
  Put(transaction, users, UserKey(header.uid, header.id), {});
  Put(transaction, meta, kLastIdKey, id);
  AddUsage(transaction, token, {header, service, text}, true);
  return header.id;
}

void Tables::Replace(MDB_txn* transaction, const std::string& token, const RecordHeader& header,
                     std::string_view text) const {
  const auto old = Find(transaction, token);
  if (!old) throw std::runtime_error("the record to be replaced is gone");
  const std::string service(old->service);
  AddUsage(transaction, token, *old, false);
  Put(transaction, tokens, token, EncodeRecord(header, service, text));
  AddUsage(transaction, token, {header, service, text}, true);
}

void Tables::Erase(MDB_txn* transaction, const std::string& token) const {
  const auto record = Find(transaction, token);
  if (!record) throw std::runtime_error("the record to be erased is gone");
  const RecordHeader header = record->header;
  AddUsage(transaction, token, *record, false);  // later changes invalidate the record
  Delete(transaction, users, UserKey(header.uid, header.id));
  Delete(transaction, ids, BigEndian(header.id));
  Delete(transaction, tokens, token);
}

// Checks that each record has its entries in the other tables, and that these have no more entries
// than that.
void Tables::Check(MDB_txn* transaction) const {
  const std::uint64_t count = CountTokens(transaction);
  std::map<std::string, UserTotal> totals;
  std::string last_token;
  std::uint64_t seen = 0;
  VisitEntries(transaction, tokens, {}, [&](std::string_view token, std::string_view bytes) {
    const Record record = DecodeRecord(bytes);
    if (++seen > count || token <= last_token || !HasEntries(transaction, token, record)) {
      throw std::runtime_error("its tables are inconsistent");
    }
    UserTotal& total = totals[BigEndian(record.header.uid).append(record.service)];
    ++total.tokens;
    total.bytes += Footprint(token, record);
    last_token = token;
    return true;
  });
  for (const auto& [key, total] : totals) {
    if (Get(transaction, usage, key) == Encode(total)) continue;
    throw std::runtime_error("its totals are wrong");
  }
  if (seen != count || StatOf(transaction, users).ms_entries != count ||
      StatOf(transaction, usage).ms_entries != totals.size()) {
    throw std::runtime_error("its tables have different lengths");
  }
}

bool Tables::HasEntries(MDB_txn* transaction, std::string_view token, const Record& record) const {
  const std::uint64_t id = record.header.id;
  return id <= LastId(transaction) && !record.text.empty() &&
         Get(transaction, ids, BigEndian(id)) == token &&
         Get(transaction, users, UserKey(record.header.uid, id));
}

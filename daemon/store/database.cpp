#include "database.h"

#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace {

constexpr const char* kOpen = "open the store";
constexpr unsigned int kMaxTables = 8;

// Bytes by which the map exceeds a file that is already large.
constexpr std::uint64_t kSlack = 16U << 20;

std::uint64_t FileBytes(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

}  // namespace

void Expect(int result, const char* what) {
  // LMDB could not write its meta page and refuses all further work in this process. The next
  // worker reopens the file.
  if (result == MDB_PANIC) _exit(EX_IOERR);
  if (result != MDB_SUCCESS) {
    throw std::runtime_error(std::string("cannot ") + what + ": " + mdb_strerror(result));
  }
}

bool Found(int result, const char* what) {
  if (result == MDB_NOTFOUND) return false;
  Expect(result, what);
  return true;
}

Cursor OpenCursor(MDB_txn* transaction, MDB_dbi table) {
  MDB_cursor* cursor = nullptr;
  Expect(mdb_cursor_open(transaction, table, &cursor), "search the store");
  return Cursor(cursor);
}

Database::Database(const std::string& path, std::uint64_t map_bytes, Use use) {
  constexpr std::array<unsigned int, 3> kFlags = {MDB_NOLOCK, MDB_NOLOCK | MDB_RDONLY, 0};
  const std::uint64_t size = FileBytes(path);
  if (size == 0 && use != Use::kMake) throw std::runtime_error("the file is empty");
  MDB_env* created = nullptr;
  Expect(mdb_env_create(&created), kOpen);
  environment.reset(created);
  const auto system_page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  const std::uint64_t map = std::max(map_bytes, size + kSlack) / system_page * system_page;
  Expect(mdb_env_set_mapsize(created, map), kOpen);
  Expect(mdb_env_set_maxdbs(created, kMaxTables), kOpen);
  const unsigned int flags = MDB_NOSUBDIR | MDB_NOTLS | kFlags.at(static_cast<std::size_t>(use));
  Expect(mdb_env_open(created, path.c_str(), flags, S_IRUSR | S_IWUSR), kOpen);
  MDB_stat stat{};
  Expect(mdb_env_stat(created, &stat), kOpen);
  page_bytes = stat.ms_psize;
  // Reading the map beyond the end of the file raises SIGBUS.
  if (use != Use::kMake && (LastPage() + 1) * page_bytes > FileBytes(path)) {
    throw std::runtime_error("the file is truncated");
  }
}

Database::~Database() = default;

int Database::File() const {
  int file = -1;
  mdb_env_get_fd(environment.get(), &file);
  return file;
}

MDB_envinfo Database::Info() const {
  MDB_envinfo info{};
  mdb_env_info(environment.get(), &info);
  return info;
}

int Database::Begin(unsigned int flags, Transaction& begun) {
  MDB_txn* transaction = nullptr;
  int result = mdb_txn_begin(environment.get(), nullptr, flags, &transaction);
  if (result == MDB_MAP_RESIZED) {  // by a worker with a larger map
    result = mdb_env_set_mapsize(environment.get(), 0);
    if (result == MDB_SUCCESS) {
      result = mdb_txn_begin(environment.get(), nullptr, flags, &transaction);
    }
  }
  begun.reset(result == MDB_SUCCESS ? transaction : nullptr);
  return result;
}

Transaction Database::BeginWrite() {
  Transaction transaction;
  Expect(Begin(0, transaction), "begin a change");
  return transaction;
}

void Database::Commit(Transaction transaction) {
  // This frees the transaction even if it fails.
  Expect(mdb_txn_commit(transaction.release()), "commit the change");
}

MDB_txn* Database::BeginRead() {
  if (kept && mdb_txn_renew(kept.get()) == MDB_SUCCESS) return kept.get();
  kept.reset();
  int result = Begin(MDB_RDONLY, kept);
  if (result == MDB_READERS_FULL) {
    ClearDeadReaders();
    result = Begin(MDB_RDONLY, kept);
  }
  Expect(result, "read the store");
  return kept.get();
}

void Database::ClearDeadReaders() {
  Expect(mdb_reader_check(environment.get(), nullptr), "look for dead readers");
}

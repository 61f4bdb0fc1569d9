#include "database.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "token_store.h"

namespace {

constexpr const char* kOpen = "open the store";
constexpr unsigned int kMaxTables = 8;

std::uint64_t FileBytes(const std::string& path) {
  struct stat status {};
  Expect(stat(path.c_str(), &status) == 0 ? 0 : errno, kOpen);
  return static_cast<std::uint64_t>(status.st_size);
}

// On a tmpfs, LMDB writes into its map, which is faster: all blocks are allocated and nothing has
// to be synced. On a disk, a write that finds no space must fail instead of raising SIGBUS.
unsigned int WaysToWrite(const std::string& path) {
  struct statfs system {};
  Expect(statfs(path.c_str(), &system) == 0 ? 0 : errno, kOpen);
  return system.f_type == TMPFS_MAGIC ? MDB_WRITEMAP | MDB_NOSYNC : 0;
}

unsigned int FlagsFor(const std::string& path, Database::Use use) {
  return use == Database::Use::kServe ? WaysToWrite(path) : MDB_NOLOCK | MDB_RDONLY;
}

// Reads a line of mdb_reader_list: process, thread, and the commit that it reads, or "-" for none.
int NoteOldest(const char* line, void* oldest) {
  std::istringstream fields(line);
  std::string process;
  std::string thread;
  std::uint64_t commit = 0;
  if (fields >> process >> thread >> commit) {
    auto& number = *static_cast<std::uint64_t*>(oldest);
    number = std::min(number, commit);
  }
  return 0;
}

}  // namespace

void Expect(int result, const char* what) {
  if (result == MDB_SUCCESS) return;
  const std::string failure = std::string("cannot ") + what;
  if (result == MDB_PANIC) _exit(EX_IOERR);  // the next worker opens the file again
  if (result == MDB_MAP_FULL) throw NoRoom(failure + ": " + mdb_strerror(result));
  if (result > 0) throw std::system_error(result, std::generic_category(), failure);
  throw std::runtime_error(failure + ": " + mdb_strerror(result));
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

Database::Database(const std::string& path, Use use) {
  const std::uint64_t bytes = FileBytes(path);
  if (bytes == 0) throw std::runtime_error("the file is empty");
  Open(path, bytes, FlagsFor(path, use));
  MDB_envinfo info{};
  mdb_env_info(environment.get(), &info);
  // Reading the map beyond the end of the file raises SIGBUS.
  if ((info.me_last_pgno + 1) * page_bytes > bytes) {
    throw std::runtime_error("the file is truncated");
  }
}

Database::Database(const std::string& path, std::uint64_t bytes) {
  Open(path, bytes, MDB_NOLOCK | MDB_NOSYNC);
  int file = -1;
  mdb_env_get_fd(environment.get(), &file);
  Expect(posix_fallocate(file, 0, static_cast<off_t>(bytes)), "allocate space for the store");
}

Database::~Database() = default;

void Database::Open(const std::string& path, std::uint64_t bytes, unsigned int flags) {
  MDB_env* created = nullptr;
  Expect(mdb_env_create(&created), kOpen);
  environment.reset(created);
  const auto system_page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  Expect(mdb_env_set_mapsize(created, bytes / system_page * system_page), kOpen);
  Expect(mdb_env_set_maxdbs(created, kMaxTables), kOpen);
  Expect(mdb_env_open(created, path.c_str(), MDB_NOSUBDIR | MDB_NOTLS | flags, S_IRUSR | S_IWUSR),
         kOpen);
  MDB_stat stat{};
  Expect(mdb_env_stat(created, &stat), kOpen);
  page_bytes = stat.ms_psize;
}

std::uint64_t Database::Pages() const {
  MDB_envinfo info{};
  mdb_env_info(environment.get(), &info);
  return info.me_mapsize / page_bytes;
}

Transaction Database::BeginWrite() {
  MDB_txn* transaction = nullptr;
  Expect(mdb_txn_begin(environment.get(), nullptr, 0, &transaction), "begin a change");
  return Transaction(transaction);
}

void Database::Commit(Transaction transaction) {
  // This frees the transaction even if it fails.
  Expect(mdb_txn_commit(transaction.release()), "commit the change");
}

MDB_txn* Database::BeginRead() {
  if (kept && mdb_txn_renew(kept.get()) == MDB_SUCCESS) return kept.get();
  kept.reset();
  MDB_txn* transaction = nullptr;
  int result = mdb_txn_begin(environment.get(), nullptr, MDB_RDONLY, &transaction);
  if (result == MDB_READERS_FULL) {
    ClearDeadReaders();
    result = mdb_txn_begin(environment.get(), nullptr, MDB_RDONLY, &transaction);
  }
  Expect(result, "read the store");
  kept.reset(transaction);
  return transaction;
}

std::uint64_t Database::LastCommit() const {
  MDB_envinfo info{};
  mdb_env_info(environment.get(), &info);
  return info.me_last_txnid;
}

bool Database::ClearDeadReaders() {
  int cleared = 0;
  Expect(mdb_reader_check(environment.get(), &cleared), "look for dead readers");
  return cleared > 0;
}

bool Database::IsReadBefore(std::uint64_t commit) const {
  std::uint64_t oldest = commit;
  mdb_reader_list(environment.get(), NoteOldest, &oldest);
  return oldest < commit;
}

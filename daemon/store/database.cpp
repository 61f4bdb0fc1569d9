#include "database.h"

#include <linux/magic.h>
#include <sys/vfs.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <thread>

#include "token_store.h"

namespace {

constexpr const char* kOpen = "open the store";
constexpr unsigned int kMaxTables = 8;

// On a tmpfs, LMDB writes into its map, which is faster: all blocks are allocated and nothing has
// to be synced. On a disk, a write that finds no space must fail instead of raising SIGBUS.
unsigned int FlagsFor(const std::string& path, Database::Use use) {
  if (use == Database::Use::kMake) return MDB_NOLOCK | MDB_NOSYNC;
  if (use == Database::Use::kRead) return MDB_NOLOCK | MDB_RDONLY;
  struct statfs system {};
  Expect(statfs(path.c_str(), &system) == 0 ? 0 : errno, kOpen);
  return system.f_type == TMPFS_MAGIC ? MDB_WRITEMAP | MDB_NOSYNC : 0;
}

// Reads a line of mdb_reader_list: process, thread, and the commit that it reads, or "-" for none.
int NoteOldest(const char* line, void* oldest) {
  auto& number = *static_cast<std::uint64_t*>(oldest);
  const std::string_view fields(line);
  const std::string last(fields.substr(fields.rfind(' ') + 1));
  if (last[0] >= '0' && last[0] <= '9') number = std::min<std::uint64_t>(number, std::stoull(last));
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

Database::Database(const std::string& path, Use use, std::uint64_t bytes) {
  if (use != Use::kMake) bytes = std::filesystem::file_size(path);
  if (bytes == 0) throw std::runtime_error("the file is empty");
  MDB_env* created = nullptr;
  Expect(mdb_env_create(&created), kOpen);
  environment.reset(created);
  const auto system_page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  Expect(mdb_env_set_mapsize(created, bytes / system_page * system_page), kOpen);
  Expect(mdb_env_set_maxdbs(created, kMaxTables), kOpen);
  Expect(mdb_env_open(created, path.c_str(), MDB_NOSUBDIR | MDB_NOTLS | FlagsFor(path, use), 0600),
         kOpen);
  MDB_stat stat{};
  mdb_env_stat(created, &stat);
  page_bytes = stat.ms_psize;
  MDB_envinfo info{};
  mdb_env_info(created, &info);
  // Reading the map beyond the end of the file raises SIGBUS.
  if ((info.me_last_pgno + 1) * page_bytes > bytes) {
    throw std::runtime_error("the file is truncated");
  }
  if (use == Use::kServe) ForgetDeadReaders();
}

Transaction Database::Begin(unsigned int flags) {
  MDB_txn* transaction = nullptr;
  Expect(mdb_txn_begin(environment.get(), nullptr, flags, &transaction),
         flags == 0 ? "begin a change" : "read the store");
  return Transaction(transaction);
}

void Database::Commit(Transaction transaction) {
  // This frees the transaction even if it fails.
  Expect(mdb_txn_commit(transaction.release()), "commit the change");
}

Reading Database::Read() {
  if (kept) {
    Expect(mdb_txn_renew(kept.get()), "read the store");
  } else {
    kept = Begin(MDB_RDONLY);
  }
  return Reading(kept.get());
}

bool Database::ForgetDeadReaders() {
  int forgotten = 0;
  Expect(mdb_reader_check(environment.get(), &forgotten), "look for dead readers");
  return forgotten > 0;
}

bool Database::AwaitReaders(std::chrono::seconds patience) {
  constexpr std::chrono::milliseconds kPause{2};
  const auto deadline = std::chrono::steady_clock::now() + patience;
  MDB_envinfo info{};
  mdb_env_info(environment.get(), &info);
  for (bool waited = ForgetDeadReaders();; waited = true) {
    std::uint64_t oldest = info.me_last_txnid;
    mdb_reader_list(environment.get(), NoteOldest, &oldest);
    const bool is_current = oldest == info.me_last_txnid;
    if (is_current || std::chrono::steady_clock::now() > deadline) return waited;
    std::this_thread::sleep_for(kPause);
    ForgetDeadReaders();
  }
}

#include "open_store.h"

#include <fcntl.h>
#include <sysexits.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "indexed_store.h"
#include "log.h"
#include "owned_descriptor.h"
#include "start_error.h"
#include "text_store.h"
#include "zelttokenmanager/storage/lru_cache_storage.h"

namespace fs = std::filesystem;
using ZELT::TokenManager::LRUCacheStorage;
using ZELT::TokenManager::OwnedDescriptor;

namespace {

// LMDB keeps the last two states, and opens the one with the greater number. If one of the numbers
// is damaged, that may be the older state, in which a revoked token is still valid.
void ExpectNewestState(const Database& database) {
  constexpr off_t kNumber = 144;  // its place in the page, in the format that LMDB 0.9 accepts
  int file = -1;
  mdb_env_get_fd(database.Get(), &file);
  std::array<std::uint64_t, 2> numbers{};
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const auto place = static_cast<off_t>(i * database.PageBytes()) + kNumber;
    const ssize_t count = pread(file, &numbers[i], sizeof numbers[i], place);
    ExpectDone(count == ssize_t{sizeof numbers[i]}, "cannot read the store");
  }
  if (numbers[0] + 1 == numbers[1] || numbers[1] + 1 == numbers[0]) return;
  throw std::runtime_error("the numbers of its last two states are inconsistent");
}

// A file with a store, which was verified.
struct OldStore {
  explicit OldStore(const std::string& path)
      : database(path, Database::Use::kRead), tables(database) {
    ExpectNewestState(database);
    bytes = tables.Verify(database.Read().get()).bytes;
  }

  Database database;
  Tables tables;
  std::uint64_t bytes;  // of tokens
};

std::optional<OldStore> OpenOldStore(const std::string& path) try {
  if (!fs::exists(path)) return std::nullopt;
  return std::make_optional<OldStore>(path);
} catch (const std::system_error&) {
  throw;
} catch (const std::runtime_error& error) {
  throw StartError(EX_DATAERR, path + " is damaged, or not a store of this daemon: " +
                                   error.what() + ". Move it away to start with an empty store");
}

// One transaction, so that no page is written twice.
void Fill(Database& made, std::optional<OldStore>& old) {
  const Tables tables(made, true);
  if (!old) return;
  Transaction change = made.Begin();
  const Reading reading = old->database.Read();
  old->tables.VisitTokens(reading.get(), 0, [&](const TokenKey& key, const Record& record) {
    tables.Add(change.get(), key, record);
    return true;
  });
  made.Commit(std::move(change));
}

struct Unlinker {
  std::string path;
  ~Unlinker() { unlink(path.c_str()); }
};

// A file that a killed process left is removed first.
void Replace(const std::string& path, std::optional<OldStore>& old, std::uint64_t bytes) {
  const Unlinker made{path + ".new"};
  unlink(made.path.c_str());
  const OwnedDescriptor file(
      open(made.path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  ExpectDone(file.IsOpen(), "cannot create " + made.path);
  WriteInPlace(file.Get());
  {
    Database database(made.path, Database::Use::kMake, bytes);
    Allocate(file.Get(), static_cast<off_t>(bytes), made.path);
    Fill(database, old);
  }
  ExpectDone(fsync(file.Get()) == 0, "cannot sync " + made.path);
  ExpectDone(rename(made.path.c_str(), path.c_str()) == 0, "cannot rename " + made.path);
  SyncDirectory(fs::path(path).parent_path());
}

}  // namespace

void RebuildStore(const StoreOptions& options) {
  std::optional<OldStore> old = OpenOldStore(options.path);
  const std::uint64_t bytes = FileBytes(std::max(options.bytes, old ? old->bytes : 0));
  try {
    Replace(options.path, old, bytes);
  } catch (const std::system_error& error) {
    const int cause = error.code().value();
    if (cause != ENOSPC && cause != EFBIG && cause != EDQUOT) throw;
    const std::string what = "the store needs " + std::to_string(bytes) + " bytes for a new file";
    if (!old || old->tables.IsFormat1()) throw std::system_error(error.code(), what);
    // A copy of a store may have holes, for which there may be no space later.
    const OwnedDescriptor file(open(options.path.c_str(), O_RDWR | O_CLOEXEC));
    Allocate(file.Get(), static_cast<off_t>(fs::file_size(options.path)), options.path);
    Log(LOG_WARNING, "%s: %s%s", what.c_str(), error.code().message().c_str(),
        "; the old one is used");
  }
}

OpenedStore OpenStore(const StoreOptions& options, const StoreLock& lock, WorkerSlot& slot) {
  lock.ExpectSameFiles();
  OpenedStore opened;
  if (options.format == StoreFormat::kIndexed) {
    opened.store = std::make_shared<IndexedStore>(options, slot);
  } else {
    opened.store = std::make_shared<TextStore>(options.path);
    if (options.cache_bytes > 0)
      opened.cache = std::make_shared<LRUCacheStorage>(options.cache_bytes);
  }
  lock.ExpectSameFiles();  // those that were opened
  return opened;
}

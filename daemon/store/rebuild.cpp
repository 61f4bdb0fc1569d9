#include "rebuild.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "database.h"
#include "log.h"
#include "owned_descriptor.h"
#include "start_error.h"
#include "store_file.h"
#include "tables.h"

namespace fs = std::filesystem;
using ZELT::TokenManager::OwnedDescriptor;

namespace {

using Visitor = std::function<void(const TokenKey& key, const Record& record)>;

// Format 1 had the tokens themselves as keys, and no checksums.
namespace format1 {

bool Is(Database& database) {
  const Database::ReadScope scope(database);
  MDB_dbi meta = 0;
  return Found(mdb_dbi_open(scope.Get(), "meta", 0, &meta), "read the store") &&
         Get(scope.Get(), meta, "format") == "Zelt token store 1";
}

std::uint64_t LastId(Database& database) {
  const Database::ReadScope scope(database);
  const auto id = Get(scope.Get(), OpenTable(scope.Get(), "meta"), "last id");
  return id ? FromBigEndian<std::uint64_t>(*id) : 0;
}

void Visit(Database& database, const Visitor& visit) {
  const Database::ReadScope scope(database);
  const MDB_dbi tokens = OpenTable(scope.Get(), "tokens");
  const MDB_dbi ids = OpenTable(scope.Get(), "ids");
  if (CountEntries(scope.Get(), ids) != CountEntries(scope.Get(), tokens)) {
    throw std::runtime_error("its tables have different lengths");
  }
  VisitEntries(scope.Get(), ids, {}, [&](std::string_view id, std::string_view token) {
    const auto found = Get(scope.Get(), tokens, token);
    if (!found) throw std::runtime_error("an id has no record");
    const Record record = DecodeRecord(*found, kHeaderBytesOfFormat1);
    if (BigEndian(record.header.id) != id) throw std::runtime_error("an id has another record");
    visit(KeyOf(token), record);
    return true;
  });
}

}  // namespace format1

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
class OldStore {
 public:
  explicit OldStore(const std::string& path) : database(path, Database::Use::kRead) {
    if (!format1::Is(database)) {
      tables.emplace(database);
      tables->Verify(Database::ReadScope(database).Get());
    }
    ExpectNewestState(database);
    Visit([this](const TokenKey&, const Record& record) {
      bytes += Footprint(record, database.PageBytes());
    });
  }

  bool IsCurrent() const { return tables.has_value(); }

  std::uint64_t LastId() {
    if (!tables) return format1::LastId(database);
    return tables->TotalOfAll(Database::ReadScope(database).Get()).last_id;
  }

  // Visits the records in the order of their ids.
  void Visit(const Visitor& visit) {
    if (!tables) return format1::Visit(database, visit);
    const Database::ReadScope scope(database);
    tables->VisitIds(scope.Get(), 0, [&](std::uint64_t, uid_t, const TokenKey& key) {
      visit(key, tables->Find(scope.Get(), key).value());
      return true;
    });
  }

  std::uint64_t BytesOfTokens() const { return bytes; }

 private:
  Database database;
  std::optional<Tables> tables;  // of the current format
  std::uint64_t bytes = 0;
};

std::unique_ptr<OldStore> OpenOldStore(const std::string& path) {
  if (!fs::exists(path)) return nullptr;
  try {
    return std::make_unique<OldStore>(path);
  } catch (const std::system_error&) {
    throw;
  } catch (const std::runtime_error& error) {
    throw StartError(EX_DATAERR, path + " is damaged, or not a store of this daemon: " +
                                     error.what() + ". Move it away to start with an empty store");
  }
}

// One transaction, so that no page is written twice.
void Fill(Database& made, OldStore* old) {
  Tables::Create(made);
  if (old == nullptr) return;
  const Tables tables(made);
  Transaction change = made.BeginWrite();
  old->Visit(
      [&](const TokenKey& key, const Record& record) { tables.Add(change.get(), key, record); });
  tables.SetLastId(change.get(), old->LastId());
  made.Commit(std::move(change));
}

struct Unlinker {
  std::string path;
  ~Unlinker() { unlink(path.c_str()); }
};

// A file that a killed process left is removed first.
void Replace(const std::string& path, OldStore* old, std::uint64_t bytes) {
  const Unlinker made{path + ".new"};
  unlink(made.path.c_str());
  const OwnedDescriptor file(
      open(made.path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  ExpectDone(file.IsOpen(), "cannot create " + made.path);
  WriteInPlace(file.Get());
  {
    Database database(made.path, bytes);
    Fill(database, old);
  }
  ExpectDone(fsync(file.Get()) == 0, "cannot sync " + made.path);
  ExpectDone(rename(made.path.c_str(), path.c_str()) == 0, "cannot rename " + made.path);
  SyncDirectory(fs::path(path).parent_path());
}

bool IsShortage(const std::error_code& error) {
  return error == std::errc::no_space_on_device || error == std::errc::file_too_large ||
         error.value() == EDQUOT;
}

// A copy of a store may have holes, for which there may be no space later.
void AllocateBlocks(const std::string& path) {
  const OwnedDescriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC));
  ExpectDone(file.IsOpen(), "cannot open " + path);
  errno = posix_fallocate(file.Get(), 0, static_cast<off_t>(fs::file_size(path)));
  ExpectDone(errno == 0, "cannot allocate space for " + path);
}

}  // namespace

void RebuildStore(const StoreOptions& options) {
  const std::unique_ptr<OldStore> old = OpenOldStore(options.path);
  const std::uint64_t bytes = FileBytes(std::max(options.bytes, old ? old->BytesOfTokens() : 0));
  try {
    Replace(options.path, old.get(), bytes);
  } catch (const std::system_error& error) {
    if (!IsShortage(error.code())) throw;
    const std::string what = "the store needs " + std::to_string(bytes) + " bytes for a new file";
    if (!old || !old->IsCurrent()) throw std::system_error(error.code(), what);
    AllocateBlocks(options.path);
    Log(LOG_WARNING, "%s: %s%s", what.c_str(), error.code().message().c_str(),
        "; the old one is used");
  }
}

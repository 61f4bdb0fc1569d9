#include "store_file.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "owned_descriptor.h"
#include "start_error.h"

namespace fs = std::filesystem;
using ZELT::TokenManager::OwnedDescriptor;

namespace {

constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;
constexpr mode_t kPublic = S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH;
constexpr std::chrono::milliseconds kPause{10};
constexpr off_t kLockFileBytes = 64 << 10;  // about a thousand readers, more than there are workers

// Returns the status of the path itself, which may be a symbolic link, or none if it does not
// exist.
std::optional<struct stat> StatusOf(const fs::path& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0) return status;
  ExpectDone(errno == ENOENT, path);
  return std::nullopt;
}

// Throws if others could replace what is in the directory. With the sticky bit they can only add to
// it.
void ExpectSafe(const fs::path& path, bool last) {
  const auto status = StatusOf(path);
  if (!status) return;
  if (status->st_uid != 0 && status->st_uid != geteuid()) {
    throw StartError(EX_NOPERM,
                     path.string() + " belongs to user " + std::to_string(status->st_uid) +
                         "; choose a store below directories of root or the daemon's user");
  }
  const bool sticky = !last && (status->st_mode & S_ISVTX) != 0;
  if (!S_ISLNK(status->st_mode) && (status->st_mode & kOthersWrite) != 0 && !sticky) {
    throw StartError(EX_NOPERM,
                     path.string() + " is writable by users other than its owner; " +
                         "use a separate directory for the store, or remove that permission");
  }
}

void ExpectSafePath(const fs::path& directory) {
  fs::path part;
  for (const fs::path& name : directory) {
    part /= name;
    ExpectSafe(part, part == directory);
  }
}

// Checks both the path as given, with its symbolic links, and the path that it resolves to.
void ExpectSafeDirectory(const fs::path& directory) {
  ExpectSafePath(directory);
  if (fs::exists(directory)) ExpectSafePath(fs::canonical(directory));
}

// Directories have their final modes from the beginning, whatever the umask.
void MakeDirectory(const fs::path& directory, mode_t mode) {
  if (fs::exists(directory)) return;
  MakeDirectory(directory.parent_path(), kPublic);
  const mode_t mask = umask(0);
  const int made = mkdir(directory.c_str(), mode);
  umask(mask);
  ExpectDone(made == 0, "cannot create " + directory.string());
  SyncDirectory(directory.parent_path());
}

fs::path DirectoryOf(const std::string& path) {
  return fs::absolute(path).lexically_normal().parent_path();
}

// JsonFileStorage sets its directory to this mode. A directory of this user that already has the
// mode was created by it. The mode of any other directory would be changed, so it is refused.
void PrepareTextDirectory(const fs::path& directory) {
  constexpr mode_t kMode = S_IWUSR | S_IXUSR;
  const auto status = StatusOf(directory);
  if (!status) return MakeDirectory(directory, kMode);
  if (status->st_uid != geteuid() || (status->st_mode & ALLPERMS) != kMode) {
    throw StartError(EX_CONFIG,
                     directory.string() +
                         " was not created by the text store, which would change its mode; " +
                         "choose a store in a directory that does not exist yet");
  }
}

void ExpectOwnFile(const fs::path& path, const struct stat& status, mode_t forbidden) {
  if (!S_ISREG(status.st_mode)) {
    throw StartError(EX_CONFIG, path.string() + " is not a regular file");
  }
  if (status.st_uid == geteuid() && (status.st_mode & forbidden) == 0) return;
  throw StartError(EX_NOPERM, path.string() +
                                  " belongs to another user or is open to others, who may know " +
                                  "its tokens; move it away, or choose another store");
}

bool TryLock(int file, std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (flock(file, LOCK_EX | LOCK_NB) != 0) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

void PrepareDirectory(const fs::path& directory, const StoreOptions& options) {
  ExpectSafeDirectory(directory);
  if (options.format == StoreFormat::kText) {
    PrepareTextDirectory(directory);
  } else {
    MakeDirectory(directory, directory == options.public_directory ? kPublic : S_IRWXU);
  }
  ExpectSafeDirectory(directory);
}

}  // namespace

void SyncDirectory(const std::string& directory) {
  const OwnedDescriptor file(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ExpectDone(file.IsOpen() && fsync(file.Get()) == 0, "cannot sync " + directory);
}

void ExpectDone(bool done, const std::string& what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

void WriteInPlace(int file) {
  int flags = 0;
  if (ioctl(file, FS_IOC_GETFLAGS, &flags) != 0) return;
  flags |= FS_NOCOW_FL;
  [[maybe_unused]] const int ignored = ioctl(file, FS_IOC_SETFLAGS, &flags);
}

StoreLock::StoreLock(const StoreOptions& options, std::chrono::milliseconds lock_patience)
    : store(options.format == StoreFormat::kText ? "" : options.path), patience(lock_patience) {
  PrepareDirectory(DirectoryOf(options.path), options);
  // Only its owner can enter the text store's directory, so there the file's mode does not matter.
  const auto status = StatusOf(options.path);
  if (status) ExpectOwnFile(options.path, *status, store.empty() ? 0 : S_IRWXG | S_IRWXO);
  // Both stores use record locks on this file, which are independent of this lock.
  Lock(options.path + (store.empty() ? ".lock" : "-lock"), O_CREAT);
  if (store.empty()) return;
  // LMDB writes this file through a mapping, where a full file system raises SIGBUS.
  if (lseek(locked.front().file.Get(), 0, SEEK_END) == 0) WriteInPlace(locked.front().file.Get());
  errno = posix_fallocate(locked.front().file.Get(), 0, kLockFileBytes);
  ExpectDone(errno == 0, "cannot allocate space for " + locked.front().path);
  if (status) Lock(store);  // a daemon of an earlier version locked only this one
}

void StoreLock::LockRebuilt() {
  if (store.empty()) return;
  locked.resize(1);
  Lock(store);
  store_bytes = static_cast<off_t>(fs::file_size(store));
  ExpectSameFiles();
}

void StoreLock::Lock(const std::string& path, int flags) {
  if (const auto status = StatusOf(path)) {
    ExpectOwnFile(path, *status, store.empty() ? 0 : S_IRWXG | S_IRWXO);
  }
  OwnedDescriptor file(
      open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | flags, S_IRUSR | S_IWUSR));
  ExpectDone(file.IsOpen(), "cannot open " + path);
  if (!TryLock(file.Get(), patience)) {
    throw StartError(EX_UNAVAILABLE, "another daemon uses the store " + store);
  }
  locked.push_back({path, std::move(file)});
}

void StoreLock::ExpectSameFiles() const {
  for (const auto& [path, file] : locked) {
    struct stat held {};
    ExpectDone(fstat(file.Get(), &held) == 0, path);
    const auto found = StatusOf(path);
    const bool same = found && found->st_dev == held.st_dev && found->st_ino == held.st_ino;
    if (same && (path != store || held.st_size == store_bytes)) continue;
    throw std::runtime_error(path + " was removed, replaced or truncated; restart the daemon");
  }
}

#include "store_file.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sysexits.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>

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

// Throws if others could replace what is in the directory. With the sticky bit on the way to it
// they can only add something.
void ExpectSafePath(const fs::path& directory) {
  fs::path part;
  for (const fs::path& name : directory) {
    part /= name;
    const auto status = StatusOf(part);
    if (!status) return;
    if (status->st_uid != 0 && status->st_uid != geteuid()) {
      throw StartError(EX_NOPERM,
                       part.string() + " belongs to user " + std::to_string(status->st_uid) +
                           "; choose a store below directories of root or the daemon's user");
    }
    const bool sticky = part != directory && (status->st_mode & S_ISVTX) != 0;
    if (S_ISLNK(status->st_mode) || (status->st_mode & kOthersWrite) == 0 || sticky) continue;
    throw StartError(EX_NOPERM,
                     part.string() + " is writable by users other than its owner; " +
                         "use a separate directory for the store, or remove that permission");
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

void ExpectOwnFile(const fs::path& path, mode_t forbidden) {
  const auto status = StatusOf(path);
  if (!status) return;
  if (!S_ISREG(status->st_mode)) {
    throw StartError(EX_CONFIG, path.string() + " is not a regular file");
  }
  if (status->st_uid == geteuid() && (status->st_mode & forbidden) == 0) return;
  throw StartError(EX_NOPERM, path.string() +
                                  " belongs to another user or is open to others, who may know " +
                                  "its tokens; move it away, or choose another store");
}

void PrepareDirectory(const StoreOptions& options) {
  const fs::path directory = fs::absolute(options.path).lexically_normal().parent_path();
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

void Allocate(int file, off_t bytes, const std::string& path) {
  errno = posix_fallocate(file, 0, bytes);
  ExpectDone(errno == 0, "cannot allocate space for " + path);
}

StoreLock::StoreLock(const StoreOptions& options, std::chrono::milliseconds lock_patience)
    : store(options.path),
      is_indexed(options.format == StoreFormat::kIndexed),
      // Only its owner can enter the text store's directory, so there the mode does not matter.
      forbidden(is_indexed ? S_IRWXG | S_IRWXO : 0),
      patience(lock_patience) {
  PrepareDirectory(options);
  ExpectOwnFile(options.path, forbidden);
  // Both stores use record locks on this file, which are independent of this lock.
  Lock(store + (is_indexed ? "-lock" : ".lock"), is_indexed ? kLockFileBytes : 0);
  // A daemon of an earlier version locked only this one.
  if (is_indexed && fs::exists(store)) Lock(store);
}

void StoreLock::LockRebuilt() {
  if (!is_indexed) return;
  locked.resize(1);
  Lock(store);
  ExpectSameFiles();
}

void StoreLock::Lock(const std::string& path, off_t bytes) {
  ExpectOwnFile(path, forbidden);
  OwnedDescriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                            S_IRUSR | S_IWUSR));
  ExpectDone(file.IsOpen(), "cannot open " + path);
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw StartError(EX_UNAVAILABLE, "another daemon uses the store " + store);
    }
    std::this_thread::sleep_for(kPause);
  }
  // LMDB writes its lock file through a mapping, where a full file system raises SIGBUS.
  if (bytes > 0 && fs::is_empty(path)) WriteInPlace(file.Get());
  if (bytes > 0) Allocate(file.Get(), bytes, path);
  struct stat status {};
  ExpectDone(fstat(file.Get(), &status) == 0, path);
  locked.push_back({path, std::move(file), status});
}

void StoreLock::ExpectSameFiles() const {
  for (const auto& [path, file, status] : locked) {
    const auto found = StatusOf(path);
    if (found && found->st_dev == status.st_dev && found->st_ino == status.st_ino &&
        found->st_size == status.st_size) {
      continue;
    }
    throw std::runtime_error(path + " was removed, replaced or truncated; restart the daemon");
  }
}

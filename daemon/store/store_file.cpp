#include "store_file.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <thread>

#include "database.h"
#include "owned_descriptor.h"
#include "tables.h"

namespace fs = std::filesystem;
using ZELT::TokenManager::OwnedDescriptor;

namespace {

constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;
constexpr std::chrono::milliseconds kPause{10};

[[noreturn]] void ThrowFailure(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

void Expect(bool done, const std::string& what) {
  if (!done) ThrowFailure(what);
}

// Returns the status of the path itself, which may be a symbolic link, or none if it does not
// exist.
std::optional<struct stat> StatusOf(const fs::path& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0) return status;
  if (errno != ENOENT) ThrowFailure(path);
  return std::nullopt;
}

void Sync(const fs::path& directory) {
  const OwnedDescriptor file(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  Expect(file.IsOpen() && fsync(file.Get()) == 0, "cannot sync " + directory.string());
}

// Throws if others could replace what is in the directory. With the sticky bit they can only add to
// it.
void ExpectSafe(const fs::path& path, bool last) {
  const auto status = StatusOf(path);
  if (!status) return;
  if (status->st_uid != 0 && status->st_uid != geteuid()) {
    throw std::runtime_error(path.string() + " belongs to user " + std::to_string(status->st_uid) +
                             "; choose a store below directories of root or the daemon's user");
  }
  const bool sticky = !last && (status->st_mode & S_ISVTX) != 0;
  if (!S_ISLNK(status->st_mode) && (status->st_mode & kOthersWrite) != 0 && !sticky) {
    throw std::runtime_error(path.string() + " is writable by users other than its owner; " +
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

void MakeDirectory(const fs::path& directory, mode_t mode) {
  if (fs::exists(directory)) return;
  MakeDirectory(directory.parent_path(), S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH);
  Expect(mkdir(directory.c_str(), S_IRWXU) == 0, "cannot create " + directory.string());
  Expect(chmod(directory.c_str(), mode) == 0, directory);  // regardless of the umask
  Sync(directory.parent_path());
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
    throw std::runtime_error(directory.string() +
                             " was not created by the text store, which would change its mode; " +
                             "choose a store in a directory that does not exist yet");
  }
}

// Without this flag, btrfs writes each page to a new place, which a full file system does not have.
// Other file systems do not support the flag.
void WriteInPlace(int file) {
  int flags = 0;
  if (ioctl(file, FS_IOC_GETFLAGS, &flags) != 0) return;
  flags |= FS_NOCOW_FL;
  [[maybe_unused]] const int ignored = ioctl(file, FS_IOC_SETFLAGS, &flags);
}

// The file gets its name only when it is complete, because LMDB takes an empty file for a new
// store.
void MakeStore(const fs::path& path, const fs::path& directory, const StoreOptions& options) {
  const OwnedDescriptor file(
      open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR));
  Expect(file.IsOpen(), "cannot create a file in " + directory.string());
  const std::string name = "/proc/self/fd/" + std::to_string(file.Get());
  WriteInPlace(file.Get());
  {
    Database database(name, MapBytes(options), Database::Use::kMake);
    const Tables tables(database, true);
  }
  Expect(fsync(file.Get()) == 0, "cannot sync " + path.string());
  const int linked = linkat(AT_FDCWD, name.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW);
  Expect(linked == 0 || errno == EEXIST, "cannot create " + path.string());
  Sync(directory);
}

void ExpectOwnFile(const fs::path& path, const struct stat& status, mode_t forbidden) {
  if (!S_ISREG(status.st_mode)) throw std::runtime_error(path.string() + " is not a regular file");
  if (status.st_uid == geteuid() && (status.st_mode & forbidden) == 0) return;
  throw std::runtime_error(path.string() +
                           " belongs to another user or is open to others, who may know " +
                           "its tokens; move it away, or choose another store");
}

// LMDB writes its lock file through a mapping, where a full file system raises SIGBUS. So all its
// blocks are allocated beforehand.
void PrepareLockFile(const std::string& path) {
  constexpr off_t kBytes = 64 << 10;  // about a thousand readers, more than there are workers
  if (const auto status = StatusOf(path)) ExpectOwnFile(path, *status, S_IRWXG | S_IRWXO);
  const OwnedDescriptor file(
      open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
  Expect(file.IsOpen(), "cannot open " + path);
  if (lseek(file.Get(), 0, SEEK_END) == 0) WriteInPlace(file.Get());
  errno = posix_fallocate(file.Get(), 0, kBytes);
  Expect(errno == 0, "cannot allocate space for " + path);
}

bool Lock(int file, std::chrono::milliseconds patience) {
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
    const bool is_public = directory == options.public_directory;
    MakeDirectory(directory, is_public ? S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH : S_IRWXU);
  }
  ExpectSafeDirectory(directory);
}

}  // namespace

StoreLock::StoreLock(const StoreOptions& options, std::chrono::milliseconds patience) {
  const fs::path directory = DirectoryOf(options.path);
  const bool text = options.format == StoreFormat::kText;
  PrepareDirectory(directory, options);
  // Only its owner can enter the text store's directory, so there the file's mode does not matter.
  const auto status = StatusOf(options.path);
  if (status) ExpectOwnFile(options.path, *status, text ? 0 : S_IRWXG | S_IRWXO);

  // JsonFileStorage uses a record lock on the same file, which is independent of this lock.
  path = text ? options.path + ".lock" : options.path;
  if (!text && !status) MakeStore(path, directory, options);
  const int create = text ? O_CREAT : 0;
  file = OwnedDescriptor(
      open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | create, S_IRUSR | S_IWUSR));
  Expect(file.IsOpen(), "cannot open " + path);
  if (!Lock(file.Get(), patience))
    throw std::runtime_error("another daemon uses the store " + options.path);
  ExpectSameFile();
  if (!text) PrepareLockFile(path + "-lock");
}

void StoreLock::ExpectSameFile() const {
  struct stat held {};
  Expect(fstat(file.Get(), &held) == 0, path);
  const auto found = StatusOf(path);
  if (found && found->st_dev == held.st_dev && found->st_ino == held.st_ino) return;
  throw std::runtime_error(path + " was removed or replaced; restart the daemon");
}

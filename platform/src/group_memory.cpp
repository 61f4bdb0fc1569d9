#include "group_memory.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>

namespace {

constexpr std::chrono::seconds kLongest{1};
constexpr std::size_t kMaxUsers = 64;    // more than ask in a second, on most machines
constexpr std::size_t kMaxNames = 1000;  // of one user; longer lists are not kept

}  // namespace

GroupNames GroupMemory::Find(const std::string& user) {
  timespec tick{};
  clock_gettime(CLOCK_REALTIME_COARSE, &tick);
  const Versions current = CurrentVersions();
  if (current != versions) entries.clear();
  versions = current;
  // A file that changes twice within a tick of the kernel's clock keeps its time of change.
  is_certain = std::all_of(current.begin(), current.end(), [&](const FileVersion& version) {
    return std::pair(version[3], version[4]) <
           std::pair<std::int64_t, std::int64_t>(tick.tv_sec, tick.tv_nsec);
  });
  now = Clock::now();
  const auto found = entries.find(user);
  return found != entries.end() && now - found->second.read < kLongest ? found->second.names
                                                                       : nullptr;
}

void GroupMemory::Add(const std::string& user, const GroupNames& names) {
  if (!is_certain || names->size() > kMaxNames) return;
  if (entries.size() >= kMaxUsers) entries.clear();
  entries.insert_or_assign(user, Entry{names, now});
}

GroupMemory::FileVersion GroupMemory::VersionOf(const char* path) {
  struct stat status {};
  if (stat(path, &status) != 0) return {};
  return {static_cast<std::int64_t>(status.st_dev), static_cast<std::int64_t>(status.st_ino),
          status.st_size, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

GroupMemory::Versions GroupMemory::CurrentVersions() {
  return {VersionOf("/etc/passwd"), VersionOf("/etc/group"), VersionOf("/etc/nsswitch.conf")};
}

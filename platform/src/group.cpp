#include "zeltsystem/group.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

#include "group_memory.h"
#include "lookup_buffer.h"

struct QLIBCSzList {
  GroupNames names;
  std::size_t next = 0;
};

namespace {

constexpr int kAllGroups = 1;
constexpr int kMaxGroups = 65536;  // NGROUPS_MAX of the kernel

// The C library treats a group file that it cannot read as an empty one.
bool IsGroupFileReadable() {
  const int fd = open("/etc/group", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char byte = 0;
  const bool is_readable = read(fd, &byte, 1) >= 0;
  close(fd);
  return is_readable;
}

// getgrgid_r(3) lists several other errors that mean "no such group".
bool IsFailure(int error) {
  return error == EIO || error == EMFILE || error == ENFILE || error == ENOMEM;
}

bool PrimaryGroup(const char* user_name, gid_t& group) {
  passwd entry{};
  passwd* found = nullptr;
  LookupBuffer buffer;
  int error = 0;
  do {
    error = getpwnam_r(user_name, &entry, buffer.Data(), buffer.Size(), &found);
  } while (error == ERANGE && buffer.Grow());
  if (found == nullptr) return false;
  group = found->pw_gid;
  return true;
}

bool GroupIds(const char* user_name, std::vector<gid_t>& ids) {
  gid_t primary = 0;
  if (!IsGroupFileReadable() || !PrimaryGroup(user_name, primary)) return false;
  int count = 64;
  do {
    ids.resize(static_cast<std::size_t>(count));
    errno = 0;  // getgrouplist(3) does not report that a file could not be opened
    if (getgrouplist(user_name, primary, ids.data(), &count) >= 0) {
      ids.resize(static_cast<std::size_t>(count));
      return !IsFailure(errno);
    }
  } while (static_cast<std::size_t>(count) > ids.size() && count <= kMaxGroups);
  return false;
}

// Adds the name of a group. Skips a group without a name. Returns false when the lookup failed.
bool AddName(gid_t id, std::vector<std::string>& names) {
  group entry{};
  group* found = nullptr;
  LookupBuffer buffer;
  int error = 0;
  do {
    error = getgrgid_r(id, &entry, buffer.Data(), buffer.Size(), &found);
  } while (error == ERANGE && buffer.Grow());
  if (found != nullptr) names.emplace_back(found->gr_name);
  return error != ERANGE && !IsFailure(error);
}

// Returns null when the lookup fails.
GroupNames LookUp(const char* user_name) {
  std::vector<gid_t> ids;
  if (!GroupIds(user_name, ids)) return nullptr;
  std::vector<std::string> names;
  for (const gid_t id : ids) {
    if (!AddName(id, names)) return nullptr;
  }
  return std::make_shared<const std::vector<std::string>>(std::move(names));
}

// Looks up without the memory while another thread uses it, or used it when this process was
// forked.
GroupNames Groups(const char* user_name) {
  static auto& memory = *new GroupMemory;  // never destroyed: handlers of atexit(3) use it
  static std::mutex mutex;
  const std::unique_lock<std::mutex> lock(mutex, std::try_to_lock);
  if (!lock) return LookUp(user_name);
  GroupNames names = memory.Find(user_name);
  if (names) return names;
  names = LookUp(user_name);
  if (names) memory.Add(user_name, names);
  return names;
}

}  // namespace

QLIBCSzList* QLIBGroupInfoListGet(const char* user_name, int scope) {
  GroupNames names = scope == kAllGroups ? Groups(user_name) : nullptr;
  return names ? new QLIBCSzList{.names = std::move(names)} : nullptr;
}

const char* QLIBCSzListShift(QLIBCSzList* list) {
  return list->next < list->names->size() ? (*list->names)[list->next++].c_str() : nullptr;
}

void QLIBCSzListFree(QLIBCSzList* list) { delete list; }

#include "zeltsystem/group.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "lookup_buffer.h"

struct QLIBCSzList {
  std::deque<std::string> names;
  std::string shifted;
};

namespace {

constexpr int kAllGroups = 1;
constexpr int kMaxGroups = 65536;  // NGROUPS_MAX of the kernel

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
  if (!PrimaryGroup(user_name, primary)) return false;
  int count = 64;
  do {
    ids.resize(static_cast<std::size_t>(count));
    if (getgrouplist(user_name, primary, ids.data(), &count) >= 0) {
      ids.resize(static_cast<std::size_t>(count));
      return true;
    }
  } while (static_cast<std::size_t>(count) > ids.size() && count <= kMaxGroups);
  return false;
}

// Adds the name of a group. Skips a group without a name. Returns false when the lookup failed.
bool AddName(gid_t id, std::deque<std::string>& names) {
  group entry{};
  group* found = nullptr;
  LookupBuffer buffer;
  int error = 0;
  do {
    error = getgrgid_r(id, &entry, buffer.Data(), buffer.Size(), &found);
  } while (error == ERANGE && buffer.Grow());
  if (found != nullptr) names.emplace_back(found->gr_name);
  // getgrgid_r(3) lists several errors that mean "no such group".
  return error != ERANGE && error != EIO && error != EMFILE && error != ENFILE && error != ENOMEM;
}

}  // namespace

QLIBCSzList* QLIBGroupInfoListGet(const char* user_name, int scope) {
  std::vector<gid_t> ids;
  if (scope != kAllGroups || !GroupIds(user_name, ids)) return nullptr;
  auto list = std::make_unique<QLIBCSzList>();
  for (const gid_t id : ids) {
    if (!AddName(id, list->names)) return nullptr;
  }
  return list.release();
}

const char* QLIBCSzListShift(QLIBCSzList* list) {
  if (list->names.empty()) return nullptr;
  list->shifted = std::move(list->names.front());
  list->names.pop_front();
  return list->shifted.c_str();
}

void QLIBCSzListFree(QLIBCSzList* list) { delete list; }

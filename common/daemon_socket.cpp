#include "daemon_socket.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>

namespace ZELT::TokenManager {
namespace {

constexpr std::uint64_t kAllUsers = 4294967295;  // ids in the initial user namespace

bool IsPackagedUser(uid_t user) {
  std::array<char, 4096> buffer{};  // far longer than the entry of a system user
  passwd entry{};
  passwd* found = nullptr;
  getpwnam_r(kDaemonUser, &entry, buffer.data(), buffer.size(), &found);
  return found != nullptr && found->pw_uid == user;
}

bool AreAllUsersMapped() {
  std::ifstream map("/proc/self/uid_map");
  std::uint64_t first = 0;
  std::uint64_t first_outside = 0;
  std::uint64_t count = 0;
  return map >> first >> first_outside >> count && count == kAllUsers;
}

}  // namespace

bool IsUnmapped(uid_t user) {
  static const uid_t overflow = [] {
    uid_t id = 65534;
    std::ifstream("/proc/sys/kernel/overflowuid") >> id;
    return id;
  }();
  return user == overflow && !AreAllUsersMapped();
}

bool IsDaemonUser(uid_t user) {
  return user == 0 || (user == geteuid() && !IsUnmapped(user)) ||
         IsPackagedUser(user);  // the lookup comes last because it costs most
}

std::optional<uid_t> ForeignOwner(const char* path) {
  struct stat status {};
  if (lstat(path, &status) != 0 || IsDaemonUser(status.st_uid)) return std::nullopt;
  return status.st_uid;
}

}  // namespace ZELT::TokenManager

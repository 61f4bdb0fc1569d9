#include "daemon_socket.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ZELT::TokenManager {
namespace {

bool IsPackagedUser(uid_t user) {
  std::array<char, 4096> buffer{};  // far longer than the entry of a system user
  passwd entry{};
  passwd* found = nullptr;
  getpwnam_r(kDaemonUser, &entry, buffer.data(), buffer.size(), &found);
  return found != nullptr && found->pw_uid == user;
}

}  // namespace

bool IsDaemonUser(uid_t user) {
  return user == 0 || user == geteuid() ||
         IsPackagedUser(user);  // the lookup comes last because it costs most
}

std::optional<uid_t> ForeignOwner(const char* path) {
  struct stat status {};
  if (lstat(path, &status) != 0 || IsDaemonUser(status.st_uid)) return std::nullopt;
  return status.st_uid;
}

}  // namespace ZELT::TokenManager

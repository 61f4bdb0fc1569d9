#include "readiness.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

bool SendTo(std::string_view path, std::string_view text) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) return false;
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, path.size());
  // In a name a leading "@" stands for the NUL byte of an abstract address, unix(7).
  if (path.front() == '@') address.sun_path[0] = '\0';
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());

  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const ssize_t sent = sendto(fd, text.data(), text.size(), MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&address), length);
  close(fd);
  return sent == static_cast<ssize_t>(text.size());
}

}  // namespace

void NotifyReady() {
  const char* path = std::getenv("NOTIFY_SOCKET");
  if (path == nullptr || *path == '\0') return;
  if (!SendTo(path, "READY=1")) syslog(LOG_WARNING, "cannot notify %s of readiness", path);
}

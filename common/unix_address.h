// The address of a local socket, unix(7).
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <string_view>

namespace ZELT::TokenManager {

/// The address of a socket file or, for a name that begins with "@", of an abstract socket. `Bind`
/// and `Connect` are the system calls, and fail with EINVAL if the name is empty or too long.
class UnixAddress {
 public:
  explicit UnixAddress(std::string_view name) {
    address.sun_family = AF_UNIX;
    if (name.empty() || name.size() >= sizeof address.sun_path) return;
    name.copy(address.sun_path, name.size());
    if (name.front() == '@') address.sun_path[0] = '\0';
    size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  }

  int Bind(int fd) const { return bind(fd, Pointer(), size); }
  int Connect(int fd) const { return connect(fd, Pointer(), size); }

 private:
  const sockaddr* Pointer() const { return reinterpret_cast<const sockaddr*>(&address); }

  sockaddr_un address{};
  socklen_t size = 0;
};

}  // namespace ZELT::TokenManager

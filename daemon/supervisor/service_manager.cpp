#include "service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "log.h"

namespace {

// A service manager that is stuck must not hold up the supervisor.
constexpr timeval kLongestWait{.tv_sec = 1, .tv_usec = 0};

std::string_view Environment(const char* variable) {
  const char* value = std::getenv(variable);
  return value == nullptr ? "" : value;
}

std::uint64_t NumberFrom(const char* variable) {
  const std::string_view digits = Environment(variable);
  std::uint64_t number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number;
}

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
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kLongestWait, sizeof kLongestWait);
  const ssize_t sent = sendto(fd, text.data(), text.size(), MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&address), length);
  close(fd);
  return sent == static_cast<ssize_t>(text.size());
}

}  // namespace

void NotifyServiceManager(const char* state) {
  const std::string_view path = Environment("NOTIFY_SOCKET");
  if (!path.empty() && !SendTo(path, state)) {
    Log(LOG_WARNING, "cannot send %s to %s", state, path.data());
  }
}

std::optional<std::chrono::microseconds> WatchdogInterval() {
  const std::uint64_t interval = NumberFrom("WATCHDOG_USEC");
  const bool is_ours =
      Environment("WATCHDOG_PID").empty() || NumberFrom("WATCHDOG_PID") == std::uint64_t(getpid());
  if (interval == 0 || !is_ours) return std::nullopt;
  return std::chrono::microseconds(interval / 2);
}

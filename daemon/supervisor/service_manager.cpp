#include "service_manager.h"

#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <string_view>

#include "environment.h"
#include "log.h"
#include "owned_descriptor.h"
#include "unix_address.h"

using ZELT::TokenManager::OwnedDescriptor;
using ZELT::TokenManager::UnixAddress;

namespace {

// A service manager that is stuck must not hold up the supervisor.
constexpr timeval kLongestWait{.tv_sec = 1, .tv_usec = 0};

bool SendTo(std::string_view name, std::string_view text) {
  const OwnedDescriptor fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &kLongestWait, sizeof kLongestWait);
  return UnixAddress(name).Connect(fd.Get()) == 0 &&
         send(fd.Get(), text.data(), text.size(), MSG_NOSIGNAL) ==
             static_cast<ssize_t>(text.size());
}

}  // namespace

void NotifyServiceManager(const char* state) {
  const std::string_view path = Environment("NOTIFY_SOCKET");
  if (!path.empty() && !SendTo(path, state)) {
    Log(LOG_WARNING, "cannot send %s to %s", state, path.data());
  }
}

std::optional<std::chrono::microseconds> WatchdogInterval() {
  const std::int64_t interval = NumberFromEnvironment("WATCHDOG_USEC");
  const bool is_ours =
      Environment("WATCHDOG_PID").empty() || NumberFromEnvironment("WATCHDOG_PID") == getpid();
  if (interval <= 0 || !is_ours) return std::nullopt;
  return std::chrono::microseconds(interval / 2);
}

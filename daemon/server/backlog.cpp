#include "backlog.h"

#include <sys/socket.h>
#include <syslog.h>

#include <cstring>
#include <utility>

#include "log.h"

namespace {

// In seconds. Longer than any connection lasts, so what a worker lacks by then it does not get.
constexpr int kMaxPauses = 10;

}  // namespace

// The supervisor shuts the sockets down before it stops the workers: EINVAL.
ClientSocket Backlog::Accept() {
  for (std::size_t i = 0; i < sources.size(); ++i) {
    Source& source = sources[next++ % sources.size()];
    if (!source.is_pending) continue;
    const int fd = accept4(source.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) return pauses = 0, ClientSocket(fd, source.refuses_descriptors);
    source.is_pending = false;
    if (errno != EAGAIN && errno != EINVAL) Pause(errno);
  }
  return {};
}

void Backlog::Listen() {
  StopListening();
  is_paused = false;
  for (Source& each : sources) {
    if (events.Control(EPOLL_CTL_ADD, each.fd, EPOLLIN | EPOLLEXCLUSIVE, &each)) continue;
    return Pause(errno);
  }
}

// While accepting is paused, the sockets are not waited for: an exclusive wake would be lost here.
void Backlog::Pause(int error) {
  StopListening();
  if (std::exchange(is_paused, true)) return;
  if (++pauses > kMaxPauses) throw std::system_error(error, std::generic_category(), "accept4");
  if (pauses == 1) Log(LOG_WARNING, "cannot accept connections for now: %s", std::strerror(error));
}

void Backlog::StopListening() {
  for (const Source& each : sources) events.Control(EPOLL_CTL_DEL, each.fd);
  SetPending(false);
}

#include "backlog.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <cstring>

#include "log.h"

namespace {

constexpr std::chrono::milliseconds kPause{100};

// In pauses. Longer than any connection lasts, so what a worker lacks by then it does not get.
constexpr int kMaxFailures = 100;

// The log gets one line per interval at most, because other users can cause pauses.
constexpr std::chrono::seconds kLogInterval{60};

}  // namespace

Backlog::Backlog(Poll& poll, const std::vector<Listener>& listeners)
    : events(poll), sources(listeners.size()) {
  for (std::size_t i = 0; i < sources.size(); ++i) {
    const int fd = listeners[i].fd;
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    sources[i].listener = listeners[i];
    sources[i].refuses_descriptors = RefusesDescriptors(fd);
  }
  resume = Clock::now();
  Resume(resume);
}

ClientSocket Backlog::Accept(PassedDescriptors& descriptors) {
  for (std::size_t i = 0; i < sources.size(); ++i) {
    Source& source = sources[next++ % sources.size()];
    if (!source.pending) continue;
    ClientSocket accepted = AcceptFrom(source, descriptors);
    if (accepted.IsOpen()) return accepted;
  }
  return {};
}

ClientSocket Backlog::AcceptFrom(Source& source, PassedDescriptors& descriptors) {
  int fd = -1;
  do {
    fd = accept4(source.listener.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  } while (fd < 0 && (errno == EINTR || errno == ECONNABORTED));
  if (fd >= 0) {
    failures = 0;
    return {fd, source.refuses_descriptors ? nullptr : &descriptors};
  }
  source.pending = false;
  if (errno != EAGAIN) Pause(errno);
  return {};
}

bool Backlog::Pending() const {
  return std::any_of(sources.begin(), sources.end(), [](const Source& s) { return s.pending; });
}

void Backlog::LookAgain() noexcept {
  if (resume != Clock::time_point()) return;
  for (Source& each : sources) each.pending = !draining || !each.listener.inherited;
}

void Backlog::Pause(int error) {
  const auto now = Clock::now();
  if (draining || now < resume) return;
  if (++failures > kMaxFailures) throw std::system_error(error, std::generic_category(), "accept4");
  StopWaiting();
  resume = now + kPause;
  if (now < next_log) return;
  next_log = now + kLogInterval;
  Log(LOG_WARNING, "cannot accept connections for now: %s", std::strerror(error));
}

// While accepting is paused, the sockets are not waited for: an exclusive wake would be lost here.
void Backlog::StopWaiting() {
  for (Source& each : sources) {
    events.Control(EPOLL_CTL_DEL, each.listener.fd, 0, nullptr);
    each.pending = false;
  }
}

Backlog::Clock::time_point Backlog::Resume(Clock::time_point now) {
  if (resume == Clock::time_point()) return Clock::time_point::max();
  if (now < resume) return resume;
  for (Source& each : sources) {
    if (events.Control(EPOLL_CTL_ADD, each.listener.fd, EPOLLIN | EPOLLEXCLUSIVE, &each)) continue;
    Pause(errno);
    return resume;
  }
  resume = {};
  LookAgain();
  return Clock::time_point::max();
}

void Backlog::BeginDraining() {
  StopWaiting();
  draining = true;
  resume = {};
  LookAgain();
}

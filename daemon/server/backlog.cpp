#include "backlog.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "log.h"

namespace {

// Short, so that service resumes within a second.
constexpr timeval kPause{.tv_sec = 0, .tv_usec = 100000};

// The log gets one line per interval at most, because other users can cause pauses.
constexpr std::chrono::seconds kLogInterval{60};

}  // namespace

Backlog::Backlog(const EventBase& base, const std::vector<Listener>& listeners)
    : sources(listeners.size()), next_log(std::chrono::steady_clock::now()) {
  const auto note = [](evutil_socket_t, short, void* source) {
    static_cast<Source*>(source)->pending = true;
  };
  for (std::size_t i = 0; i < sources.size(); ++i) {
    sources[i].listener = listeners[i];
    const int fd = listeners[i].fd;
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    sources[i].acceptable = MakeEvent(base, fd, EV_READ | EV_PERSIST, note, &sources[i]);
    event_add(sources[i].acceptable.get(), nullptr);
  }
  const auto go_on = [](evutil_socket_t, short, void* self) {
    for (Source& each : static_cast<Backlog*>(self)->sources)
      event_add(each.acceptable.get(), nullptr);
  };
  resume = MakeEvent(base, -1, 0, go_on, this);
}

int Backlog::Accept() {
  for (Source& each : sources) {
    if (!each.pending) continue;
    const int fd = AcceptFrom(each);
    if (fd >= 0) return fd;
  }
  return -1;
}

int Backlog::AcceptFrom(Source& source) {
  for (;;) {
    const int fd = accept4(source.listener.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) return fd;
    if (errno == EINTR || errno == ECONNABORTED) continue;
    source.pending = false;
    source.was_empty = source.was_empty || errno == EAGAIN;
    if (errno != EAGAIN) Pause(errno);
    return -1;
  }
}

bool Backlog::WasEmpty() const {
  return std::all_of(sources.begin(), sources.end(),
                     [](const Source& each) { return each.was_empty; });
}

void Backlog::Pause(int error) {
  if (draining) return;
  for (Source& each : sources) {
    each.pending = false;
    event_del(each.acceptable.get());
  }
  event_add(resume.get(), &kPause);
  const auto now = std::chrono::steady_clock::now();
  if (now < next_log) return;
  next_log = now + kLogInterval;
  Log(LOG_WARNING, "cannot accept connections for now: %s", std::strerror(error));
}

void Backlog::BeginDraining() {
  draining = true;
  event_del(resume.get());
  for (Source& each : sources) {
    event_del(each.acceptable.get());
    each.pending = !each.listener.inherited;
  }
}

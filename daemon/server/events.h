// Owning pointers to libevent's objects.
#pragma once

#include <event2/event.h>

#include <memory>
#include <new>

struct EventDeleter {
  void operator()(event* pending) const { event_free(pending); }
  void operator()(event_base* events) const { event_base_free(events); }
};
using Event = std::unique_ptr<event, EventDeleter>;
using EventBase = std::unique_ptr<event_base, EventDeleter>;

/// `callback` must not throw, because libevent is written in C.
inline Event MakeEvent(const EventBase& base, evutil_socket_t fd, short what,
                       event_callback_fn callback, void* argument) {
  Event made(event_new(base.get(), fd, what, callback, argument));
  if (!made) throw std::bad_alloc();
  return made;
}

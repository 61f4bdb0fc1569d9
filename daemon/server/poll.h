// Waiting for descriptors (epoll(7)).
#pragma once

#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>

#include "owned_descriptor.h"

/// Something that waits for a descriptor.
class Awaiting {
 public:
  virtual void BecomeReady() noexcept = 0;

 protected:
  ~Awaiting() = default;
};

/// The descriptors that a worker waits for. Processes: create the object after fork(2).
class Poll {
 public:
  Poll() : set(epoll_create1(EPOLL_CLOEXEC)) {
    if (!set.IsOpen()) throw std::system_error(errno, std::generic_category(), "epoll_create1");
  }

  /// Applies an EPOLL_CTL_ operation (epoll_ctl(2)). Returns false and sets `errno` if it fails.
  bool Control(int operation, int fd, std::uint32_t events = 0, Awaiting* who = nullptr) noexcept {
    epoll_event wanted{.events = events, .data = {.ptr = who}};
    return epoll_ctl(set.Get(), operation, fd, &wanted) == 0;
  }

  /// Tells those whose descriptors are ready. Throws `std::system_error` if it cannot wait.
  void Wait(std::chrono::milliseconds timeout) {
    std::array<epoll_event, 128> ready;  // NOLINT(*-member-init): epoll_wait(2) writes it
    const int count =
        epoll_wait(set.Get(), ready.data(), ready.size(), static_cast<int>(timeout.count()));
    if (count < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "epoll_wait");
    }
    for (int i = 0; i < count; ++i) {
      static_cast<Awaiting*>(ready[static_cast<std::size_t>(i)].data.ptr)->BecomeReady();
    }
  }

 private:
  const ZELT::TokenManager::OwnedDescriptor set;
};

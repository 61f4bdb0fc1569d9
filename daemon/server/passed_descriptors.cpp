#include "passed_descriptors.h"

#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <semaphore>
#include <system_error>
#include <thread>

namespace {

// Connections that are closed together: each is one descriptor less for others until then.
constexpr std::size_t kSuspectsAtOnce = 32;

// Linux reports with MSG_CTRUNC what does not fit, and here nothing does. Descriptors in what is
// only looked at stay in the socket.
ssize_t Peek(int fd, char* bytes, std::size_t size) {
  iovec part{.iov_base = bytes, .iov_len = size};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  const ssize_t count = recvmsg(fd, &message, MSG_PEEK | MSG_DONTWAIT);
  if (count < 0 || (message.msg_flags & MSG_CTRUNC) == 0) return count;
  errno = EPERM;
  return -1;
}

bool HoldsUnread(int fd) {
  int unread = 0;
  shutdown(fd, SHUT_RD);  // nothing can be added any more
  return ioctl(fd, FIONREAD, &unread) != 0 || unread != 0;
}

}  // namespace

bool RefuseDescriptors(int listener) {
  constexpr int kPassRights = 83;  // SO_PASSRIGHTS, which older headers lack
  const int pass = 0;
  return setsockopt(listener, SOL_SOCKET, kPassRights, &pass, sizeof pass) == 0;
}

ssize_t PassedDescriptors::Receive(int fd, char* bytes, std::size_t size) {
  const ssize_t count = Peek(fd, bytes, size);
  if (count <= 0) return count;
  return recv(fd, bytes, static_cast<std::size_t>(count), MSG_DONTWAIT);
}

void PassedDescriptors::Close(int fd) {
  if (!HoldsUnread(fd)) {
    close(fd);
    return;
  }
  suspects.push_back(fd);
  if (suspects.size() == kSuspectsAtOnce) Flush();
}

// Sockets do not linger when a task that ends closes them. So a thread takes a copy of the
// descriptors, which is the last one once those here are closed, and ends.
void PassedDescriptors::Flush() {
  if (suspects.empty()) return;
  std::binary_semaphore copied(0);
  std::binary_semaphore closed(0);
  std::thread last;
  try {
    last = std::thread([&] {
      unshare(CLONE_FILES);
      copied.release();
      closed.acquire();
    });
    copied.acquire();
  } catch (const std::system_error&) {  // without a thread the closes may wait
  }
  for (const int fd : suspects) close(fd);
  suspects.clear();
  closed.release();
  if (last.joinable()) last.join();
}

#include "passed_descriptors.h"

#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <semaphore>
#include <thread>

namespace {

// Connections that are closed together. Each uses up a descriptor until then.
constexpr std::size_t kDeferredAtOnce = 32;

constexpr int kPassRights = 83;  // SO_PASSRIGHTS, which older headers lack

// There is no room for control data, so Linux sets MSG_CTRUNC if any has arrived. MSG_PEEK leaves
// the descriptors in the socket.
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
  shutdown(fd, SHUT_RD);  // nothing more can arrive
  return ioctl(fd, FIONREAD, &unread) != 0 || unread != 0;
}

}  // namespace

void RefuseDescriptors(int socket) {
  const int pass = 0;
  setsockopt(socket, SOL_SOCKET, kPassRights, &pass, sizeof pass);
}

bool RefusesDescriptors(int listener) {
  int pass = 1;
  socklen_t length = sizeof pass;
  return getsockopt(listener, SOL_SOCKET, kPassRights, &pass, &length) == 0 && pass == 0;
}

// In line, an out-of-band byte is received like others. Otherwise MSG_PEEK skips it together with
// its descriptors, and the next recv(2) closes them.
ClientSocket::ClientSocket(int connected, PassedDescriptors* passed_descriptors)
    : fd(connected), descriptors(passed_descriptors) {
  if (descriptors == nullptr) return;
  const int in_line = 1;
  setsockopt(connected, SOL_SOCKET, SO_OOBINLINE, &in_line, sizeof in_line);
}

ssize_t ClientSocket::Receive(char* bytes, std::size_t size) const {
  if (descriptors == nullptr) return recv(fd.Get(), bytes, size, MSG_DONTWAIT);
  const ssize_t count = Peek(fd.Get(), bytes, size);
  if (count <= 0) return count;
  return recv(fd.Get(), bytes, static_cast<std::size_t>(count), MSG_DONTWAIT);
}

// Connections are closed by destructors, which must not run out of memory.
PassedDescriptors::PassedDescriptors() { deferred.reserve(kDeferredAtOnce); }

void PassedDescriptors::Close(int fd) {
  if (!HoldsUnread(fd)) {
    close(fd);
    return;
  }
  deferred.push_back(fd);
  if (deferred.size() == kDeferredAtOnce) Flush();
}

// Sockets that are closed by the end of a task do not linger. So a thread copies the descriptor
// table, which holds the last references once the descriptors here are closed, and ends.
void PassedDescriptors::Flush() {
  if (deferred.empty()) return;
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
  } catch (const std::exception&) {  // without a thread, close(2) may block
  }
  for (const int fd : deferred) close(fd);
  deferred.clear();
  closed.release();
  if (last.joinable()) last.join();
}

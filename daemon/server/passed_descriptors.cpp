#include "passed_descriptors.h"

#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <barrier>
#include <cerrno>
#include <system_error>
#include <thread>

namespace {

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

// Sockets that are closed by the end of a task do not linger. So a thread copies the descriptor
// table, which holds the last reference once the descriptor here is closed, and ends.
void CloseByThread(ZELT::TokenManager::OwnedDescriptor& fd) {
  std::barrier both(2);
  try {
    const std::jthread last([&] {
      unshare(CLONE_FILES);
      both.arrive_and_wait();
      both.arrive_and_wait();
    });
    both.arrive_and_wait();
    fd.Close();
    both.arrive_and_wait();
  } catch (const std::system_error&) {  // without a thread, close(2) may block
  }
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
ClientSocket::ClientSocket(int connected, bool refused)
    : fd(connected), refuses_descriptors(refused) {
  if (refuses_descriptors) return;
  const int in_line = 1;
  setsockopt(connected, SOL_SOCKET, SO_OOBINLINE, &in_line, sizeof in_line);
}

ClientSocket::~ClientSocket() {
  if (!IsOpen() || refuses_descriptors) return;
  int unread = 0;
  shutdown(fd.Get(), SHUT_RD);  // nothing more can arrive
  if (ioctl(fd.Get(), FIONREAD, &unread) != 0 || unread != 0) CloseByThread(fd);
}

ssize_t ClientSocket::Receive(char* bytes, std::size_t size) const {
  if (refuses_descriptors) return recv(fd.Get(), bytes, size, MSG_DONTWAIT);
  const ssize_t count = Peek(fd.Get(), bytes, size);
  if (count <= 0) return count;
  return recv(fd.Get(), bytes, static_cast<std::size_t>(count), MSG_DONTWAIT);
}

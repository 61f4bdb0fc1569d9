// Protection from descriptors that clients send along with their requests (SCM_RIGHTS, unix(7)).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <vector>

/// Has the kernel refuse descriptors that clients of `listener` send from now on, on connections
/// that are made from now on (SO_PASSRIGHTS, Linux 6.16). Returns false where it cannot.
bool RefuseDescriptors(int listener);

/// Receives from connections, and closes them, so that no descriptor sent along is ever installed
/// here, nor closed where the close may wait. The last close of a socket waits as long as its
/// sender has asked for (SO_LINGER, socket(7)), and a close of an installed descriptor waits for
/// the sender's own file system (fuse(4)).
///
/// Threads: one. `Flush` ends a thread of its own each time that there is something to flush.
class PassedDescriptors {
 public:
  PassedDescriptors() = default;
  ~PassedDescriptors() { Flush(); }
  PassedDescriptors(const PassedDescriptors&) = delete;
  PassedDescriptors& operator=(const PassedDescriptors&) = delete;

  /// As recv(2), without waiting. Fails with EPERM, and receives nothing, when descriptors come
  /// with what has arrived.
  static ssize_t Receive(int fd, char* bytes, std::size_t size);

  /// Closes the connection `fd`, at the next `Flush` at the latest.
  void Close(int fd);

  /// Closes what could not be closed at once.
  void Flush();

 private:
  std::vector<int> suspects;  // connections with something unread
};

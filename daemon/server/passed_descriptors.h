// Protection from descriptors that clients send along with their requests (SCM_RIGHTS, unix(7)).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <vector>

/// Makes the kernel refuse descriptors on connections made to `listener` from now on
/// (SO_PASSRIGHTS, Linux 6.16). Returns false if the kernel cannot.
bool RefuseDescriptors(int listener);

/// Receives from connections and closes them. No descriptor sent along is ever installed in this
/// process, or closed where close(2) may block: the last close of a socket waits as long as its
/// sender requested (SO_LINGER, socket(7)), and closing an installed descriptor may wait for the
/// sender's own file system (fuse(4)).
///
/// Threads: one. `Flush` starts and joins a thread if there is something to flush.
class PassedDescriptors {
 public:
  PassedDescriptors() = default;
  ~PassedDescriptors() { Flush(); }
  PassedDescriptors(const PassedDescriptors&) = delete;
  PassedDescriptors& operator=(const PassedDescriptors&) = delete;

  /// Like recv(2), without waiting. Fails with EPERM and receives nothing if descriptors have
  /// arrived.
  static ssize_t Receive(int fd, char* bytes, std::size_t size);

  /// Closes the connection `fd`, at the next `Flush` at the latest.
  void Close(int fd);

  /// Closes the connections that could not be closed at once.
  void Flush();

 private:
  std::vector<int> deferred;  // connections with something unread
};

// Protection from descriptors that clients send along with their requests (SCM_RIGHTS, unix(7)).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <vector>

/// Has the kernel refuse descriptors that clients of `listener` send (SO_PASSRIGHTS, Linux 6.16).
/// Accepted connections inherit it.
void RefuseDescriptors(int listener);

/// Whether clients of `listener` can send descriptors all the same.
bool PassesDescriptors(int listener);

/// Receives from connections, and closes them, so that no descriptor sent along is ever installed
/// here, nor closed where the close may wait. The last close of a socket waits as long as its
/// sender has asked for (SO_LINGER, socket(7)), and a close of an installed descriptor waits for
/// the sender's own file system (fuse(4)).
///
/// Threads: one. `Flush` ends a thread of its own each time that there is something to flush.
class PassedDescriptors {
 public:
  /// With `possible` false the kernel refuses them, and everything is as without this class.
  explicit PassedDescriptors(bool possible) : can_arrive(possible) {}
  ~PassedDescriptors() { Flush(); }
  PassedDescriptors(const PassedDescriptors&) = delete;
  PassedDescriptors& operator=(const PassedDescriptors&) = delete;

  /// As recv(2), without waiting. Fails with EPERM, and receives nothing, when descriptors come
  /// with what has arrived.
  ssize_t Receive(int fd, char* bytes, std::size_t size) const;

  /// Closes the connection `fd`, at the next `Flush` at the latest.
  void Close(int fd);

  /// Closes what could not be closed at once.
  void Flush();

 private:
  bool can_arrive;
  std::vector<int> suspects;  // connections with something unread
};

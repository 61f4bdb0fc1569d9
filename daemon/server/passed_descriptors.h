// Protection from descriptors that clients send along with their requests (SCM_RIGHTS, unix(7)).
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "owned_descriptor.h"

/// Makes the kernel refuse descriptors on connections made to `socket` once it listens
/// (SO_PASSRIGHTS, Linux 6.16), if it can.
void RefuseDescriptors(int socket);

/// Whether the kernel refuses descriptors on connections made to `listener`.
bool RefusesDescriptors(int listener);

/// Owns an accepted connection, or none. No descriptor sent along is ever installed in this
/// process, or closed where close(2) may block: the last close of a socket waits as long as its
/// sender requested (SO_LINGER, socket(7)), and closing an installed descriptor may wait for the
/// sender's own file system (fuse(4)). So a connection in which some may lie is closed with the
/// help of a thread.
class ClientSocket {
 public:
  ClientSocket() = default;

  /// `refused` is what `RefusesDescriptors` returned for the listening socket.
  ClientSocket(int connected, bool refused);
  ~ClientSocket();
  ClientSocket(ClientSocket&& other) = default;

  bool IsOpen() const { return fd.IsOpen(); }
  int Get() const { return fd.Get(); }

  /// Like recv(2), without waiting. Fails with EPERM and receives nothing if descriptors have
  /// arrived.
  ssize_t Receive(char* bytes, std::size_t size) const;

 private:
  ZELT::TokenManager::OwnedDescriptor fd;
  bool refuses_descriptors = true;
};

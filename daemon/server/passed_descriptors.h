// Protection from descriptors that clients send along with their requests (SCM_RIGHTS, unix(7)).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <utility>
#include <vector>

#include "owned_descriptor.h"

/// Makes the kernel refuse descriptors on connections made to `socket` once it listens
/// (SO_PASSRIGHTS, Linux 6.16), if it can.
void RefuseDescriptors(int socket);

/// Whether the kernel refuses descriptors on connections made to `listener`.
bool RefusesDescriptors(int listener);

/// Closes connections in which descriptors may lie. No descriptor sent along is ever installed in
/// this process, or closed where close(2) may block: the last close of a socket waits as long as
/// its sender requested (SO_LINGER, socket(7)), and closing an installed descriptor may wait for
/// the sender's own file system (fuse(4)).
///
/// Threads: one. `Flush` starts and joins a thread if there is something to flush.
class PassedDescriptors {
 public:
  PassedDescriptors();
  ~PassedDescriptors() { Flush(); }
  PassedDescriptors(const PassedDescriptors&) = delete;
  PassedDescriptors& operator=(const PassedDescriptors&) = delete;

  /// Closes the connection `fd`, at the next `Flush` at the latest.
  void Close(int fd);

  /// Closes the connections that could not be closed at once.
  void Flush();

 private:
  std::vector<int> deferred;  // connections with something unread
};

/// Owns an accepted connection, or none.
class ClientSocket {
 public:
  ClientSocket() = default;

  /// `passed_descriptors` is null if the kernel lets no descriptors through.
  ClientSocket(int connected, PassedDescriptors* passed_descriptors);
  ~ClientSocket() {
    if (IsOpen() && descriptors != nullptr) descriptors->Close(fd.Release());
  }
  ClientSocket(ClientSocket&& other) = default;
  ClientSocket& operator=(ClientSocket&& other) = delete;

  bool IsOpen() const { return fd.IsOpen(); }
  int Get() const { return fd.Get(); }

  /// Like recv(2), without waiting. Fails with EPERM and receives nothing if descriptors have
  /// arrived.
  ssize_t Receive(char* bytes, std::size_t size) const;

 private:
  ZELT::TokenManager::OwnedDescriptor fd;
  PassedDescriptors* descriptors = nullptr;
};

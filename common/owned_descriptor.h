// A file descriptor that is closed when its owner is destroyed.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace ZELT::TokenManager {

/// Owns a descriptor, or none (-1). Closing leaves `errno` as it was.
class OwnedDescriptor {
 public:
  OwnedDescriptor() = default;
  explicit OwnedDescriptor(int descriptor) : fd(descriptor) {}
  ~OwnedDescriptor() { Close(); }
  OwnedDescriptor(OwnedDescriptor&& other) noexcept : fd(other.Release()) {}
  OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept {
    Close();
    fd = other.Release();
    return *this;
  }

  bool IsOpen() const { return fd >= 0; }
  int Get() const { return fd; }

  /// Gives up the descriptor. The caller must close it.
  int Release() { return std::exchange(fd, -1); }

  void Close() {
    const int error = errno;
    if (IsOpen()) close(Release());
    errno = error;
  }

 private:
  int fd = -1;
};

}  // namespace ZELT::TokenManager

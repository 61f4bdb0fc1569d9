// Memory for the reentrant lookups of users and groups (getpwnam_r(3)), which fail with ERANGE
// when it is too small.
#pragma once

#include <vector>

class LookupBuffer {
 public:
  char* Data() { return bytes.data(); }
  std::size_t Size() const { return bytes.size(); }

  /// Doubles the size. Returns false, changing nothing, at the limit.
  bool Grow() {
    if (bytes.size() >= kMaxBytes) return false;
    bytes.resize(bytes.size() * 2);
    return true;
  }

 private:
  static constexpr std::size_t kMaxBytes = 1U << 20;  // a group of some 50,000 members

  std::vector<char> bytes = std::vector<char>(1024);
};

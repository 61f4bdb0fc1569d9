// Random numbers and texts from the kernel's generator, getrandom(2).
#pragma once

#include <string>

namespace ZELT::RANDOM {

/// A–Z, a–z, 0–9, "-" and "_", which need no escaping in a URL (RFC 3986, section 2.3).
extern const char* const POOL_URL_FRIENDLY;

class ZELTRandomBase {
 public:
  /// Returns a number from `lower` to `upper`, each equally likely and both included. Throws
  /// `std::system_error` when the kernel gives no random bytes.
  int random(int lower, int upper);
};

class ZELTRandom : public ZELTRandomBase {
 public:
  /// Fills `text` with `length` characters of `pool`, each equally likely. Returns false, leaving
  /// `text` as it was, when the pool is empty, has more than 256 characters, or the kernel gives
  /// no random bytes.
  bool getString(const std::string& pool, unsigned int length, std::string& text);
};

}  // namespace ZELT::RANDOM

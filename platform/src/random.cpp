#include "zeltrandom/random.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace ZELT::RANDOM {
namespace {

bool Fill(void* bytes, std::size_t count) {
  auto* next = static_cast<unsigned char*>(bytes);
  while (count > 0) {
    const ssize_t got = getrandom(next, count, 0);
    if (got < 0 && errno != EINTR) return false;
    if (got < 0) continue;
    next += got;
    count -= static_cast<std::size_t>(got);
  }
  return true;
}

}  // namespace

const char* const POOL_URL_FRIENDLY =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

int ZELTRandomBase::random(int lower, int upper) {
  const auto span = static_cast<std::uint64_t>(std::int64_t{upper} - lower) + 1;
  // Numbers from the incomplete last span would favour the lower values, so they are drawn again.
  const std::uint64_t limit = UINT64_MAX - UINT64_MAX % span;
  std::uint64_t drawn = 0;
  do {
    if (!Fill(&drawn, sizeof drawn)) {
      throw std::system_error(errno, std::generic_category(), "getrandom");
    }
  } while (drawn >= limit);
  return static_cast<int>(lower + static_cast<std::int64_t>(drawn % span));
}

bool ZELTRandom::getString(const std::string& pool, unsigned int length, std::string& text) {
  constexpr unsigned int kByteValues = 256;
  if (pool.empty() || pool.size() > kByteValues) return false;
  const auto size = static_cast<unsigned int>(pool.size());
  // Bytes from the incomplete last round of the pool would favour its first characters.
  const unsigned int limit = kByteValues - kByteValues % size;
  std::array<unsigned char, 64> bytes{};
  std::string drawn;
  while (drawn.size() < length) {
    if (!Fill(bytes.data(), bytes.size())) return false;
    for (const unsigned char byte : bytes) {
      if (byte < limit && drawn.size() < length) drawn += pool[byte % size];
    }
  }
  text = std::move(drawn);
  return true;
}

}  // namespace ZELT::RANDOM

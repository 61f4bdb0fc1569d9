// The daemon's options about the store.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

enum class StoreFormat : std::uint8_t { kIndexed, kText };

struct StoreOptions {
  std::string path{};  ///< absolute
  StoreFormat format = StoreFormat::kIndexed;
  std::uint64_t bytes = 20U << 20;         ///< that tokens may take in an indexed store
  std::uint64_t tokens_per_user = 10'000;  ///< of the indexed store
  std::uint64_t users_share = 4;           ///< seam: a user may use 1/users_share of `bytes`
  std::chrono::nanoseconds max_age{0};     ///< 0: no limit
  std::chrono::nanoseconds drop_orphans_after{0};  ///< 0: never
  unsigned int cache_bytes = 8U << 20;             ///< of the text store; 0: no cache

  /// The store's directory is created with mode 0700, but this one with mode 0755, since it also
  /// contains a socket (seam: tests have another).
  std::string public_directory = "/run/zelttokenmgr";
};

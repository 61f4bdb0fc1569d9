// What the daemon's options say of the store.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

enum class StoreFormat : std::uint8_t { kIndexed, kText };

struct StoreOptions {
  std::string path = "/run/zelttokenmgr/tokens.mdb";
  StoreFormat format = StoreFormat::kIndexed;
  std::uint64_t bytes = 64U << 20;         ///< no token is issued when the indexed store takes more
  std::uint64_t tokens_per_user = 10'000;  ///< of the indexed store
  std::uint64_t users_share = 4;           ///< a user may take up one part in so many of `bytes`
  std::chrono::nanoseconds max_age{0};     ///< 0: tokens do not grow too old
  std::chrono::nanoseconds drop_orphans_after{0};  ///< 0: never
  unsigned int cache_bytes = 8U << 20;             ///< of the text store; 0: no cache

  /// The store's directory is made for the daemon's user alone, but this one is made for everybody
  /// to enter: a socket lies there too.
  std::string public_directory = "/run/zelttokenmgr";
};

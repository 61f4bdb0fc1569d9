// Room in the store's file. LMDB writes a change to free pages and reuses the old pages two commits
// later, so even removing a token takes room.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "database.h"

/// Ensures that there is always room to revoke tokens. Space is allocated from the file system
/// ahead of need, and the last of it is not used for new tokens.
class Room {
 public:
  explicit Room(Database& store_database);

  /// Returns whether a change that begins now finds `pages` pages. Allocates more space if needed
  /// and possible.
  bool Has(std::uint64_t pages);

  /// Returns whether a reader keeps freed pages from being reused.
  bool ReadersHoldPages();

  /// Returns whether the file system refused more space.
  bool IsShort() const { return growth_error != 0; }

  /// Returns why the file cannot grow, with numbers.
  std::string Shortage() const;

 private:
  std::uint64_t AllocatedPages() const;
  std::uint64_t SparePages() const;
  void Grow(std::uint64_t pages_ahead);
  std::uint64_t ReusablePages(std::uint64_t enough);
  std::uint64_t OldestRead();

  Database& database;
  std::uint64_t allocated = 0;  // pages when the file was last looked at; it never shrinks
  int growth_error = 0;         // of the last attempt
  std::chrono::steady_clock::time_point next_growth{};
};

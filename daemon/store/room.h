// Room in the store's file. LMDB writes a change to free pages and frees the old ones two commits
// later, so that removing something takes room too.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "database.h"

/// Sees to it that there is always room for tokens to be revoked: the file's space is taken from
/// the file system ahead of need, and what is left at the end is not used for new tokens.
class Room {
 public:
  explicit Room(Database& store_database);

  /// Whether a change that begins now finds `pages` pages. Takes more space from the file system
  /// where that is needed and can be had.
  bool Has(std::uint64_t pages);

  /// Whether a reader keeps freed pages from being used again.
  bool ReadersHoldPages();

  /// Whether the file system refused more space.
  bool IsShort() const { return growth_error != 0; }

  /// Why the file cannot grow, with numbers.
  std::string Shortage() const;

 private:
  std::uint64_t AllocatedPages() const;
  std::uint64_t SparePages() const;
  void Grow(std::uint64_t pages_ahead);
  std::uint64_t ReusablePages(std::uint64_t enough);
  std::uint64_t OldestRead();

  Database& database;
  int growth_error = 0;  // of the last attempt
  std::chrono::steady_clock::time_point next_growth{};
};

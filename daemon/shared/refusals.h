// A limit on the refusals that are logged.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

/// Allows 20 logged refusals per user and second over all workers, and counts the others. Lies in
/// the workers' shared memory, initially zero. A worker killed during a call leaves a count wrong
/// by one at most.
///
/// Each user has an entry, found by user id. Users with the same entry share its limit.
class Refusals {
 public:
  static constexpr std::uint32_t kLoggedEachSecond = 20;

  /// Returns whether a refusal of `user` may be logged at `now` (CLOCK_MONOTONIC). Counts it if
  /// not.
  bool MayLog(uid_t user, std::chrono::seconds now);

  /// Logs how many refusals of all workers were held back before the second `now`, one line per
  /// user. Call this about once a second.
  void LogHeldBack(std::chrono::seconds now);

 private:
  struct Entry {
    std::atomic<uid_t> user;  // the last one held back
    std::atomic<std::int64_t> second;
    std::atomic<std::uint32_t> logged;
    std::atomic<std::uint32_t> held_back;
  };

  static constexpr std::size_t kEntries = 256;
  std::array<Entry, kEntries> entries{};
};

// How many refusals may be logged.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

/// Lets 20 refusals of a user into the log in a second, over all workers, and has the others
/// counted. Lies in the workers' shared memory, zeroed at first. A worker that is killed in the
/// middle of a call leaves the figures wrong by one at most.
///
/// Users have one place each, found by their number; users who meet at a place share what may be
/// logged in a second.
class Refusals {
 public:
  static constexpr std::uint32_t kLoggedEachSecond = 20;

  /// Returns whether a refusal of `user` may be logged at `now` (CLOCK_MONOTONIC). One that may not
  /// is counted.
  bool MayLog(uid_t user, std::chrono::seconds now);

  /// Logs how many were held back before the second `now`, a line for each user. One worker's line
  /// stands for all of them. To be called about once a second.
  void LogHeldBack(std::chrono::seconds now);

 private:
  struct Place {
    std::atomic<uid_t> user;  // the last one held back
    std::atomic<std::int64_t> second;
    std::atomic<std::uint32_t> logged;
    std::atomic<std::uint32_t> held_back;
  };

  static constexpr std::size_t kPlaces = 256;
  std::array<Place, kPlaces> places{};
};

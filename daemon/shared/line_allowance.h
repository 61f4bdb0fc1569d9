// A limit on the lines that clients cause in the log.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <utility>

/// The lines that all clients may cause in a second, in all workers. Lies in their shared memory,
/// initially zero. Fewer than journald.conf(5) takes from a service by default, which would
/// otherwise drop the daemon's own lines as well.
class LineTotal {
 public:
  static constexpr std::uint32_t kEachSecond = 300;

  /// Returns whether another line may be logged at `now` (CLOCK_MONOTONIC) for an account that has
  /// caused `own` lines in this second and worker. Whoever has caused more has to leave more lines
  /// to others, so that with many workers, too, no account takes all.
  bool Take(std::chrono::seconds now, std::uint32_t own) {
    std::int64_t last = second;
    if (now.count() > last && second.compare_exchange_strong(last, now.count())) taken = 0;
    if (taken + kLeftToOthers * own >= kEachSecond) return false;
    return ++taken, true;
  }

  std::atomic<std::uint64_t> held_back = 0;  ///< lines beyond the limits, since the start
  std::atomic<std::uint64_t> lost = 0;       ///< lines that could not be written

 private:
  static constexpr std::uint32_t kLeftToOthers = 10;  // for each line of one's own

  std::atomic<std::int64_t> second = 0;
  std::atomic<std::uint32_t> taken = 0;
};

/// The lines that one account may cause in a second, in one worker.
class LineAllowance {
 public:
  static constexpr std::uint32_t kEachSecond = 20;

  /// `all` must outlive the object.
  explicit LineAllowance(LineTotal& all) : total(all) {}

  /// Returns whether a line may be logged. Counts it as held back if not.
  bool Take() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto second = std::chrono::duration_cast<std::chrono::seconds>(now);
    if (taken < kEachSecond && total.Take(second, taken)) return ++taken, true;
    return ++held_back, false;
  }

  /// Begins a second. Returns how many lines were held back in the last one.
  std::uint32_t Renew() {
    taken = 0;
    total.held_back += held_back;
    return std::exchange(held_back, 0);
  }

 private:
  LineTotal& total;
  std::uint32_t taken = 0;
  std::uint32_t held_back = 0;
};

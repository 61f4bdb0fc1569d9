// What the workers tell the supervisor, and each other, in shared memory.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

/// The kinds of requests, in the order of the counters. `kOther` is what has no valid "type".
enum class RequestType : std::uint8_t {
  kIssue,
  kValidate,
  kRevoke,
  kTransfer,
  kList,
  kDrop,
  kStatus,
  kOther
};
constexpr std::size_t kRequestTypes = 8;

/// What a worker is doing. A worker that waits for its turn to write is not stuck itself: the one
/// that holds the store is.
enum class Activity : std::uint8_t { kIdle, kServing, kWaitingForStore };

/// Upper bounds of the service-time histogram: 2^i microseconds for bucket i, no bound for the
/// last.
constexpr std::size_t kTimeBuckets = 20;

/// One worker's part of the board. Only its worker writes it, but for `pid`, which is the
/// supervisor's. The counters go on when a replacement takes the slot over.
struct alignas(64) WorkerSlot {
  std::atomic<pid_t> pid = 0;  ///< 0: the slot is free

  /// CLOCK_MONOTONIC in nanoseconds when the worker last came back to its loop, at least once a
  /// second, or began a request.
  std::atomic<std::int64_t> seen = 0;
  std::atomic<Activity> activity = Activity::kIdle;
  std::atomic<RequestType> type = RequestType::kOther;  ///< of the current request
  std::atomic<uid_t> client_user = 0;                   ///< who sent it
  std::atomic<pid_t> client_process = 0;

  std::array<std::atomic<std::uint64_t>, kRequestTypes> done{};
  std::array<std::atomic<std::uint64_t>, kRequestTypes> refused{};
  std::array<std::atomic<std::uint64_t>, kTimeBuckets> times{};
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

/// Adds one to a counter that only this process writes.
inline void Count(std::atomic<std::uint64_t>& counter) {
  counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

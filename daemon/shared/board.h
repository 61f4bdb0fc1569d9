// Shared memory in which workers report to the supervisor and to each other.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "line_allowance.h"
#include "refusal_kind.h"
#include "request_type.h"

/// What a worker is doing. A worker that waits for the store is not stuck itself; the worker that
/// holds the store is.
enum class Activity : std::uint8_t { kStarting, kIdle, kServing, kWaitingForStore };

/// Upper bounds of the service-time histogram: 2^i microseconds for bucket i, no bound for the
/// last.
constexpr std::size_t kTimeBuckets = 20;

/// The bucket for a request that took `time`.
constexpr std::size_t TimeBucket(std::chrono::nanoseconds time) {
  const auto microseconds = std::chrono::ceil<std::chrono::microseconds>(time).count();
  const auto last = static_cast<std::uint64_t>(microseconds > 0 ? microseconds - 1 : 0);
  return std::min<std::size_t>(std::bit_width(last), kTimeBuckets - 1);
}

/// How often the cache of a text store had a record, as of `LRUCacheStorage::GetStatistics`.
struct CacheCounts {
  std::atomic<std::uint64_t> hit = 0;
  std::atomic<std::uint64_t> miss = 0;
  std::atomic<std::uint64_t> total = 0;
};

/// One worker's part of the board. Only its worker writes to it, except for `pid`, which the
/// supervisor sets. A replacement continues the counters.
struct alignas(64) WorkerSlot {
  std::atomic<pid_t> pid = 0;  ///< 0: the slot is free

  /// CLOCK_MONOTONIC in nanoseconds when the worker last returned to its loop, at least once a
  /// second, or began a request.
  std::atomic<std::int64_t> seen = 0;
  std::atomic<Activity> activity = Activity::kStarting;
  std::atomic<RequestType> type = RequestType::kOther;  ///< of the current request
  std::atomic<uid_t> client_user = 0;                   ///< who sent it
  std::atomic<pid_t> client_process = 0;

  std::array<std::atomic<std::uint64_t>, kRequestTypes> done{};
  std::array<std::atomic<std::uint64_t>, kRequestTypes> refused{};
  std::array<std::atomic<std::uint64_t>, kRefusalKinds> refusals{};
  std::array<std::atomic<std::uint64_t>, kTimeBuckets> times{};
  std::atomic<std::uint64_t> time = 0;     ///< nanoseconds that all requests took
  std::atomic<std::uint64_t> waiting = 0;  ///< connections that wait for clients, a second ago
  std::atomic<std::uint64_t> orphans = 0;  ///< tokens, found by the last walk through the store
  CacheCounts cache;                       ///< up to a second old; zero without a cache
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

/// A worker serves one request at a time; more workers would only use memory.
constexpr std::size_t kMaxWorkers = 256;

/// The whole board. The supervisor maps it before it forks the first worker.
struct Board {
  std::int64_t started = 0;                   ///< CLOCK_MONOTONIC in nanoseconds
  std::atomic<std::uint64_t> deaths = 0;      ///< of workers that had not been told to end
  LineTotal lines;                            ///< that clients cause in the log
  std::array<WorkerSlot, kMaxWorkers> slots;  ///< used slots come first
};

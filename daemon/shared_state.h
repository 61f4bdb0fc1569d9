// What the workers of one generation share beside the cache.
#pragma once

#include <sys/types.h>

#include <atomic>

/// Lives in shared memory.
struct SharedState {
  /// Set while a worker changes the store or the cache. Who gets the workers' lock and finds it set
  /// knows that the worker before was killed in the middle of a change.
  std::atomic<bool> changing = false;

  /// Set while a worker waits for the workers' lock in order to change something.
  std::atomic<bool> writer_waits = false;

  /// The size of the store after the last insertion, with which every line of it was whole. Some
  /// other size says that somebody has changed it since.
  std::atomic<off_t> whole_size = -1;

  /// Set once a worker of the generation has answered: it is able to serve.
  std::atomic<bool> answered = false;
};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<off_t>::is_always_lock_free);

// What the workers of one generation share beside the cache.
#pragma once

#include <atomic>

/// Lives in shared memory that every generation gets anew.
struct SharedState {
  /// Set while a worker changes the store or the cache. Who holds the workers' lock and finds it
  /// set knows that the worker before was killed in the middle of a change.
  std::atomic<bool> changing = false;

  /// Set while a worker waits for the workers' lock in order to change something.
  std::atomic<bool> writer_waits = false;

  /// Set once a worker has answered: the generation is able to serve.
  std::atomic<bool> answered = false;
};
static_assert(std::atomic<bool>::is_always_lock_free);

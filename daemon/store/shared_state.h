// What all workers share beside the cache.
#pragma once

#include <atomic>

/// Lives in shared memory.
struct SharedState {
  /// Set while a worker changes the store or the cache. Who gets the workers' lock and finds it set
  /// knows that the worker before was killed in the middle of a change, or could neither finish nor
  /// undo it.
  std::atomic<bool> changing = false;

  /// Set while a worker waits for the workers' lock in order to change something. One who is killed
  /// meanwhile leaves it set until somebody else has waited so.
  std::atomic<bool> writer_waits = false;

  /// Set once a worker of the generation has answered: it is able to serve.
  std::atomic<bool> answered = false;
};
static_assert(std::atomic<bool>::is_always_lock_free);

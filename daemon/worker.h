// What a worker does.
#pragma once

#include <vector>

#include "board.h"
#include "options.h"
#include "store_file.h"

/// What workers inherit from the supervisor.
struct WorkerContext {
  const Options& options;
  const std::vector<int>& listeners;
  const StoreLock& store_lock;
  Board& board;
};

/// Opens the store and answers requests until SIGTERM, which has to be blocked. Throws what opening
/// the store throws.
void Work(const WorkerContext& context, WorkerSlot& slot);

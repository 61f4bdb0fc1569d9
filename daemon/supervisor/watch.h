// The watch over workers that do not respond.
#pragma once

#include <chrono>
#include <span>

#include "board.h"

/// Returns the one worker that should be killed now, or null. A worker is stuck if it was not seen
/// for `patience`. One that waits for the store is most likely held up by another, so the others
/// come first, and then the one that was seen the longest ago. Call this again after a while: if
/// the right one was killed, the rest go on.
WorkerSlot* FindStuck(std::span<WorkerSlot> slots, std::chrono::nanoseconds patience);

/// Returns whether some worker serves: it has started, and is not stuck.
bool AnyResponds(std::span<const WorkerSlot> slots, std::chrono::nanoseconds patience);

/// Logs that the worker is killed for not responding, and what it was doing.
void LogStuck(const WorkerSlot& slot);

#include "watch.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <tuple>

#include "log.h"

namespace {

std::chrono::nanoseconds TimeSinceSeen(const WorkerSlot& slot) {
  return std::chrono::steady_clock::now().time_since_epoch() - std::chrono::nanoseconds(slot.seen);
}

// A damaged value reads as the last name.
const char* NameOf(auto value, const auto& names) {
  return names[std::min(static_cast<std::size_t>(value), names.size() - 1)];
}

}  // namespace

WorkerSlot* FindStuck(std::span<WorkerSlot> slots, std::chrono::nanoseconds patience) {
  const auto rank = [patience](const WorkerSlot& slot) {
    const bool is_stuck = slot.pid != 0 && TimeSinceSeen(slot) > patience;
    return std::tuple(!is_stuck, slot.activity == Activity::kWaitingForStore, slot.seen.load());
  };
  const auto first = std::ranges::min_element(slots, {}, rank);
  return first == slots.end() || std::get<0>(rank(*first)) ? nullptr : &*first;
}

bool AnyResponds(std::span<const WorkerSlot> slots, std::chrono::nanoseconds patience) {
  return std::ranges::any_of(slots, [patience](const WorkerSlot& slot) {
    return slot.pid != 0 && slot.activity != Activity::kStarting && TimeSinceSeen(slot) <= patience;
  });
}

void LogStuck(const WorkerSlot& slot) {
  constexpr std::array kDoing = {"starting", "idle", "serving", "waiting for the store"};
  Log(LOG_ERR,
      "worker %d has not responded for %.1f s; killing it: %s, last request type=%s pid=%d uid=%u",
      slot.pid.load(), std::chrono::duration<double>(TimeSinceSeen(slot)).count(),
      NameOf(slot.activity.load(), kDoing), NameOf(slot.type.load(), kRequestTypeNames),
      slot.client_process.load(), slot.client_user.load());
}

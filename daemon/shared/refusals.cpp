#include "refusals.h"

#include <syslog.h>

#include "log.h"

bool Refusals::MayLog(uid_t user, std::chrono::seconds now) {
  Entry& entry = entries[user % kEntries];
  if (entry.second.exchange(now.count()) != now.count()) entry.logged = 0;
  if (entry.logged.fetch_add(1) < kLoggedEachSecond) return true;
  entry.user = user;
  ++entry.held_back;
  return false;
}

void Refusals::LogHeldBack(std::chrono::seconds now) {
  for (Entry& entry : entries) {
    if (entry.held_back == 0 || entry.second == now.count()) continue;
    const std::uint32_t count = entry.held_back.exchange(0);
    if (count == 0) continue;  // another worker was faster
    Log(LOG_NOTICE, "%u more refusals of user %u were not logged", count, entry.user.load());
  }
}

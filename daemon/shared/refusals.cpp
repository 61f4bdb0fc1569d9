#include "refusals.h"

#include <syslog.h>

#include "log.h"

bool Refusals::MayLog(uid_t user, std::chrono::seconds now) {
  Place& place = places[user % kPlaces];
  if (place.second.exchange(now.count()) != now.count()) place.logged = 0;
  if (place.logged.fetch_add(1) < kLoggedEachSecond) return true;
  place.user = user;
  ++place.held_back;
  return false;
}

void Refusals::LogHeldBack(std::chrono::seconds now) {
  for (Place& place : places) {
    if (place.held_back == 0 || place.second == now.count()) continue;
    const std::uint32_t count = place.held_back.exchange(0);
    if (count == 0) continue;  // another worker was faster
    Log(LOG_NOTICE, "%u more refusals of user %u were not logged", count, place.user.load());
  }
}

#include "users_without_package.h"

void UsersWithoutPackage::Refuse(uid_t user, Clock::time_point now) {
  const auto known = refusals.find(user);
  if (known == refusals.end()) return;
  if (now < known->second.forgotten) std::rethrow_exception(known->second.exception);
  refusals.erase(known);
}

void UsersWithoutPackage::Remember(uid_t user, Clock::time_point now) {
  if (refusals.size() >= kMaxUsers) refusals.clear();
  refusals.insert_or_assign(user, Refusal{std::current_exception(), now + kRemembered});
}

#include "change_on_use.h"

#include <chrono>

void ChangeOnUse::Insert(const std::string& token, const Json::Value& data) {
  Begin();
  store.Insert(token, data);
}

void ChangeOnUse::Remove(const std::string& token) {
  Begin();
  store.Remove(token);
}

Json::Value ChangeOnUse::GetAssociatedData(const std::string& token) {
  Begin();
  return store.GetAssociatedData(token);
}

void ChangeOnUse::Begin() {
  if (changer == nullptr || change) return;
  slot.activity = Activity::kWaitingForStore;
  change.emplace(store, *changer);
  slot.seen = std::chrono::steady_clock::now().time_since_epoch().count();
  slot.activity = Activity::kServing;
}

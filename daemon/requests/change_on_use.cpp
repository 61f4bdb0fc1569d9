#include "change_on_use.h"

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
  if (changer != nullptr && !change) change.emplace(store, *changer);
}

#include "group_lookup.h"

#include <memory>
#include <stdexcept>

#include "zeltsystem/group.h"

namespace ZELT::TokenManager {
namespace {

using Groups = GroupLookup::Groups;

constexpr int kAllGroups = 1;  // for QLIBGroupInfoListGet: primary and supplementary

constinit thread_local GroupLookup* first_of_thread = nullptr;

Groups GroupsOfUser(const std::string& user) {
  // A name with a NUL byte would be looked up as the shorter name before it.
  const bool is_name = user.find('\0') == std::string::npos;
  const std::unique_ptr<QLIBCSzList, void (*)(QLIBCSzList*)> list(
      is_name ? QLIBGroupInfoListGet(user.c_str(), kAllGroups) : nullptr, QLIBCSzListFree);
  if (!list) throw std::runtime_error("utils.cpp:37 failed to lookup groups of user");
  Groups groups;
  while (const char* group = QLIBCSzListShift(list.get())) groups.emplace(group);
  return groups;
}

Groups GroupsOf(const std::string& identity) {
  return identity.starts_with('@') ? Groups{identity.substr(1)} : GroupsOfUser(identity);
}

}  // namespace

GroupLookup::GroupLookup() : first(first_of_thread != nullptr ? *first_of_thread : *this) {
  first_of_thread = &first;
}

GroupLookup::~GroupLookup() {
  if (first_of_thread == this) first_of_thread = nullptr;
}

const Groups& GroupLookup::Of(const std::string& identity) {
  auto& known = first.result;
  if (!known || known->first != identity) known.emplace(identity, GroupsOf(identity));
  return known->second;
}

}  // namespace ZELT::TokenManager

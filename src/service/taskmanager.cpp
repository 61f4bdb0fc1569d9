#include "zelttokenmanager/service/taskmanager.h"

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

#include "grant.h"
#include "grant_search.h"
#include "json_member.h"

namespace ZELT::TokenManager {
namespace {

using Check = std::function<bool(const Json::Value&, const Json::Value&, const Json::Value&)>;
using ActionTable = std::map<std::string, Check>;

// The table holds a copy of `tasks`, because it outlives the object.
ActionTable MakeActionTable(const TaskManager& tasks) {
  const auto bind = [&tasks](auto check) { return std::bind_front(check, tasks); };
  return {{"create", bind(&TaskManager::CheckTaskInfoAndOwner)},
          {"remove", bind(&TaskManager::CheckTaskIdAndOwner)},
          {"update", bind(&TaskManager::CheckTaskIdAndOwner)},
          {"read", bind(&TaskManager::CheckTaskIdAndOwner)},
          {"list", bind(&TaskManager::CheckTaskPrefixAndOwner)}};
}

std::string_view PrefixOf(const Json::Value& grant) {
  return StringMember(grant, "prefix", "service/taskmanager.cpp:38");
}

// Whether a grant of `prefix` covers the new task that `args` describe.
bool CoversNewTask(const Json::Value& args, std::string_view prefix) {
  const Json::Value& wanted_prefix = MemberOrNull(args, "prefix");
  if (wanted_prefix.isString()) return wanted_prefix.asString() == prefix;
  const Json::Value& task = MemberOrNull(args, "task");
  if (task.isString()) return task.asString().starts_with(prefix);
  throw std::runtime_error("service/taskmanager.cpp:195 required argument is missing");
}

}  // namespace

std::string TaskManager::GetName() { return "taskmanager"; }

Json::Value TaskManager::Issue(const Json::Value& request, const Json::Value& privilege) {
  Json::Value granted(Json::arrayValue);
  const Json::Value& payload = ObjectMember(request, "payload", "service/taskmanager.cpp:22");
  const std::string_view action = StringMember(payload, "action", "service/taskmanager.cpp:23");
  const Json::Value& args = ArrayMember(payload, "args", "service/taskmanager.cpp:24");
  ExpectArray(privilege, "service/taskmanager.cpp:25");
  if (action != "issue") {
    throw std::runtime_error("service/taskmanager.cpp:28 unexpected action, \"issue\" expected");
  }
  GrantSearch<std::string_view> search(privilege, PrefixOf);
  for (const Json::Value& wanted : args) {
    const std::string_view prefix = StringMember(wanted, "prefix", "service/taskmanager.cpp:32");
    const Json::Value* const grant = search.Find(prefix);
    if (grant == nullptr) {
      throw std::runtime_error("service/taskmanager.cpp:50 prefix=" + std::string(prefix) +
                               " is not on the permitted list");
    }
    granted.append(*grant);
  }
  return granted;
}

bool TaskManager::Validate(const Json::Value& request, const Json::Value& data) {
  const Json::Value& payload = ObjectMember(request, "payload", "service/taskmanager.cpp:73");
  const std::string action(StringMember(payload, "action", "service/taskmanager.cpp:74"));
  const Json::Value& args = ObjectMember(payload, "args", "service/taskmanager.cpp:75");
  const Json::Value& grants = ArrayMember(data, "payload", "service/taskmanager.cpp:76");

  static const ActionTable actions = MakeActionTable(*this);
  const auto found = actions.find(action);
  if (found == actions.end()) {
    throw std::runtime_error("service/taskmanager.cpp:82 invalid action: " + action);
  }
  for (const Json::Value& grant : grants) {
    if (found->second(args, grant, data)) return true;
  }
  return false;
}

bool TaskManager::CheckTaskIdAndOwner(const Json::Value& args, const Json::Value& entry,
                                      const Json::Value& data) {
  const std::string_view task = StringMember(args, "task", "service/taskmanager.cpp:112");
  const std::string_view prefix = StringMember(entry, "prefix", "service/taskmanager.cpp:113");
  if (!task.starts_with(prefix)) return false;
  return IsAdmitted(StringMember(args, "owner", "service/taskmanager.cpp:120"), entry, "owner",
                    data);
}

bool TaskManager::CheckTaskInfoAndOwner(const Json::Value& args, const Json::Value& entry,
                                        const Json::Value& data) {
  const std::string_view prefix = StringMember(entry, "prefix", "service/taskmanager.cpp:184");
  if (!CoversNewTask(args, prefix)) return false;
  return IsAdmitted(StringMember(args, "owner", "service/taskmanager.cpp:199"), entry, "owner",
                    data);
}

bool TaskManager::CheckTaskPrefixAndOwner(const Json::Value& args, const Json::Value& entry,
                                          const Json::Value& data) {
  const std::string_view wanted = StringMember(args, "prefix", "service/taskmanager.cpp:148");
  const std::string_view prefix = StringMember(entry, "prefix", "service/taskmanager.cpp:149");
  if (wanted != prefix) return false;
  return IsAdmitted(StringMember(args, "owner", "service/taskmanager.cpp:154"), entry, "owner",
                    data);
}

}  // namespace ZELT::TokenManager

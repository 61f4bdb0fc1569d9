#include "check_grant.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <numeric>
#include <vector>

namespace {

constexpr std::size_t kTypingErrors = 2;  // letters

// Returns how many letters must be changed, inserted or removed to turn `a` into `b`.
std::size_t Distance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (const char letter : a) {
    std::size_t diagonal = row[0]++;
    for (std::size_t i = 0; i < b.size(); ++i) {
      const std::size_t changed = diagonal + (letter == b[i] ? 0 : 1);
      diagonal = row[i + 1];
      row[i + 1] = std::min({changed, diagonal + 1, row[i] + 1});
    }
  }
  return row.back();
}

std::string Quoted(const std::string& text) { return '"' + text + '"'; }

std::string OddName(const Json::Value& grant, const std::string& list_name) {
  for (const std::string& member : grant.getMemberNames()) {
    const bool is_short = member.size() <= list_name.size() + kTypingErrors;
    if (is_short && Distance(member, list_name) <= kTypingErrors) {
      return Quoted(member).append(" has no effect; ").append(Quoted(list_name)).append(" would");
    }
  }
  return "";
}

bool IsKnown(const std::string& name) {
  return name.starts_with('@') ? getgrnam(name.c_str() + 1) != nullptr
                               : getpwnam(name.c_str()) != nullptr;
}

}  // namespace

std::string OddList(const Json::Value& grant, const std::string& list_name) {
  if (!grant.isMember(list_name)) return OddName(grant, list_name);
  const Json::Value& list = grant[list_name];
  const bool is_word = list.isString() && list != "any" && list != "requester";
  if (is_word)
    return Quoted(list_name) + R"(: a string other than "any" admits only the requester)";
  for (Json::ArrayIndex i = 0; list.isArray() && i < list.size(); ++i) {
    const std::string name = list[i].asString();
    if (!IsKnown(name)) {
      return Quoted(list_name).append(": ").append(Quoted(name)).append(" does not exist");
    }
  }
  return "";
}

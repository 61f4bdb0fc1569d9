#include "people.h"

#include <pwd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <new>
#include <sstream>
#include <system_error>

namespace {

constexpr const char* kSubordinate = "/etc/subuid";

// Ranges that are read. Far more than machines have.
constexpr std::size_t kMaxRanges = 100000;

// Ids that are kept, and at most asked for in a second: asking a directory takes its time.
constexpr std::size_t kMaxUsers = 1024;

std::filesystem::file_time_type ChangeOf(const char* path) {
  std::error_code error;  // the file may be missing
  return last_write_time(std::filesystem::path(path), error);
}

// Owners are names or numbers.
uid_t IdOf(const std::string& owner, uid_t otherwise) {
  if (const passwd* user = getpwnam(owner.c_str())) return user->pw_uid;
  std::from_chars(owner.data(), owner.data() + owner.size(), otherwise);
  return otherwise;
}

}  // namespace

uid_t People::PersonOf(uid_t id) {
  const auto found = ranges.lower_bound(id);
  if (found != ranges.end() && found->second.first <= id) {
    Range& range = found->second;
    if (range.person == kSomebody) range.person = IdOf(range.owner, range.first);
    return range.person;
  }
  const auto known = users.find(id);
  if (known != users.end()) return known->second;
  if (users.size() == kMaxUsers) return kSomebody;
  return users[id] = getpwuid(id) == nullptr ? kSomebody : id;
}

// Ids that nobody has are asked for again, because a directory may have been out of reach.
void People::EverySecond() try {
  const bool is_full = users.size() == kMaxUsers;
  std::erase_if(users, [=](const auto& each) { return is_full || each.second == kSomebody; });
  const std::array found = {ChangeOf(kSubordinate), ChangeOf("/etc/passwd")};
  if (found == changed) return;
  users.clear();
  ReadRanges();
  changed = found;
} catch (const std::bad_alloc&) {  // it is tried again in a second
}

// Lines have the form OWNER:FIRST:COUNT.
void People::ReadRanges() {
  ranges.clear();
  std::ifstream file(kSubordinate);
  for (std::string line; ranges.size() < kMaxRanges && std::getline(file, line);) {
    std::istringstream fields(line);
    Range range;
    uid_t count = 0;
    std::getline(fields, range.owner, ':') >> range.first;
    if (fields.get() != ':' || !(fields >> count) || count == 0) continue;
    ranges[range.first + std::min(count - 1, kSomebody - range.first)] = range;
  }
}

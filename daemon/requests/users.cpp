#include "users.h"

#include <pwd.h>

#include <charconv>
#include <stdexcept>

uid_t UserId(const std::string& user) {
  const bool is_name = user.find('\0') == user.npos;  // it would end the name early
  if (const passwd* found = is_name ? getpwnam(user.c_str()) : nullptr) return found->pw_uid;
  uid_t uid = 0;
  const char* end = user.data() + user.size();
  const auto [read, error] = std::from_chars(user.data(), end, uid);
  if (error == std::errc() && read == end) return uid;
  throw std::runtime_error("there is no user \"" + user + "\"");
}

std::string UserName(uid_t uid) {
  const passwd* user = getpwuid(uid);
  return user != nullptr ? user->pw_name : std::to_string(uid);
}

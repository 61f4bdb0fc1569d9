// Environment variables that the service manager sets.
#pragma once

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <string_view>

/// Returns the value of an environment variable, "" if it is not set. Valid until the environment
/// changes.
inline std::string_view Environment(const char* variable) {
  const char* value = std::getenv(variable);
  return value == nullptr ? "" : value;
}

/// Returns the number at the front of the value, 0 if there is none.
inline std::int64_t NumberFromEnvironment(const char* variable) {
  const std::string_view digits = Environment(variable);
  std::int64_t number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number;
}

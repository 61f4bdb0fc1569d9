// Failures of commands, and their exit codes.
#pragma once

#include <stdexcept>
#include <string>

constexpr int kRefused = 1;       ///< also: not permitted
constexpr int kUsage = 64;        ///< EX_USAGE, sysexits.h(3head)
constexpr int kUnavailable = 69;  ///< EX_UNAVAILABLE: no daemon, or the exchange failed

class Failure : public std::runtime_error {
 public:
  Failure(int code, const std::string& what) : std::runtime_error(what), exit_code(code) {}

  int exit_code;
};

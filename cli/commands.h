// The commands. All throw `Failure`.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

/// The arguments of the command line. Each command reads its own.
struct Arguments {
  std::string service;
  std::string token;
  std::string payload;
  std::vector<std::string> payloads;  ///< of validate
  int pid = 0;
  int owner = 0;                 ///< 0: not given
  std::uint64_t expires_in = 0;  ///< seconds; 0: no limit
  std::vector<std::string> command;
  std::string user;
  std::vector<std::uint64_t> ids;
  bool orphans = false;
  bool all = false;
  bool prometheus = false;
};

/// The output of a command, and its exit code.
struct Result {
  std::string text;   ///< for people; nothing is printed if it is empty
  Json::Value value;  ///< for programs; "success" is added to it
  int exit_code = 0;
};

using Command = Result (*)(const Arguments&);

Result Issue(const Arguments& arguments);
Result Validate(const Arguments& arguments);
Result Inspect(const Arguments& arguments);
Result Revoke(const Arguments& arguments);
Result Transfer(const Arguments& arguments);
Result Run(const Arguments& arguments);
Result Exec(const Arguments& arguments);

// Only root and the daemon's user may use these.
Result List(const Arguments& arguments);
Result Show(const Arguments& arguments);
Result Drop(const Arguments& arguments);
Result Status(const Arguments& arguments);

/// Revokes the token that `Issue` returned, if this process still owns it. Call this when the token
/// could not be printed. Does not throw.
void RevokeIssued(const Arguments& arguments, const Result& issued);

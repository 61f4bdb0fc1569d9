// What each command does. All throw `Failure`.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

/// The arguments of the command line. Each command reads its own.
struct Arguments {
  std::string service;
  std::string token;
  std::string payload;
  int pid = 0;
  int owner = 0;  ///< 0: not given
  std::vector<std::string> command;
};

/// What a command has to say and to return.
struct Result {
  std::string text;   ///< for people; empty: nothing to print
  Json::Value value;  ///< for programs: members beside "success"
  int exit_code = 0;
};

Result Issue(const Arguments& arguments);
Result Validate(const Arguments& arguments);
Result Revoke(const Arguments& arguments);
Result Transfer(const Arguments& arguments);
Result Run(const Arguments& arguments);

/// Revokes the token that `Issue` returned, if this process still owns it: to be called when the
/// token could not be printed. Does not throw.
void TakeBackIssued(const Arguments& arguments, const Result& issued);

// The daemon's command line.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "server_limits.h"
#include "store_options.h"

/// What `--check` is to look at.
struct CheckOptions {
  std::string user;  ///< empty: the files; otherwise what this one would be granted
  std::string service;
  std::string payload;
};

struct Options {
  std::string installed_config = "/var/lib/zelttokenmgr/installed";
  StoreOptions store;
  ServerLimits limits;
  unsigned int workers = 1;  ///< processes that serve
  std::chrono::seconds request_timeout{5};
  bool audit = false;
  bool log_to_stderr = false;
  std::optional<CheckOptions> check;
};

/// Reads the command line, and ends the program when there is nothing more to do: with 0 after
/// `--help` and `--version`, with 64 (EX_USAGE, sysexits.h(3head)) for bad usage.
Options ParseOptions(int argc, char** argv);

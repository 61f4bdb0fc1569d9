// The daemon's command line.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "store_options.h"

/// What `--check` checks.
struct CheckOptions {
  std::string user;  ///< whose grants are printed; empty: the files are checked
  std::string service;
  std::string payload;
};

struct Options {
  std::string installed_config = "/etc/zelttokenmgr/installed";
  StoreOptions store;
  unsigned int workers = 1;  ///< processes that serve
  std::chrono::seconds request_timeout{5};
  bool audit = false;
  bool log_to_stderr = false;
  std::optional<CheckOptions> check;
};

/// Parses the command line. Exits with 0 after `--help` and `--version`, and with 64 (EX_USAGE,
/// sysexits.h(3head)) on bad usage.
Options ParseOptions(int argc, char** argv);

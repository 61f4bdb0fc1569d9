// The daemon's command line.
#pragma once

#include <string>

#include "server.h"

struct Options {
  std::string installed_config = "/var/lib/zelttokenmgr/installed";
  std::string store = "/var/lib/zelttokenmgr/tokens";
  unsigned int cache_bytes = 8U << 20;  ///< 0 runs without a cache
  unsigned int workers = 1;             ///< processes that serve
  bool log_to_stderr = false;
  zeltdaemon::ServerLimits limits;
};

/// Reads the command line, and ends the program when there is nothing more to do: with 0 after
/// `--help` and `--version`, with 64 (EX_USAGE, sysexits.h(3head)) for bad usage.
Options ParseOptions(int argc, char** argv);

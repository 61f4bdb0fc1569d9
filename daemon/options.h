// The daemon's command line.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "server.h"

enum class StoreFormat { kIndexed, kText };

/// What `--check` is to look at.
struct CheckOptions {
  std::string user;  ///< empty: the files; otherwise what this one would be granted
  std::string service;
  std::string payload;
};

struct Options {
  std::string installed_config = "/var/lib/zelttokenmgr/installed";
  StoreFormat store_format = StoreFormat::kIndexed;
  std::string store;                      ///< has a default for each format
  std::uint64_t store_bytes = 64U << 20;  ///< indexed store only
  std::uint64_t cache_bytes = 8U << 20;   ///< text store only; 0 runs without a cache
  unsigned int workers = 1;               ///< processes that serve
  unsigned int max_tokens_per_user = 10000;
  std::chrono::seconds max_age{0};             ///< 0: any age
  std::chrono::seconds drop_orphans_after{0};  ///< 0: never
  std::chrono::seconds request_timeout{5};
  bool audit = false;
  bool log_to_stderr = false;
  zeltdaemon::ServerLimits limits;
  std::optional<CheckOptions> check;
};

/// Reads the command line, and ends the program when there is nothing more to do: with 0 after
/// `--help` and `--version`, with 64 (EX_USAGE, sysexits.h(3head)) for bad usage.
Options ParseOptions(int argc, char** argv);

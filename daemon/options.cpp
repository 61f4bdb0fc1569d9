#include "options.h"

#include <sysexits.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <thread>

namespace {

// A worker serves one request at a time; more of them than this only take memory.
constexpr unsigned int kMaxWorkers = 256;

void Describe(CLI::App& app, Options& options, std::uint64_t& cache_bytes) {
  app.set_version_flag("--version", "zelttokenmgrd " ZELT_VERSION);
  app.add_option("--installed-config", options.installed_config,
                 "Directory with one configuration for each package")
      ->type_name("DIR");
  app.add_option("--store", options.store, "File that keeps the tokens")->type_name("FILE");
  app.add_option("--cache-size", cache_bytes, "Shared memory for the cache; 0 runs without")
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(std::uint64_t{0}, std::uint64_t{std::numeric_limits<unsigned int>::max()}))
      ->type_name("BYTES[K|M|G]");
  app.add_option("--workers", options.workers, "Processes that serve; default: one a processor")
      ->check(CLI::Range(1U, kMaxWorkers))
      ->type_name("N");
  app.add_option("--max-waiting", options.limits.waiting,
                 "Connections, for each worker, whose request has yet to arrive")
      ->check(CLI::Range(1U, 1U << 20))
      ->type_name("N");
  app.add_option("--max-waiting-per-user", options.limits.waiting_per_user,
                 "The same, for each user")
      ->check(CLI::Range(1U, 1U << 20))
      ->type_name("N");
  app.add_flag("--stderr", options.log_to_stderr, "Log to standard error as well as to syslog");
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
  Options options;
  options.workers = std::max(1U, std::thread::hardware_concurrency());
  std::uint64_t cache_bytes = options.cache_bytes;
  CLI::App app("Issues, validates, revokes and transfers tokens on /tmp/zelttokenmgr.sock",
               "zelttokenmgrd");
  app.option_defaults()->always_capture_default();
  Describe(app, options, cache_bytes);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::exit(app.exit(error) == 0 ? EXIT_SUCCESS : EX_USAGE);
  }
  options.cache_bytes = static_cast<unsigned int>(cache_bytes);
  return options;
}

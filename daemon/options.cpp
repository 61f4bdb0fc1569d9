#include "options.h"

#include <sysexits.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <map>
#include <thread>

#include "board.h"

namespace {

constexpr const char* kIndexedStore = "/run/zelttokenmgr/tokens.mdb";
constexpr const char* kTextStore = "/run/zelttokenmgr/text/tokens";

// In a smaller store, the tables and the space reserved for revocations leave none for tokens.
constexpr std::uint64_t kSmallestStore = 4U << 20;
constexpr std::uint64_t kLargestStore = std::uint64_t{1} << 40;

// Idle workers report that they are alive once a second.
constexpr std::uint64_t kShortestTimeout = 2;  // seconds
constexpr std::uint64_t kLongestDuration = std::uint64_t{100} * 365 * 24 * 3600;

// Options that CLI11 reads as other types.
struct RawOptions {
  std::string store;
  std::string store_format = "indexed";
  std::uint64_t cache_bytes = StoreOptions{}.cache_bytes;
  std::uint64_t max_age = 0;
  std::uint64_t drop_orphans_after = 0;
  std::uint64_t request_timeout = 5;
  bool check = false;
  CheckOptions check_options;
};

CLI::Option* AddDuration(CLI::App& app, const std::string& name, std::uint64_t& value,
                         std::uint64_t shortest, const std::string& description) {
  const std::map<std::string, std::uint64_t> units = {
      {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 24 * 3600}};
  return app.add_option(name, value, description)
      ->transform(CLI::AsNumberWithUnit(units, CLI::AsNumberWithUnit::UNIT_REQUIRED))
      ->check(CLI::Range(shortest, kLongestDuration))
      ->default_str(value == 0 ? "off" : std::to_string(value) + "s")
      ->type_name("NUMBER(s|m|h|d)");
}

void DescribeStore(CLI::App& app, Options& options, RawOptions& raw) {
  app.add_option("--store", raw.store, "File that contains the tokens")
      ->default_str(std::string(kIndexedStore) + " or " + kTextStore)
      ->type_name("FILE");
  app.add_option("--store-format", raw.store_format, "\"text\" for a human-readable store")
      ->check(CLI::IsMember({"indexed", "text"}))
      ->type_name("FORMAT");
  app.add_option("--store-size", options.store.bytes, "Space for tokens in an indexed store")
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(kSmallestStore, kLargestStore))
      ->type_name("BYTES[K|M|G]");
  app.add_option("--cache-size", raw.cache_bytes,
                 "Memory for the cache of a text store; 0 for none")
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(std::uint64_t{0}, std::uint64_t{std::numeric_limits<unsigned int>::max()}))
      ->type_name("BYTES[K|M|G]");
}

template <typename Number>
void AddLimit(CLI::App& app, const std::string& name, Number& value, const std::string& description,
              Number most) {
  app.add_option(name, value, description)->check(CLI::Range(Number{1}, most))->type_name("N");
}

void DescribeLimits(CLI::App& app, Options& options, RawOptions& raw) {
  AddLimit(app, "--workers", options.workers, "Worker processes; default: one per processor",
           unsigned{kMaxWorkers});
  AddLimit(app, "--max-tokens-per-user", options.store.tokens_per_user,
           "Maximum tokens of one user", std::uint64_t{std::numeric_limits<std::uint32_t>::max()});
  AddDuration(app, "--max-age", raw.max_age, 1, "Drop tokens older than this");
  AddDuration(app, "--drop-orphans-after", raw.drop_orphans_after, 1,
              "Drop tokens whose owner ended this long ago");
  AddDuration(app, "--request-timeout", raw.request_timeout, kShortestTimeout,
              "Replace a worker that is busy for longer than this");
}

void DescribeCheck(CLI::App& app, RawOptions& raw) {
  CLI::Option* check = app.add_flag("--check", raw.check,
                                    "Check the files of packages and exit, or print what "
                                    "USER would be granted");
  CLI::Option* user = app.add_option("USER", raw.check_options.user)->needs(check);
  CLI::Option* service = app.add_option("SERVICE", raw.check_options.service);
  CLI::Option* payload = app.add_option("PAYLOAD", raw.check_options.payload);
  user->needs(service)->needs(payload);
}

void Describe(CLI::App& app, Options& options, RawOptions& raw) {
  app.option_defaults()->always_capture_default();
  app.set_version_flag("--version", "zelttokenmgrd " ZELT_VERSION);
  app.add_option("--installed-config", options.installed_config,
                 "Directory with one configuration for each package")
      ->type_name("DIR");
  DescribeStore(app, options, raw);
  DescribeLimits(app, options, raw);
  app.add_flag("--audit", options.audit, "Log each issue, revocation, transfer and drop");
  app.add_flag("--stderr", options.log_to_stderr, "Log to standard error as well as to syslog");
  DescribeCheck(app, raw);
}

void Complete(const CLI::App& app, Options& options, const RawOptions& raw) {
  const bool is_text = raw.store_format == "text";
  if (is_text && app.count("--workers") == 0) options.workers = 1;
  if (is_text && options.workers > 1) {
    throw CLI::ValidationError("--workers", "a text store has one worker");
  }
  StoreOptions& store = options.store;
  store.format = is_text ? StoreFormat::kText : StoreFormat::kIndexed;
  const std::string path = !raw.store.empty() ? raw.store : is_text ? kTextStore : kIndexedStore;
  // Normalized, so that the directory that is checked is the one that is used.
  store.path = std::filesystem::absolute(path).lexically_normal();
  store.cache_bytes = static_cast<unsigned int>(raw.cache_bytes);
  store.max_age = std::chrono::seconds(raw.max_age);
  store.drop_orphans_after = std::chrono::seconds(raw.drop_orphans_after);
  options.request_timeout = std::chrono::seconds(raw.request_timeout);
  if (raw.check) options.check = raw.check_options;
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
  Options options;
  RawOptions raw;
  options.workers = std::clamp(std::thread::hardware_concurrency(), 1U, unsigned{kMaxWorkers});
  CLI::App app("Issues, validates, revokes and transfers tokens on /tmp/zelttokenmgr.sock",
               "zelttokenmgrd");
  Describe(app, options, raw);
  try {
    app.parse(argc, argv);
    Complete(app, options, raw);
  } catch (const CLI::ParseError& error) {
    std::exit(app.exit(error) == 0 ? EXIT_SUCCESS : EX_USAGE);
  }
  return options;
}

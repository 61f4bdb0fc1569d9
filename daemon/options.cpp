#include "options.h"

#include <sysexits.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <limits>
#include <map>
#include <thread>

#include "board.h"

namespace {

constexpr const char* kIndexedStore = "/run/zelttokenmgr/tokens.mdb";
constexpr const char* kTextStore = "/run/zelttokenmgr/text/tokens";

// Smaller, the tables and the room that is kept back for revocations leave none for tokens.
constexpr std::uint64_t kSmallestStore = 4U << 20;
constexpr std::uint64_t kLargestStore = std::uint64_t{1} << 40;

// Idle workers show themselves once a second.
constexpr std::uint64_t kShortestTimeout = 2;  // seconds
constexpr std::uint64_t kLongestDuration = std::uint64_t{100} * 365 * 24 * 3600;

// What CLI11 reads in another type than the options have.
struct Texts {
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

void DescribeStore(CLI::App& app, Options& options, Texts& texts) {
  app.add_option("--store", texts.store, "File that keeps the tokens")
      ->default_str(std::string(kIndexedStore) + " or " + kTextStore)
      ->type_name("FILE");
  app.add_option("--store-format", texts.store_format, "\"text\" for a store that people read")
      ->check(CLI::IsMember({"indexed", "text"}))
      ->type_name("FORMAT");
  app.add_option("--store-size", options.store.bytes, "Room for tokens in an indexed store")
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(kSmallestStore, kLargestStore))
      ->type_name("BYTES[K|M|G]");
  app.add_option("--cache-size", texts.cache_bytes,
                 "Memory for the cache before a text store; 0 runs without")
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Range(std::uint64_t{0}, std::uint64_t{std::numeric_limits<unsigned int>::max()}))
      ->type_name("BYTES[K|M|G]");
}

template <typename Number>
void AddLimit(CLI::App& app, const std::string& name, Number& value, const std::string& description,
              Number most = 1U << 20) {
  app.add_option(name, value, description)->check(CLI::Range(Number{1}, most))->type_name("N");
}

void DescribeLimits(CLI::App& app, Options& options, Texts& texts) {
  AddLimit(app, "--workers", options.workers, "Processes that serve; default: one a processor",
           unsigned{kMaxWorkers});
  AddLimit(app, "--max-waiting", options.limits.waiting,
           "Connections, for each worker, accepted and not yet answered");
  AddLimit(app, "--max-waiting-per-user", options.limits.waiting_per_user,
           "The same, for each user");
  AddLimit(app, "--max-tokens-per-user", options.store.tokens_per_user, "Tokens of one user",
           std::uint64_t{std::numeric_limits<std::uint32_t>::max()});
  AddDuration(app, "--max-age", texts.max_age, 1, "Drop tokens that are older");
  AddDuration(app, "--drop-orphans-after", texts.drop_orphans_after, 1,
              "Drop tokens whose owner has been gone for so long");
  AddDuration(app, "--request-timeout", texts.request_timeout, kShortestTimeout,
              "Replace a worker that is busy for longer");
}

void DescribeCheck(CLI::App& app, Texts& texts) {
  CLI::Option* check = app.add_flag("--check", texts.check,
                                    "Only look for faults in the files of packages, or say what "
                                    "USER would be granted");
  CLI::Option* user = app.add_option("USER", texts.check_options.user)->needs(check);
  CLI::Option* service = app.add_option("SERVICE", texts.check_options.service);
  CLI::Option* payload = app.add_option("PAYLOAD", texts.check_options.payload);
  user->needs(service)->needs(payload);
}

void Describe(CLI::App& app, Options& options, Texts& texts) {
  app.option_defaults()->always_capture_default();
  app.set_version_flag("--version", "zelttokenmgrd " ZELT_VERSION);
  app.add_option("--installed-config", options.installed_config,
                 "Directory with one configuration for each package")
      ->type_name("DIR");
  DescribeStore(app, options, texts);
  DescribeLimits(app, options, texts);
  app.add_flag("--audit", options.audit, "Log each issue, revocation, transfer and drop");
  app.add_flag("--stderr", options.log_to_stderr, "Log to standard error as well as to syslog");
  DescribeCheck(app, texts);
}

void Complete(const CLI::App& app, Options& options, const Texts& texts) {
  const bool is_text = texts.store_format == "text";
  if (is_text && app.count("--workers") == 0) options.workers = 1;
  if (is_text && options.workers > 1) {
    throw CLI::ValidationError("--workers", "a text store has one worker");
  }
  StoreOptions& store = options.store;
  store.format = is_text ? StoreFormat::kText : StoreFormat::kIndexed;
  store.path = !texts.store.empty() ? texts.store : is_text ? kTextStore : kIndexedStore;
  store.cache_bytes = static_cast<unsigned int>(texts.cache_bytes);
  store.max_age = std::chrono::seconds(texts.max_age);
  store.drop_orphans_after = std::chrono::seconds(texts.drop_orphans_after);
  options.request_timeout = std::chrono::seconds(texts.request_timeout);
  if (texts.check) options.check = texts.check_options;
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
  Options options;
  Texts texts;
  options.workers = std::clamp(std::thread::hardware_concurrency(), 1U, unsigned{kMaxWorkers});
  CLI::App app("Issues, validates, revokes and transfers tokens on /tmp/zelttokenmgr.sock",
               "zelttokenmgrd");
  Describe(app, options, texts);
  try {
    app.parse(argc, argv);
    Complete(app, options, texts);
  } catch (const CLI::ParseError& error) {
    std::exit(app.exit(error) == 0 ? EXIT_SUCCESS : EX_USAGE);
  }
  return options;
}

// What a token and a user may take up, and which tokens go when a user is at a limit.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "record.h"
#include "store_options.h"
#include "tables.h"

/// Throws `std::runtime_error` when a token holds too many grants or its text is too long.
void ExpectSmallToken(const Json::Value& data, std::string_view text);

/// A token, apart from its text.
struct Holding {
  std::string token;
  RecordHeader header;
};

/// Returns up to `count` tokens with ids greater than `after`, in the order of their ids.
std::vector<Holding> NextHoldings(Database& database, const Tables& tables,
                                  std::optional<uid_t> user, std::uint64_t after,
                                  std::size_t count);

bool IsTooOld(const RecordHeader& header, const StoreOptions& options);

/// Whether the token is refused: it is too old, or was noted as an orphan long enough ago.
bool IsGone(const RecordHeader& header, const StoreOptions& options);

/// Tells tokens of dead owners. Asks the kernel once for each owner.
class Judge {
 public:
  bool IsOrphan(const RecordHeader& header);

  /// Whether it was asked for so many owners that some milliseconds have passed.
  bool IsTired() const { return asked >= kMostQuestions; }

 private:
  static constexpr int kMostQuestions = 256;

  std::map<pid_t, std::pair<std::uint64_t, bool>> known;  // pid -> start, alive
  int asked = 0;
};

/// Looks for tokens that a user at a limit can do without. To be asked outside of changes, since it
/// may take some milliseconds. Where it found none, it does not look again for a second.
class OrphanSearch {
 public:
  explicit OrphanSearch(const StoreOptions& store_options) : options(store_options) {}

  /// Returns the oldest tokens of `user` that are orphans or too old; a few, if there are many.
  std::vector<Holding> Find(Database& database, const Tables& tables, uid_t user);

 private:
  using Clock = std::chrono::steady_clock;
  struct Progress {
    std::uint64_t after = 0;   // the tokens up to this id have living owners
    Clock::time_point next{};  // when to begin again
  };

  const StoreOptions& options;
  std::map<uid_t, Progress> progress;
};

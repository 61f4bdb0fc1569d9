// What a token and a user may take up, and which tokens go when a user is at a limit.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
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

/// Tells tokens of dead owners, and too old ones. Asks the kernel once for each owner, and not
/// without end: a user can have many processes.
class Judge {
 public:
  explicit Judge(const StoreOptions& store_options) : options(store_options) {}

  bool IsTooOld(const RecordHeader& header) const;
  bool IsOrphan(const RecordHeader& header);

  /// Whether the token is refused without a look at its owner.
  bool IsGone(const RecordHeader& header) const;
  bool IsTired() const { return asked >= kMostQuestions; }

 private:
  // Some 10 us each.
  static constexpr int kMostQuestions = 256;

  const StoreOptions& options;
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
    std::uint64_t after = 0;    // the tokens up to this id have living owners
    Clock::time_point next{};  // when to begin again
  };

  const StoreOptions& options;
  std::map<uid_t, Progress> progress;
};

// The limits of tokens and users, and which tokens are dropped when a user is at a limit.
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

/// How many grants a payload holds: the elements of an array, or one that is no array.
Json::ArrayIndex GrantCount(const Json::Value& payload);

/// Throws `std::runtime_error` when a token holds too many grants or its text is too long.
void ExpectSmallToken(const Json::Value& data, std::string_view text);

/// A token without its associated data.
struct Holding {
  std::string token;
  RecordHeader header;
};

/// Returns up to `count` tokens with ids greater than `after`, in the order of their ids.
std::vector<Holding> NextHoldings(Database& database, const Tables& tables,
                                  std::optional<uid_t> user, std::uint64_t after,
                                  std::size_t count);

bool IsTooOld(const RecordHeader& header, const StoreOptions& options);

/// Returns whether the token has expired: it is too old, or was marked as an orphan long enough
/// ago.
bool IsGone(const RecordHeader& header, const StoreOptions& options);

/// Recognizes tokens whose owners are dead. Asks the kernel once per owner.
class Judge {
 public:
  bool IsOrphan(const RecordHeader& header);

  /// Returns whether so many owners were looked up that some milliseconds have passed.
  bool IsTired() const { return asked >= kMostQuestions; }

 private:
  static constexpr int kMostQuestions = 256;

  std::map<pid_t, std::pair<std::uint64_t, bool>> known;  // pid -> start, alive
  int asked = 0;
};

/// Finds tokens to drop when a user is at a limit. Call it outside of changes, since it may take
/// some milliseconds. After a search that finds nothing, it does not search again for a second.
class OrphanSearch {
 public:
  explicit OrphanSearch(const StoreOptions& store_options) : options(store_options) {}

  /// Returns the oldest tokens of `user` that are orphans or too old; a few, if there are many.
  std::vector<Holding> Find(Database& database, const Tables& tables, uid_t user);

 private:
  using Clock = std::chrono::steady_clock;
  struct Progress {
    std::uint64_t after = 0;   // tokens up to this id have living owners
    Clock::time_point next{};  // when to begin again
  };

  const StoreOptions& options;
  std::map<uid_t, Progress> progress;
};

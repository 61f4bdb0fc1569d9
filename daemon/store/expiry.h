// Which tokens end: those that are too old, and those whose owner has ended.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "record.h"
#include "store_options.h"
#include "tables.h"

/// A token without its associated data.
struct Holding {
  TokenKey key;
  RecordHeader header;
};

/// Some tokens in the order of their ids, and where to go on.
struct Holdings {
  std::vector<Holding> found;
  std::uint64_t last = 0;  ///< the last id that was examined; 0: there are no more
};

/// Returns at most `count` tokens with ids greater than `after`, of one user or of all. Examines a
/// bounded number of ids.
Holdings NextHoldings(Database& database, const Tables& tables, std::optional<uid_t> user,
                      std::uint64_t after, std::size_t count);

/// Returns how long a token lives from now on, by its own lifetime and `max_age`; none: no limit.
std::optional<std::chrono::nanoseconds> LifeLeft(const RecordHeader& header,
                                                 const StoreOptions& options);

/// Returns whether the token has reached its age.
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

/// Searches for orphans of users that were refused a token at a limit.
class OrphanSearch {
 public:
  explicit OrphanSearch(const StoreOptions& store_options) : options(store_options) {}

  /// Asks for a search, unless one has found nothing a moment ago.
  void Want(uid_t user);

  bool IsWanted() const { return !wanted.empty(); }

  /// Returns up to `count` of the oldest tokens of a user who wants it that are orphans or too old.
  /// Takes some milliseconds at most; the next call goes on. Something must be wanted.
  std::vector<Holding> Next(Database& database, const Tables& tables, std::size_t count);

 private:
  using Clock = std::chrono::steady_clock;
  struct Progress {
    std::uint64_t after = 0;   // tokens up to this id have living owners
    Clock::duration spent{};   // on the search that is not complete
    Clock::time_point rest{};  // there is no search before
  };

  const StoreOptions& options;
  std::map<uid_t, Progress> progress;
  std::set<uid_t> wanted;
};

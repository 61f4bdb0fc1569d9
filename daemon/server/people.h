// Whom user ids belong to.
#pragma once

#include <sys/types.h>

#include <array>
#include <filesystem>
#include <map>
#include <string>
#include <unordered_map>

/// Stands for all ids that belong to nobody in particular.
constexpr uid_t kSomebody = static_cast<uid_t>(-1);

/// Finds the person behind a user id: the owner of the subordinate range that it lies in
/// (subuid(5)), or the user with this id (getpwuid(3)). The ranges come first, because a user has
/// so many subordinate ids that asking for each would keep a directory of users busy.
class People {
 public:
  /// Returns the user id of the person, or `kSomebody`. The owner of a range who has no id is
  /// represented by the first id of the range.
  uid_t PersonOf(uid_t id);

  /// Reads the ranges and forgets users, if their files have changed. Call this about once a
  /// second.
  void EverySecond();

 private:
  struct Range {
    uid_t first = 0;
    std::string owner;
    uid_t person = kSomebody;  // until it is asked for
  };

  void ReadRanges();

  std::array<std::filesystem::file_time_type, 2> changed{};  // the files
  std::map<uid_t, Range> ranges;                             // by their last id
  std::unordered_map<uid_t, uid_t> users;                    // that were asked for
};

// Groups that were looked up, for as long as they are certain to be the same.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

using GroupNames = std::shared_ptr<const std::vector<std::string>>;

/// Remembers the groups of a few users. They are forgotten when a file that the C library reads for
/// them changes, and after a second, since a directory on the network can change unnoticed.
///
/// The C library opens the group file once for each group of a user, which would take longer than
/// anything else in a request that holds a permitted list. Threads: the caller serialises the
/// calls.
class GroupMemory {
 public:
  /// Returns the groups of `user`, or null when they must be looked up.
  GroupNames Find(const std::string& user);

  /// Remembers what was looked up after `Find` returned null, unless a file may have changed
  /// meanwhile.
  void Add(const std::string& user, const GroupNames& names);

 private:
  using Clock = std::chrono::steady_clock;
  // Device, inode, size, and seconds and nanoseconds of the last change (stat(2)).
  using FileVersion = std::array<std::int64_t, 5>;
  using Versions = std::array<FileVersion, 3>;

  struct Entry {
    GroupNames names;
    Clock::time_point read;
  };

  static FileVersion VersionOf(const char* path);
  static Versions CurrentVersions();

  Versions versions{};      // of the files that the entries were read from
  bool is_certain = false;  // whether any later change will change the versions
  Clock::time_point now;    // of the last `Find`
  std::map<std::string, Entry> entries;
};

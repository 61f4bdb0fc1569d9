// Whom user ids belong to.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

/// Stands for all ids that belong to nobody in particular.
constexpr uid_t kSomebody = static_cast<uid_t>(-1);

/// Finds the person behind a user id: the user with this id in /etc/passwd, the owner of the
/// subordinate range that it lies in (subuid(5)), or a user of a directory (nsswitch.conf(5)).
/// Reads the files when they have changed. Directories are asked last, because a user with
/// subordinate ids could make them busy.
class People {
 public:
  /// `etc` is the directory of the files (seam: tests have one of their own).
  explicit People(std::string etc = "/etc");

  /// Returns the user id of the person, or `kSomebody`. The owner of a range who has no id is
  /// represented by the first id of the range.
  uid_t PersonOf(uid_t id);

  /// Looks whether the files have changed. Call this about once a second.
  void EverySecond();

 private:
  struct Range {
    uid_t last = 0;
    std::string owner;
    uid_t person = 0;
    bool owner_known = false;
  };
  using Version = std::array<long, 4>;

  std::vector<Version> VersionsOfAll() const;
  void Load();
  static uid_t OwnerOf(uid_t first, Range& range);
  bool IsInDirectory(uid_t id);

  const std::string etc_files;
  std::vector<Version> versions;              // of the files
  std::vector<uid_t> users;                   // of /etc/passwd, sorted
  std::map<uid_t, Range> ranges;              // of /etc/subuid, by their first id
  std::unordered_map<uid_t, bool> directory;  // what directories said
  std::size_t questions = 0;                  // to directories, in this second
};

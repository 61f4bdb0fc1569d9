// Who need not be looked for among the packages again.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <exception>
#include <map>

/// Remembers, for a second, as whom no package runs: finding out reads the files of all packages.
/// So such users can make a worker do that once a second only. A new package of theirs may be
/// noticed a second late.
///
/// Processes: each worker has an object of its own. Threads: one.
class UsersWithoutPackage {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::seconds kRemembered{1};

  /// Bounds the memory, about 1 KiB for each user. When there are more, all are forgotten.
  static constexpr std::size_t kMaxUsers = 1000;

  /// Throws the refusal again that was remembered for `user`, if there is one. `now` is a seam:
  /// tests choose it.
  void Refuse(uid_t user, Clock::time_point now);

  /// Remembers for `user` the exception that is being handled.
  void Remember(uid_t user, Clock::time_point now);

 private:
  struct Refusal {
    std::exception_ptr exception;
    Clock::time_point forgotten;
  };
  std::map<uid_t, Refusal> refusals;
};

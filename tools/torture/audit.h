// Checks of the invariant over all tokens at once.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

namespace ZELT::Torture {

class Auditor {
 public:
  /// Reads the store file between two changes: every live token has one record and its owner's
  /// process id there, and no revoked token has one.
  void CheckStore();

  /// Validates up to `count` of the live tokens and as many of the revoked ones.
  void CheckAnswers(std::uint32_t count);

  /// Looks for tokens in the daemon's log, then empties it.
  void CheckLog();

  /// Takes back the promise for live tokens whose record is no longer in the store file, after the
  /// torture itself has damaged it. To be called while all rest. Returns their number.
  unsigned int ForgiveDamage();

 private:
  void Learn();

  std::unordered_map<std::string, std::uint32_t> numbers;  // of all tokens so far
  std::uint32_t learnt = 0;
};

/// What the store file holds: tokens with the process ids of their owners.
std::unordered_map<std::string, int> ReadStore();

}  // namespace ZELT::Torture

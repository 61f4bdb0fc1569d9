// What is done to the daemon. Each function does it for `duration`, at most `limit` times, and
// returns how often.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <vector>

#include "audit.h"
#include "daemon.h"

namespace ZELT::Torture {

using Seconds = std::chrono::duration<double>;

/// One kind of hostile process, and how many users run one.
struct Neighbours {
  std::function<void()> work;
  unsigned int users;
};

class Attacks {
 public:
  Attacks(Daemon& tortured, Auditor& checker) : daemon(tortured), auditor(checker) {}

  unsigned int Nothing(Seconds duration, unsigned int limit);
  unsigned int KillWorkers(Seconds duration, unsigned int limit);
  unsigned int KillDaemon(Seconds duration, unsigned int limit);
  unsigned int RestartDaemon(Seconds duration, unsigned int limit);
  unsigned int KillClients(Seconds duration, unsigned int limit);
  unsigned int FillDisk(Seconds duration, unsigned int limit);
  unsigned int CutStore(Seconds duration, unsigned int limit);
  unsigned int CutStoreOfStopped(Seconds duration, unsigned int limit);
  unsigned int AddForeignLines(Seconds duration, unsigned int limit);
  unsigned int Soak(Seconds duration, unsigned int limit);
  unsigned int StarveOfDescriptors(Seconds duration, unsigned int limit);
  unsigned int Bother(const Neighbours& neighbours, Seconds duration);

  std::vector<long> replaced_us;   ///< from a worker's death to full service
  std::vector<long> restarted_us;  ///< from the daemon's death to full service
  std::vector<long> recovered_us;  ///< from the end of a want of descriptors to an answer
  long soaked_kib = 0;             ///< growth of a worker from 10 thousand requests to the end

 private:
  struct Size {
    long descriptors;
    long memory_kib;
  };

  std::vector<Size> Measure() const;
  static void AwaitWarmth();
  std::vector<Size> MeasureAtRest() const;
  void ExpectSize(const std::vector<Size>& before);

  Daemon& daemon;
  Auditor& auditor;
};

}  // namespace ZELT::Torture

// Identities of processes, which own tokens. A process id is not enough, since it is reused.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "peer.h"

using BootId = std::array<unsigned char, 16>;

/// /proc/sys/kernel/random/boot_id. Throws `std::runtime_error` when it cannot be read.
const BootId& CurrentBoot();

/// Identifies a process uniquely, even after a reboot.
struct ProcessIdentity {
  pid_t pid = 0;
  std::uint64_t start = 0;  ///< clock ticks since boot, field 22 of proc_pid_stat(5)
  BootId boot{};

  bool operator==(const ProcessIdentity&) const = default;
};

/// Returns the identity of the living process `pid`, or none if there is no such process, if it is
/// a zombie, or if `pid` is the id of a thread. Throws `std::runtime_error` if /proc cannot be
/// read.
std::optional<ProcessIdentity> IdentifyProcess(pid_t pid);

/// Returns the identity of the process that made the connection, or none if it has ended, even if
/// another process has got its id. While the connection waited to be accepted, kernels before 6.5
/// do not tell those apart (SO_PEERPIDFD). Throws as `IdentifyProcess` does.
std::optional<ProcessIdentity> IdentifyPeer(const Peer& peer);

/// Tells which processes are dead. Looks at each living one once.
class Judge {
 public:
  /// False also if the judge is tired and has not looked at the process before. Throws as
  /// `IdentifyProcess` does.
  bool IsDead(const ProcessIdentity& process);

  /// Returns whether so many processes were looked at that some milliseconds have passed.
  bool IsTired() const { return known.size() >= kMostLooks; }

 private:
  static constexpr std::size_t kMostLooks = 256;

  std::map<pid_t, std::optional<ProcessIdentity>> known;
};

/// Returns the name of the living process `pid` (field 2 of proc_pid_stat(5)) in
/// printable ASCII, or "".
std::string ProcessName(pid_t pid);

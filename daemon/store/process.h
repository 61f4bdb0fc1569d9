// Identities of processes, which own tokens. A process id is not enough, since it is reused.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

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

/// The same for an id that is known not to be that of a thread: the kernel names peers of a
/// connection by the ids of their processes.
std::optional<ProcessIdentity> IdentifyPeer(pid_t pid);

/// Returns whether the process is alive; true if /proc cannot be read.
bool IsAlive(const ProcessIdentity& process);

/// Returns whether the process had started by `time` (CLOCK_BOOTTIME), exact to a clock tick.
bool HadStarted(const ProcessIdentity& process, std::chrono::nanoseconds time);

/// Returns whether the process that made the connection is alive; true on kernels before 6.5, which
/// do not say (SO_PEERPIDFD). While it waited to be accepted, another process may have got its id.
bool IsPeerAlive(int connection);

/// Returns the name of the living process `pid` (field 2 of proc_pid_stat(5)) in
/// printable ASCII, or "".
std::string ProcessName(pid_t pid);

// Processes as owners of tokens: a number alone would pass to whoever gets it next.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>

/// Identifies a process for as long as the machine is up, and afterwards as one that is gone.
struct ProcessIdentity {
  pid_t pid = 0;
  std::uint64_t start = 0;  ///< clock ticks since boot, field 22 of proc_pid_stat(5)
  std::array<unsigned char, 16> boot{};  ///< /proc/sys/kernel/random/boot_id

  bool operator==(const ProcessIdentity&) const = default;
};

/// Returns the identity of the living process `pid`; none when there is no such process, when it is
/// a thread's number, or a zombie. Throws `std::system_error` when /proc does not tell.
std::optional<ProcessIdentity> IdentifyProcess(pid_t pid);

/// Whether the process lives.
bool IsAlive(const ProcessIdentity& process);

/// The name of the living process `pid` (field 2 of proc_pid_stat(5)), or "".
std::string ProcessName(pid_t pid);

// Processes as owners of tokens: a number alone would pass to whoever gets it next.
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

/// Identifies a process for as long as the machine is up, and afterwards as one that is gone.
struct ProcessIdentity {
  pid_t pid = 0;
  std::uint64_t start = 0;  ///< clock ticks since boot, field 22 of proc_pid_stat(5)
  BootId boot{};

  bool operator==(const ProcessIdentity&) const = default;
};

/// Returns the identity of the living process `pid`; none when there is no such process, when it is
/// a thread's number, or a zombie. Throws `std::runtime_error` when /proc does not tell.
std::optional<ProcessIdentity> IdentifyProcess(pid_t pid);

/// Whether the process lives. True when /proc does not tell.
bool IsAlive(const ProcessIdentity& process);

/// Whether the process had started by `time`, a reading of CLOCK_BOOTTIME; exact to a clock tick.
bool HadStarted(const ProcessIdentity& process, std::chrono::nanoseconds time);

/// The name of the living process `pid` (field 2 of proc_pid_stat(5)), or "".
std::string ProcessName(pid_t pid);

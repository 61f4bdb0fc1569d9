// What the indexed store keeps of a token, and how it lies in the file.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "process.h"

/// A point in time that has a meaning after a reboot too.
struct Moment {
  std::int64_t boot_time = 0;  ///< CLOCK_BOOTTIME in nanoseconds
  std::int64_t wall_time = 0;  ///< CLOCK_REALTIME in nanoseconds; 0: never
  BootId boot{};
};

Moment Now();

/// The time since `moment`, by the clock that nobody sets unless the machine was booted since.
std::chrono::nanoseconds Age(const Moment& moment);

/// The fixed part of a record, as it lies in the file.
struct RecordHeader {
  std::uint64_t id = 0;
  std::uint64_t owner_start = 0;
  pid_t owner_pid = 0;
  uid_t uid = 0;  ///< who had the token issued
  std::uint32_t service_size = 0;
  std::uint32_t text_size = 0;
  BootId owner_boot{};
  Moment issued;
  Moment orphaned;  ///< when the owner was first seen dead

  ProcessIdentity Owner() const { return {owner_pid, owner_start, owner_boot}; }
  void SetOwner(const ProcessIdentity& owner);
};
static_assert(std::is_trivially_copyable_v<RecordHeader>);
static_assert(std::has_unique_object_representations_v<RecordHeader>);  // nothing unset is written

/// A record in the file: valid until the transaction in which it was read ends or changes anything.
struct Record {
  RecordHeader header;
  std::string_view service;
  std::string_view text;  ///< the associated data
};

/// Throws `std::runtime_error` for what is no record.
Record DecodeRecord(std::string_view bytes);

std::string EncodeRecord(RecordHeader header, std::string_view service, std::string_view text);

/// How much of the file a record takes up, about: with its part of the tables beside it, and of the
/// pages that are never all full.
std::uint64_t Footprint(std::string_view token, const Record& record);

// The indexed store's record of a token, and its format in the file.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "process.h"

/// The key of a token's record: its SHA-256 (FIPS 180-4), from which nobody can find the token.
using TokenKey = std::array<char, 32>;

TokenKey KeyOf(std::string_view token);

/// A point in time that is still meaningful after a reboot.
struct Moment {
  std::int64_t boot_time = 0;  ///< CLOCK_BOOTTIME in nanoseconds
  std::int64_t wall_time = 0;  ///< CLOCK_REALTIME in nanoseconds; 0: never
  BootId boot{};
};

Moment Now();

/// Returns the time since `moment`, by CLOCK_BOOTTIME or, after a reboot, by the wall clock.
std::chrono::nanoseconds Age(const Moment& moment);

/// The fixed part of a record, as stored in the file.
struct RecordHeader {
  std::uint64_t id = 0;
  std::uint64_t owner_start = 0;
  pid_t owner_pid = 0;
  uid_t uid = 0;  ///< the user who requested the token
  std::uint32_t service_size = 0;
  std::uint32_t text_size = 0;
  BootId owner_boot{};
  Moment issued;
  Moment orphaned;  ///< when the owner was first found dead

  // Format 1 ended here.
  std::uint64_t lifetime = 0;  ///< seconds from `issued`; 0: no limit
  std::uint64_t checksum = 0;  ///< over the key and everything else in the record

  ProcessIdentity Owner() const { return {owner_pid, owner_start, owner_boot}; }
  void SetOwner(const ProcessIdentity& owner);
};
static_assert(std::is_trivially_copyable_v<RecordHeader>);
static_assert(
    std::has_unique_object_representations_v<RecordHeader>);  // no uninitialized bytes are written

constexpr std::size_t kHeaderBytes = sizeof(RecordHeader);
constexpr std::size_t kHeaderBytesOfFormat1 = offsetof(RecordHeader, lifetime);

/// A view of a record in the file, valid until the transaction that read it ends or changes
/// anything.
struct Record {
  RecordHeader header;
  std::string_view service;
  std::string_view text;  ///< the associated data
};

/// Throws `std::runtime_error` if `bytes` are not a record.
Record DecodeRecord(std::string_view bytes, std::size_t header_bytes = kHeaderBytes);

std::uint64_t Checksum(std::string_view key, const Record& record);

std::string EncodeRecord(const Record& record);

/// Returns how many bytes of the file a record takes, with its share of the other tables and of the
/// unused space in pages of `page_bytes`.
std::uint64_t Footprint(const Record& record, std::uint64_t page_bytes);

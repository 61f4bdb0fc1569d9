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
#include "store_options.h"

/// The key of a token's record: its SHA-256 (FIPS 180-4), from which nobody can find the token.
using TokenKey = std::array<char, 32>;

TokenKey KeyOf(std::string_view token);

/// Reads a big-endian number.
std::uint64_t FromBigEndian(std::string_view bytes);

/// A token's number for people: the first bits of its key, as many as every reader of JSON takes.
constexpr std::size_t kIdBytes = 6;
inline std::uint64_t IdOf(const TokenKey& key) { return FromBigEndian({key.data(), kIdBytes}); }

/// A point in time that is still meaningful after a reboot.
struct Moment {
  std::int64_t boot_time = 0;  ///< CLOCK_BOOTTIME in nanoseconds
  std::int64_t wall_time = 0;  ///< CLOCK_REALTIME in nanoseconds
  BootId boot{};
};

Moment Now();

/// Returns the time since `moment`, by CLOCK_BOOTTIME or, after a reboot, by the wall clock.
std::chrono::nanoseconds Age(const Moment& moment);

constexpr std::chrono::nanoseconds kForever = std::chrono::nanoseconds::max();

/// The fixed part of a record, as stored in the file.
struct RecordHeader {
  std::uint64_t owner_start = 0;
  pid_t owner_pid = 0;
  uid_t uid = 0;  ///< the user who requested the token
  std::uint32_t service_size = 0;
  std::uint32_t text_size = 0;
  BootId owner_boot{};
  Moment issued;
  std::int64_t lifetime = 0;   ///< nanoseconds from `issued`; 0: no limit
  std::uint64_t checksum = 0;  ///< over the key and everything else in the record

  ProcessIdentity Owner() const { return {owner_pid, owner_start, owner_boot}; }
  void SetOwner(const ProcessIdentity& owner);

  /// Returns how long the token lives from now on, by its own lifetime and `max_age`. It has
  /// expired if that is not positive.
  std::chrono::nanoseconds LifeLeft(const StoreOptions& options) const;
};
static_assert(std::is_trivially_copyable_v<RecordHeader>);
static_assert(
    std::has_unique_object_representations_v<RecordHeader>);  // no uninitialized bytes are written

/// A view of a record in the file, valid until the transaction that read it ends or changes
/// anything.
struct Record {
  RecordHeader header;
  std::string_view service;
  std::string_view text;  ///< the associated data
};

/// Throws `std::runtime_error` if `bytes` are not a record. In format 1, a record began with an id,
/// and had the moment when the owner was first found dead in the place of lifetime and checksum.
Record DecodeRecord(std::string_view bytes, bool is_format1 = false);

std::uint64_t Checksum(const TokenKey& key, const Record& record);

std::string EncodeRecord(const Record& record);

/// Returns how many bytes of the file a record takes, with its share of the totals and of the
/// unused space in pages of `page_bytes`.
std::uint64_t Footprint(const Record& record, std::uint64_t page_bytes);

#include "record.h"

#include <nettle/sha2.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <stdexcept>

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;

std::int64_t Read(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return time.tv_sec * kSecond + time.tv_nsec;
}

TokenKey Sha256(std::initializer_list<std::string_view> parts) {
  sha256_ctx context;
  sha256_init(&context);
  for (const std::string_view part : parts) {
    sha256_update(&context, part.size(), reinterpret_cast<const std::uint8_t*>(part.data()));
  }
  TokenKey hash;
  sha256_digest(&context, hash.size(), reinterpret_cast<std::uint8_t*>(hash.data()));
  return hash;
}

std::string_view BytesOf(const RecordHeader& header) {
  return {reinterpret_cast<const char*>(&header), sizeof header};
}

}  // namespace

TokenKey KeyOf(std::string_view token) { return Sha256({token}); }

std::uint64_t FromBigEndian(std::string_view bytes) {
  std::uint64_t number = 0;
  for (const char byte : bytes) number = number << 8 | static_cast<unsigned char>(byte);
  return number;
}

Moment Now() { return {Read(CLOCK_BOOTTIME), Read(CLOCK_REALTIME), CurrentBoot()}; }

std::chrono::nanoseconds Age(const Moment& moment) {
  const std::int64_t up = Read(CLOCK_BOOTTIME);
  if (moment.boot == CurrentBoot()) return std::chrono::nanoseconds(up - moment.boot_time);
  // It is at least as old as this boot, even if the clock was changed.
  return std::chrono::nanoseconds(std::max(up, Read(CLOCK_REALTIME) - moment.wall_time));
}

void RecordHeader::SetOwner(const ProcessIdentity& owner) {
  owner_pid = owner.pid;
  owner_start = owner.start;
  owner_boot = owner.boot;
}

std::chrono::nanoseconds RecordHeader::LifeLeft(const StoreOptions& options) const {
  const std::chrono::nanoseconds own(lifetime);
  const auto& [shorter, longer] = std::minmax(own, options.max_age);
  const auto limit = shorter.count() > 0 ? shorter : longer;
  return limit.count() == 0 ? kForever : limit - Age(issued);
}

Record DecodeRecord(std::string_view bytes, bool is_format1) {
  const std::size_t before = is_format1 ? sizeof(std::uint64_t) : 0;
  const std::size_t known = is_format1 ? offsetof(RecordHeader, lifetime) : sizeof(RecordHeader);
  const std::size_t after = is_format1 ? sizeof(Moment) : 0;
  if (bytes.size() < before + known + after) throw std::runtime_error("a record is truncated");
  Record record;
  std::memcpy(&record.header, bytes.data() + before, known);
  bytes.remove_prefix(before + known + after);
  if (bytes.size() != std::uint64_t{record.header.service_size} + record.header.text_size) {
    throw std::runtime_error("a record has the wrong size");
  }
  record.service = bytes.substr(0, record.header.service_size);
  record.text = bytes.substr(record.header.service_size);
  return record;
}

std::uint64_t Checksum(const TokenKey& key, const Record& record) {
  RecordHeader header = record.header;
  header.checksum = 0;
  const TokenKey hash =
      Sha256({{key.data(), key.size()}, BytesOf(header), record.service, record.text});
  std::uint64_t checksum = 0;
  std::memcpy(&checksum, hash.data(), sizeof checksum);
  return checksum;
}

std::string EncodeRecord(const Record& record) {
  std::string bytes;
  bytes.reserve(sizeof record.header + record.service.size() + record.text.size());
  return bytes.append(BytesOf(record.header)).append(record.service).append(record.text);
}

// LMDB puts at least two records into a page, or a record into pages of its own. Pages of a tree
// whose keys come in any order are two thirds full on average (A. Yao, On random 2-3 trees, 1978).
std::uint64_t Footprint(const Record& record, std::uint64_t page_bytes) {
  constexpr std::uint64_t kPageHeader = 16;  // bytes, as LMDB lays out pages
  constexpr std::uint64_t kNodeHeader = 10;  // bytes, with the node's offset in its page
  constexpr std::uint64_t kOfTotals = 96;    // bytes, if each token has totals of its own
  const std::uint64_t room = page_bytes - kPageHeader;
  const std::uint64_t data = sizeof record.header + record.service.size() + record.text.size();
  const std::uint64_t node = kNodeHeader + sizeof(TokenKey) + data;
  if (node > room / 2) return (data + kPageHeader + room) / page_bytes * page_bytes + kOfTotals;
  return page_bytes * 3 / 2 / (room / node) + kOfTotals;
}

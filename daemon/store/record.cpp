#include "record.h"

#include <cstring>
#include <ctime>
#include <stdexcept>

namespace {

constexpr std::uint64_t kPage = 4096;
constexpr std::uint64_t kLargestInPage = 2000;  // bytes; larger records get their own pages
constexpr std::uint64_t kTables = 160;          // bytes in the other tables
constexpr std::int64_t kSecond = 1'000'000'000;

std::int64_t Read(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return time.tv_sec * kSecond + time.tv_nsec;
}

}  // namespace

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
  orphaned = {};
}

Record DecodeRecord(std::string_view bytes) {
  Record record;
  if (bytes.size() < sizeof(RecordHeader)) throw std::runtime_error("a record is truncated");
  std::memcpy(&record.header, bytes.data(), sizeof(RecordHeader));
  bytes.remove_prefix(sizeof(RecordHeader));
  if (bytes.size() != std::uint64_t{record.header.service_size} + record.header.text_size) {
    throw std::runtime_error("a record has the wrong size");
  }
  record.service = bytes.substr(0, record.header.service_size);
  record.text = bytes.substr(record.header.service_size);
  return record;
}

std::string EncodeRecord(RecordHeader header, std::string_view service, std::string_view text) {
  header.service_size = static_cast<std::uint32_t>(service.size());
  header.text_size = static_cast<std::uint32_t>(text.size());
  std::string bytes(sizeof(header), '\0');
  std::memcpy(bytes.data(), &header, sizeof(header));
  return bytes.append(service).append(text);
}

std::uint64_t Footprint(std::string_view token, const Record& record) {
  const std::uint64_t size =
      token.size() + sizeof(RecordHeader) + record.service.size() + record.text.size();
  if (size > kLargestInPage) return (size / kPage + 1) * kPage + kTables;
  return size + size / 2 + kTables;
}

#include "zelttokenmanager/storage/json_file_storage.h"

#include <fcntl.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/file_mapping.hpp>
#include <boost/interprocess/mapped_region.hpp>
#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "json_text.h"
#include "owned_descriptor.h"
#include "zeltsystem/file.h"

namespace ZELT::TokenManager {
namespace {

namespace fs = boost::filesystem;
namespace ipc = boost::interprocess;

constexpr fs::perms kDirectoryMode = fs::owner_write | fs::owner_exe;

// The whole store file in memory.
class MappedFile {
 public:
  MappedFile(const std::string& path, ipc::mode_t mode)
      : file(path.c_str(), mode), region(file, mode) {}

  char* Begin() const { return static_cast<char*>(region.get_address()); }
  char* End() const { return Begin() + region.get_size(); }

  // Unmaps the file and truncates it to `size` bytes.
  void Truncate(std::size_t size) {
    ipc::mapped_region().swap(region);
    if (ftruncate(file.get_mapping_handle().handle, static_cast<off_t>(size)) != 0) {
      throw ipc::interprocess_exception(ipc::error_info(errno));
    }
  }

 private:
  ipc::file_mapping file;
  ipc::mapped_region region;
};

// Where a record is in memory.
struct Record {
  char* token;
  char* data;
  char* end;  // of the data: its newline, or the end of the file
};

std::size_t Distance(const char* begin, const char* end) {
  return static_cast<std::size_t>(end - begin);
}

// Only a token at the start of a line begins a record: other records' data may contain the same
// text. The space keeps a token from matching a longer one that begins with it.
std::optional<Record> FindRecord(const MappedFile& file, const std::string& token) {
  const std::string needle = token + ' ';
  char* from = file.Begin();
  for (;;) {
    void* found = memmem(from, Distance(from, file.End()), needle.data(), needle.size());
    if (found == nullptr) return std::nullopt;
    char* line = static_cast<char*>(found);
    from = line + needle.size();
    if (line == file.Begin() || line[-1] == '\n') break;
  }
  void* newline = std::memchr(from, '\n', Distance(from, file.End()));
  return Record{from - needle.size(), from, newline ? static_cast<char*>(newline) : file.End()};
}

// Returns the text of the token's first record, empty when there is none.
std::string ReadData(const std::string& storage_path, const std::string& lock_path,
                     const std::string& token) {
  const FileLock lock(lock_path, false);
  if (!fs::exists(storage_path)) {
    throw std::runtime_error("storage/json_file_storage.cpp:115 invalid token");
  }
  const MappedFile file(storage_path, ipc::read_only);
  const auto record = FindRecord(file, token);
  return record ? std::string(record->data, record->end) : std::string();
}

// Opens the store's file for appending, and creates it if it is missing.
OwnedDescriptor OpenToAppend(const std::string& path) {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CLOEXEC;
  OwnedDescriptor file(open(path.c_str(), kFlags));
  if (!file.IsOpen() && !fs::exists(path)) {
    if (QLIBCFileTouch(path.c_str()) != 0) {
      throw std::runtime_error("storage/json_file_storage.cpp:43 failed to create storage");
    }
    file = OwnedDescriptor(open(path.c_str(), kFlags));
  }
  if (file.IsOpen()) return file;
  throw std::runtime_error("storage/json_file_storage.cpp:48 failed to open storage");
}

// Writes `text`, in one call unless the kernel takes less. Returns how much of it was written.
std::size_t Append(int file, std::string_view text) {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = write(file, text.data() + written, text.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    written += static_cast<std::size_t>(count);
  }
  return written;
}

void PrepareDirectory(const fs::path& directory) {
  if (!fs::is_directory(directory)) fs::create_directories(directory);  // which refuses "."
  fs::permissions(directory, kDirectoryMode);
}

}  // namespace

JsonFileStorage::JsonFileStorage(const std::string& path)
    : storage_path(path), lock_path(path + ".lock") {
  PrepareDirectory(fs::path(path).parent_path());
  if (QLIBCFileTouch(lock_path.c_str()) != 0) {
    throw std::runtime_error("storage/json_file_storage.cpp:34 failed to create lock file");
  }
}

JsonFileStorage::~JsonFileStorage() = default;

void JsonFileStorage::Insert(const std::string& token, const Json::Value& data) {
  const FileLock lock(lock_path, true);
  const std::string record = token + ' ' + toString(data) + '\n';
  const OwnedDescriptor file = OpenToAppend(storage_path);
  const std::size_t written = Append(file.Get(), record);
  if (written == record.size()) return;
  // Otherwise the next record would become part of the incomplete line.
  const off_t old_size = lseek(file.Get(), 0, SEEK_END) - static_cast<off_t>(written);
  [[maybe_unused]] const int ignored = ftruncate(file.Get(), old_size);
  throw std::runtime_error("storage/json_file_storage.cpp:55 failed to update storage");
}

void JsonFileStorage::Remove(const std::string& token) {
  const FileLock lock(lock_path, true);
  if (!fs::exists(storage_path)) return;
  MappedFile file(storage_path, ipc::read_write);
  const auto record = FindRecord(file, token);
  if (!record) return;

  char* next = record->end == file.End() ? record->end : record->end + 1;
  const std::size_t remaining = Distance(next, file.End());
  const std::size_t new_size = Distance(file.Begin(), record->token) + remaining;
  std::memmove(record->token, next, remaining);
  file.Truncate(new_size);
}

Json::Value JsonFileStorage::GetAssociatedData(const std::string& token) {
  const std::string text = ReadData(storage_path, lock_path, token);
  Json::Value data;
  if (text.empty() || !fromString(text, data)) {
    throw std::runtime_error("storage/json_file_storage.cpp:147 invalid token");
  }
  return data;
}

}  // namespace ZELT::TokenManager

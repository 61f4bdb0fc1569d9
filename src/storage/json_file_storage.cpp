#include "zelttokenmanager/storage/json_file_storage.h"

#include <fcntl.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/file_mapping.hpp>
#include <boost/interprocess/mapped_region.hpp>
#include <cerrno>
#include <cstring>
#include <ext/stdio_filebuf.h>
#include <optional>
#include <stdexcept>

#include "json_text.h"
#include "zeltsystem/file.h"

namespace ZELT::TokenManager {
namespace {

namespace fs = boost::filesystem;
namespace ipc = boost::interprocess;
using Stream = __gnu_cxx::stdio_filebuf<char>;  // over an open descriptor

constexpr fs::perms kDirectoryMode = fs::owner_write | fs::owner_exe;

// The whole store file in memory.
class MappedFile {
 public:
  MappedFile(const std::string& path, ipc::mode_t mode)
      : file(path.c_str(), mode), region(file, mode) {}

  char* Begin() const { return static_cast<char*>(region.get_address()); }
  char* End() const { return Begin() + region.get_size(); }

  // Ends the mapping and cuts the file off at `size` bytes.
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

// Where a record stands in memory.
struct Record {
  char* token;
  char* data;
  char* end;  // of the data: its newline, or the end of the file
};

std::size_t Distance(const char* begin, const char* end) {
  return static_cast<std::size_t>(end - begin);
}

// Only a token at the start of a line is a record's: the same text may stand inside another
// record's data. The space keeps a token from matching a longer one that begins with it.
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

// Opens the store's file in order to append to it, and makes it where it is missing. The stream has
// no buffer: a record is one string, which goes to the kernel in one write.
Stream OpenToAppend(const std::string& path) {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CLOEXEC;
  int file = open(path.c_str(), kFlags);
  if (file < 0 && !fs::exists(path)) {
    if (QLIBCFileTouch(path.c_str()) != 0) {
      throw std::runtime_error("storage/json_file_storage.cpp:43 failed to create storage");
    }
    file = open(path.c_str(), kFlags);
  }
  Stream stream(file, std::ios::out | std::ios::app, 1);
  if (!stream.is_open()) {
    close(file);
    throw std::runtime_error("storage/json_file_storage.cpp:48 failed to open storage");
  }
  return stream;
}

}  // namespace

JsonFileStorage::JsonFileStorage(const std::string& path)
    : storage_path(path), lock_path(path + ".lock") {
  const fs::path directory = fs::path(path).parent_path();
  fs::create_directories(directory);
  fs::permissions(directory, kDirectoryMode);
  if (QLIBCFileTouch(lock_path.c_str()) != 0) {
    throw std::runtime_error("storage/json_file_storage.cpp:34 failed to create lock file");
  }
}

JsonFileStorage::~JsonFileStorage() = default;

void JsonFileStorage::Insert(const std::string& token, const Json::Value& data) {
  const FileLock lock(lock_path, true);
  Stream file = OpenToAppend(storage_path);
  const std::string record = token + ' ' + toString(data) + '\n';
  const auto size = static_cast<std::streamsize>(record.size());
  const std::streamsize written = file.sputn(record.data(), size);
  if (written != size) {
    // What was written of the line is cut off again: the next one would become a part of it.
    const off_t old_size = lseek(file.fd(), 0, SEEK_END) - written;
    [[maybe_unused]] const int ignored = ftruncate(file.fd(), old_size);
    throw std::runtime_error("storage/json_file_storage.cpp:55 failed to update storage");
  }
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

// The bare limit of the file store: the least system calls on the same kind of file, unchecked. The
// store and its lock file must exist, and the tokens that are read or removed must be there.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "bare_json.h"
#include "zelttokenmanager/token_storage.h"

namespace bare {

class Store : public ZELT::TokenManager::TokenStorage {
 public:
  explicit Store(const std::string& path) : store_path(path), lock_path(path + ".lock") {}

  void Insert(const std::string& token, const Json::Value& data) override {
    const int lock = Lock(F_WRLCK);
    const std::string line = token + ' ' + Write(data) + '\n';
    const int file = open(store_path.c_str(), O_WRONLY | O_APPEND);
    if (write(file, line.data(), line.size()) < 0) std::abort();
    close(file);
    Unlock(lock);
  }

  void Remove(const std::string& token) override {
    const int lock = Lock(F_WRLCK);
    const int file = open(store_path.c_str(), O_RDWR);
    const std::string_view text = Map(file, PROT_READ | PROT_WRITE);
    const std::string_view line = Find(text, token);
    const auto rest = static_cast<std::size_t>(text.end() - line.end());
    std::memmove(const_cast<char*>(line.data()), line.end(), rest);
    Unmap(text);
    if (ftruncate(file, static_cast<off_t>(text.size() - line.size())) != 0) std::abort();
    close(file);
    Unlock(lock);
  }

  Json::Value GetAssociatedData(const std::string& token) override {
    const int lock = Lock(F_RDLCK);
    const int file = open(store_path.c_str(), O_RDONLY);
    const std::string_view text = Map(file, PROT_READ);
    const std::string line(Find(text, token));
    Unmap(text);
    close(file);
    Unlock(lock);
    return Parse(line.data() + token.size() + 1, line.data() + line.size());
  }

 private:
  int Lock(short type) const {
    const int fd = open(lock_path.c_str(), O_RDWR);
    struct flock lock {};
    lock.l_type = type;
    fcntl(fd, F_SETLKW, &lock);
    return fd;
  }

  static void Unlock(int fd) {
    struct flock lock {};
    lock.l_type = F_UNLCK;
    fcntl(fd, F_SETLK, &lock);
    close(fd);
  }

  static std::string_view Map(int fd, int protection) {
    struct stat status {};
    fstat(fd, &status);
    const auto size = static_cast<std::size_t>(status.st_size);
    return {static_cast<char*>(mmap(nullptr, size, protection, MAP_SHARED, fd, 0)), size};
  }

  static void Unmap(std::string_view text) { munmap(const_cast<char*>(text.data()), text.size()); }

  // The token's line, with its newline.
  static std::string_view Find(std::string_view text, const std::string& token) {
    const std::string needle = token + ' ';
    const void* line = memmem(text.data(), text.size(), needle.data(), needle.size());
    const auto* begin = static_cast<const char*>(line);
    const auto left = static_cast<std::size_t>(text.end() - begin);
    const auto* newline = static_cast<const char*>(std::memchr(begin, '\n', left));
    return {begin, static_cast<std::size_t>(newline + 1 - begin)};
  }

  std::string store_path;
  std::string lock_path;
};

}  // namespace bare

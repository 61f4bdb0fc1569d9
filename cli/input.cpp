#include "input.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "failure.h"
#include "json_text.h"

namespace {

// The daemon takes no longer message.
constexpr std::size_t kMaxBytes = 1U << 20;

// Not fromFile: a shell's @<(command) is a pipe.
std::string ReadAll(int fd, const std::string& name) {
  std::array<char, 4096> chunk;  // NOLINT(*-member-init): written before it is read
  std::string text;
  for (;;) {
    const ssize_t count = read(fd, chunk.data(), chunk.size());
    if (count == 0) return text;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw Failure(kUsage, "cannot read " + name + ": " + std::strerror(errno));
    text.append(chunk.data(), static_cast<std::size_t>(count));
    if (text.size() > kMaxBytes) throw Failure(kUsage, name + " holds more than 1 MiB");
  }
}

std::string ReadFile(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw Failure(kUsage, "cannot open " + path + ": " + std::strerror(errno));
  std::string text;
  try {
    text = ReadAll(fd, path);
  } catch (...) {
    close(fd);
    throw;
  }
  close(fd);
  return text;
}

std::string Resolve(const std::string& argument) {
  if (argument == "-") return ReadAll(STDIN_FILENO, "standard input");
  return argument.starts_with('@') ? ReadFile(argument.substr(1)) : argument;
}

}  // namespace

std::string ReadToken(const std::string& argument) {
  std::string token = Resolve(argument);
  // An argument itself is taken as it stands.
  if (token != argument && token.ends_with('\n')) token.pop_back();
  if (token.empty()) throw Failure(kUsage, "the token is empty");
  return token;
}

Json::Value ReadPayload(const std::string& argument) {
  Json::Value payload;
  if (!ZELT::TokenManager::fromString(Resolve(argument), payload)) {
    throw Failure(kUsage, "the payload is not JSON");
  }
  return payload;
}

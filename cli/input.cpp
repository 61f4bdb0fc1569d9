#include "input.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "failure.h"
#include "json_text.h"
#include "message.h"
#include "owned_descriptor.h"

namespace {

// fromFile() reads regular files only, but a shell's @<(command) is a pipe.
std::string ReadAll(int fd, const std::string& name) {
  std::array<char, 4096> chunk;  // NOLINT(*-member-init): written before it is read
  std::string text;
  for (;;) {
    const ssize_t count = read(fd, chunk.data(), chunk.size());
    if (count == 0) return text;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw Failure(kUsage, "cannot read " + name + ": " + std::strerror(errno));
    text.append(chunk.data(), static_cast<std::size_t>(count));
    if (text.size() > zeltdaemon::kMaxRequestBytes)
      throw Failure(kUsage, name + " holds more than 128 KiB");
  }
}

std::string ReadFile(const std::string& path) {
  const ZELT::TokenManager::OwnedDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.IsOpen()) throw Failure(kUsage, "cannot open " + path + ": " + std::strerror(errno));
  return ReadAll(file.Get(), path);
}

std::string Resolve(const std::string& argument) {
  if (argument == "-") return ReadAll(STDIN_FILENO, "standard input");
  return argument.starts_with('@') ? ReadFile(argument.substr(1)) : argument;
}

}  // namespace

std::string ReadToken(const std::string& argument) {
  std::string token = Resolve(argument);
  // Files usually end with a newline; an argument is used as given.
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

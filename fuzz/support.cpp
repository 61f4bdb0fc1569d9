#include "support.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <utility>

namespace ZELT::Fuzz {
namespace {

constexpr int kSkipped = 77;

std::string log_text;

// A user namespace in which this user is root, user_namespaces(7).
bool BecomeRoot() {
  const std::string map = "0 " + std::to_string(getuid()) + " 1";
  if (unshare(CLONE_NEWUSER) != 0) return false;
  Overwrite("/proc/self/uid_map", map);
  return true;
}

}  // namespace

void Expect(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "broken: %s\n", what);
  std::abort();
}

void EnterPrivateVar() {
  const bool entered = (getuid() == 0 || BecomeRoot()) && unshare(CLONE_NEWNS) == 0 &&
                       mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                       mount("tmpfs", "/var", "tmpfs", 0, "mode=755") == 0;
  if (entered) return;
  std::perror("SKIPPED, no private /var");
  std::exit(kSkipped);
}

void Overwrite(const std::string& path, std::string_view text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  Expect(fd >= 0, "open");
  Expect(write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "write");
  // Files under /proc cannot be cut, and need not be.
  if (ftruncate(fd, static_cast<off_t>(text.size())) != 0)
    Expect(path.starts_with("/proc/"), "cut");
  close(fd);
}

std::string ReadWhole(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string CutLine(std::string_view& text) {
  const std::size_t end = text.find('\n');
  const std::string line(text.substr(0, end));
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return line;
}

std::string TakeLog() { return std::exchange(log_text, {}); }

}  // namespace ZELT::Fuzz

// Hidden, it would not stand in for the C library's.
extern "C" [[gnu::visibility("default"), gnu::format(printf, 2, 3)]] void syslog(int /*priority*/,
                                                                                 const char* format,
                                                                                 ...) {
  std::array<char, 1024> line{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  ZELT::Fuzz::log_text.append(line.data()).append("\n");
}

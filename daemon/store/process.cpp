#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <stdexcept>
#include <string_view>

#include "owned_descriptor.h"

using ZELT::TokenManager::OwnedDescriptor;

namespace {

// Returns the contents of a small file of proc(5), which a single read(2) returns, or "" if it
// cannot be read.
std::string ReadProcFile(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return {};
  std::array<char, 1024> text{};
  const ssize_t size = read(file, text.data(), text.size());
  close(file);
  return {text.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
}

std::string ReadStatus(pid_t pid) { return ReadProcFile("/proc/" + std::to_string(pid) + "/stat"); }

// Returns whether `pid` is the id of a process, which may be a zombie. Unlike kill(2), this call to
// tgkill(2) fails for the id of a thread that does not lead its process.
bool IsProcess(pid_t pid) {
  return pid > 0 && (syscall(SYS_tgkill, pid, pid, 0) == 0 || errno == EPERM);
}

// Returns the field of proc_pid_stat(5) with this number, 3 or greater, or "" if there is none. The
// name before it may contain spaces and parentheses.
std::string_view Field(std::string_view status, int number) {
  std::string_view fields = status.substr(std::min(status.rfind(')'), status.size()));
  for (int i = 2; i < number; ++i)
    fields.remove_prefix(std::min(fields.find(' '), fields.size() - 1) + 1);
  return fields.substr(0, fields.find(' '));
}

std::uint64_t NumberField(std::string_view status, int number) {
  const std::string_view field = Field(status, number);
  std::uint64_t value = 0;
  std::from_chars(field.data(), field.data() + field.size(), value);
  return value;
}

// A process whose first thread has ended has a zombie's state even while other threads run.
bool IsZombie(std::string_view status) {
  const std::string_view state = Field(status, 3);
  return (state == "Z" || state == "X") && NumberField(status, 20) <= 1;
}

BootId ReadBootId() {
  const std::string text = ReadProcFile("/proc/sys/kernel/random/boot_id");
  BootId boot{};
  const char* next = text.data();
  const char* const end = text.data() + text.size();
  for (unsigned char& byte : boot) {
    if (next != end && *next == '-') ++next;
    if (end - next < 2 || std::from_chars(next, next + 2, byte, 16).ptr != next + 2) {
      throw std::runtime_error("/proc/sys/kernel/random/boot_id cannot be read");
    }
    next += 2;
  }
  return boot;
}

}  // namespace

const BootId& CurrentBoot() {
  static const BootId boot = ReadBootId();
  return boot;
}

std::optional<ProcessIdentity> IdentifyProcess(pid_t pid) {
  return IsProcess(pid) ? IdentifyPeer(pid) : std::nullopt;
}

std::optional<ProcessIdentity> IdentifyPeer(pid_t pid) {
  const std::string status = ReadStatus(pid);
  if (status.empty()) {
    if (!IsProcess(pid)) return std::nullopt;
    throw std::runtime_error("/proc/" + std::to_string(pid) +
                             "/stat cannot be read; is /proc mounted with hidepid?");
  }
  if (IsZombie(status)) return std::nullopt;
  return ProcessIdentity{pid, NumberField(status, 22), CurrentBoot()};
}

bool IsAlive(const ProcessIdentity& process) {
  if (process.boot != CurrentBoot() || !IsProcess(process.pid)) return false;
  const std::string status = ReadStatus(process.pid);
  if (status.empty()) return IsProcess(process.pid);
  return NumberField(status, 22) == process.start && !IsZombie(status);
}

bool HadStarted(const ProcessIdentity& process, std::chrono::nanoseconds time) {
  static const auto tick = std::chrono::nanoseconds(std::chrono::seconds(1)) / sysconf(_SC_CLK_TCK);
  return static_cast<std::int64_t>(process.start) * tick <= time;
}

bool IsPeerAlive(int connection) {
  constexpr int kPeerPidFd = 77;  // SO_PEERPIDFD, which older headers lack
  int descriptor = -1;
  socklen_t length = sizeof descriptor;
  if (getsockopt(connection, SOL_SOCKET, kPeerPidFd, &descriptor, &length) != 0) {
    return errno != ESRCH && errno != EINVAL;
  }
  const OwnedDescriptor process(descriptor);
  pollfd ended{.fd = process.Get(), .events = POLLIN, .revents = 0};
  return poll(&ended, 1, 0) != 1;  // pidfd_open(2); -1 when a signal arrives
}

std::string ProcessName(pid_t pid) {
  const std::string status = ReadStatus(pid);
  const std::size_t begin = status.find('(');
  const std::size_t end = status.rfind(')');
  if (end == status.npos) return "";
  std::string name = status.substr(begin + 1, end - begin - 1);
  // A process can choose any name, even one that is not UTF-8 and cannot be written as JSON.
  std::replace_if(
      name.begin(), name.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return name;
}

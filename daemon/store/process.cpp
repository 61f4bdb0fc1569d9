#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <stdexcept>

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

BootId ReadBootId() {
  std::string text = ReadProcFile("/proc/sys/kernel/random/boot_id");
  std::erase(text, '-');
  BootId boot{};
  text.resize(2 * boot.size());
  for (std::size_t i = 0; i < boot.size(); ++i) {
    const char* const digits = &text[2 * i];
    if (std::from_chars(digits, digits + 2, boot[i], 16).ptr == digits + 2) continue;
    throw std::runtime_error("/proc/sys/kernel/random/boot_id cannot be read");
  }
  return boot;
}

// Returns whether the kernel says that the process at the other end has ended.
bool HasEnded(int connection) {
  constexpr int kPeerPidFd = 77;  // SO_PEERPIDFD, which older headers lack
  int descriptor = -1;
  socklen_t length = sizeof descriptor;
  if (getsockopt(connection, SOL_SOCKET, kPeerPidFd, &descriptor, &length) != 0) {
    return errno == ESRCH || errno == EINVAL;
  }
  const OwnedDescriptor process(descriptor);
  pollfd ended{.fd = process.Get(), .events = POLLIN, .revents = 0};
  return poll(&ended, 1, 0) == 1;  // pidfd_open(2); -1 when a signal arrives
}

}  // namespace

const BootId& CurrentBoot() {
  static const BootId boot = ReadBootId();
  return boot;
}

std::optional<ProcessIdentity> IdentifyProcess(pid_t pid) {
  const std::string status = IsProcess(pid) ? ReadStatus(pid) : "";
  if (status.empty() && IsProcess(pid)) {
    throw std::runtime_error("/proc/" + std::to_string(pid) +
                             "/stat cannot be read; is /proc mounted with hidepid?");
  }
  // Fields 3, 20 and 22 of proc_pid_stat(5), after a name that may contain spaces and parentheses.
  char state = 'X';
  std::int64_t threads = 0;
  std::uint64_t start = 0;
  // NOLINTNEXTLINE(cert-err34-c): the kernel's numbers fit
  std::sscanf(status.c_str() + std::min(status.rfind(')'), status.size()),
              ") %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %" SCNd64
              " %*s %" SCNu64,
              &state, &threads, &start);
  // A process whose first thread has ended has a zombie's state even while other threads run.
  if ((state == 'Z' || state == 'X') && threads <= 1) return std::nullopt;
  return ProcessIdentity{pid, start, CurrentBoot()};
}

std::optional<ProcessIdentity> IdentifyPeer(const Peer& peer) {
  static const auto tick = std::chrono::nanoseconds(std::chrono::seconds(1)) / sysconf(_SC_CLK_TCK);
  const auto process = IdentifyProcess(peer.credential.pid);
  const bool is_later = process && static_cast<std::int64_t>(process->start) * tick > peer.accepted;
  return is_later || HasEnded(peer.connection) ? std::nullopt : process;
}

bool Judge::IsDead(const ProcessIdentity& process) {
  const auto found = known.find(process.pid);
  if (found != known.end()) return found->second != process;
  if (process.boot != CurrentBoot() || !IsProcess(process.pid)) return true;
  if (IsTired()) return false;
  return known.emplace(process.pid, IdentifyProcess(process.pid)).first->second != process;
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

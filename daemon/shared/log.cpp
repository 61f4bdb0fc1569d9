#include "log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string_view>
#include <utility>

#include "escaped_text.h"

namespace {

constexpr const char* kName = "zelttokenmgrd";
constexpr std::size_t kLongestLine = 2048;  // bytes; syslogd(8) may read no more
constexpr std::size_t kLongestPrefix = 96;  // bytes: priority, time, name and process id

// A destination of lines, and the number of lines lost.
struct Sink {
  bool (*write)(int priority, std::string_view line);  // false if it would have to wait
  std::uint64_t lost = 0;                              // that no line has reported
  std::uint64_t newly_lost = 0;                        // that no call has returned

  void Put(int priority, std::string_view line) {
    if (ReportLost() && write(priority, line)) return;
    ++lost;
    ++newly_lost;
  }
  bool ReportLost() {
    if (lost == 0) return true;
    std::array<char, 64> line{};
    std::snprintf(line.data(), line.size(), "%ju log lines were lost", std::uintmax_t{lost});
    if (!write(LOG_WARNING, line.data())) return false;
    lost = 0;
    return true;
  }
};

using Prefix = std::array<char, kLongestPrefix>;

iovec Piece(std::string_view text) {
  return {.iov_base = const_cast<char*>(text.data()), .iov_len = text.size()};
}

int syslog_socket = -1;

bool SendToSyslog(const msghdr& datagram) {
  if (syslog_socket < 0) {
    syslog_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/dev/log"};
    if (connect(syslog_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      close(std::exchange(syslog_socket, -1));
      return false;
    }
  }
  return sendmsg(syslog_socket, &datagram, MSG_NOSIGNAL) >= 0;
}

// Writes the format of syslog(3). Reconnects once, because the system's logger makes a new socket
// when it restarts.
bool WriteToSyslog(int priority, std::string_view line) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  std::array<char, 32> time{};
  std::strftime(time.data(), time.size(), "%h %e %T", localtime_r(&now, &local));
  Prefix prefix{};
  std::snprintf(prefix.data(), prefix.size(), "<%d>%s %s[%d]: ", LOG_DAEMON | LOG_PRI(priority),
                time.data(), kName, getpid());
  std::array pieces = {Piece(prefix.data()), Piece(line)};
  msghdr datagram{};
  datagram.msg_iov = pieces.data();
  datagram.msg_iovlen = pieces.size();
  if (SendToSyslog(datagram)) return true;
  if (errno == EAGAIN || syslog_socket < 0) return false;
  close(std::exchange(syslog_socket, -1));
  return SendToSyslog(datagram);
}

int error_output = STDERR_FILENO;

// Opens a new description, because O_NONBLOCK would affect every process that shares the old one
// (open(2)).
void OpenErrorOutput() {
  error_output = STDERR_FILENO;
  struct stat status {};
  if (fstat(STDERR_FILENO, &status) != 0) return;
  if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) return;
  const int own = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (own >= 0) error_output = own;
}

// A file that could not be reopened, because another user had opened it, may still block if several
// processes write.
bool WriteToErrorOutput(int /*priority*/, std::string_view line) {
  Prefix prefix{};
  std::snprintf(prefix.data(), prefix.size(), "%s[%d]: ", kName, getpid());
  std::array pieces = {Piece(prefix.data()), Piece(line), Piece("\n")};
  msghdr whole{};
  whole.msg_iov = pieces.data();
  whole.msg_iovlen = pieces.size();
  ssize_t count = sendmsg(error_output, &whole, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (count < 0 && errno == ENOTSOCK) {
    pollfd room{.fd = error_output, .events = POLLOUT, .revents = 0};
    if (poll(&room, 1, 0) != 1) return false;
    count = writev(error_output, pieces.data(), pieces.size());
  }
  return count >= 0;
}

Sink syslog_sink{.write = WriteToSyslog};
Sink error_sink{.write = WriteToErrorOutput};
bool writes_errors = false;

}  // namespace

void OpenLog(bool to_stderr) {
  tzset();  // localtime_r(3) would otherwise read the time zone for the first line
  writes_errors = to_stderr;
  if (to_stderr) OpenErrorOutput();
}

// NOLINTNEXTLINE(cert-dcl50-cpp): the compiler checks the arguments against the format
void Log(int priority, const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  VLog(priority, format, arguments);
  va_end(arguments);
}

void VLog(int priority, const char* format, va_list arguments) noexcept {
  const int error = errno;
  std::array<char, kLongestLine> text{};
  std::vsnprintf(text.data(), text.size(), format, arguments);  // NOLINT(*-valist*): the caller's
  std::array<char, kLongestLine> buffer{};
  const std::string_view line = Escape(text.data(), buffer);
  syslog_sink.Put(priority, line);
  if (writes_errors) error_sink.Put(priority, line);
  errno = error;
}

std::uint64_t ReportLostLines() noexcept {
  syslog_sink.ReportLost();
  if (writes_errors) error_sink.ReportLost();
  return std::exchange(syslog_sink.newly_lost, 0) + std::exchange(error_sink.newly_lost, 0);
}

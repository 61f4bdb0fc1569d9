#include "log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>

#include "escaped_text.h"

namespace {

constexpr const char* kName = "zelttokenmgrd";
constexpr std::size_t kLongestLine = 2048;

// A destination of lines, and the number of lines lost.
struct Sink {
  bool (*write)(int priority, const std::string& line);  // false if it would have to wait
  std::uint64_t lost = 0;

  void Put(int priority, const std::string& line) {
    if (!ReportLost() || !write(priority, line)) ++lost;
  }
  bool ReportLost() {
    if (lost == 0) return true;
    if (!write(LOG_WARNING, std::to_string(lost) + " log lines were lost")) return false;
    lost = 0;
    return true;
  }
};

std::string Prefix() { return std::string(kName) + "[" + std::to_string(getpid()) + "]: "; }

int syslog_socket = -1;

bool SendToSyslog(const std::string& datagram) {
  if (syslog_socket < 0) {
    syslog_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/dev/log"};
    if (connect(syslog_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      close(std::exchange(syslog_socket, -1));
      return false;
    }
  }
  return send(syslog_socket, datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0;
}

// Writes the format of syslog(3). Reconnects once, because the system's logger makes a new socket
// when it restarts.
bool WriteToSyslog(int priority, const std::string& line) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  std::array<char, 32> time{};
  std::strftime(time.data(), time.size(), "%h %e %T ", localtime_r(&now, &local));
  const std::string datagram = std::string("<") + std::to_string(LOG_DAEMON | priority) + ">" +
                               time.data() + Prefix() + line;
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
bool WriteToErrorOutput(int /*priority*/, const std::string& line) {
  const std::string whole = Prefix() + line + "\n";
  ssize_t count = send(error_output, whole.data(), whole.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (count < 0 && errno == ENOTSOCK) {
    pollfd room{.fd = error_output, .events = POLLOUT, .revents = 0};
    if (poll(&room, 1, 0) != 1) return false;
    count = write(error_output, whole.data(), whole.size());
  }
  return count >= 0;
}

Sink syslog_sink{.write = WriteToSyslog};
Sink error_sink{.write = WriteToErrorOutput};
bool writes_errors = false;

}  // namespace

void OpenLog(bool to_stderr) {
  writes_errors = to_stderr;
  if (to_stderr) OpenErrorOutput();
}

// NOLINTNEXTLINE(cert-dcl50-cpp): the compiler checks the arguments against the format
void Log(int priority, const char* format, ...) {
  std::array<char, kLongestLine> text{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);  // NOLINT(*-valist*): started above
  va_end(arguments);
  const std::string line = Escaped(text.data());
  syslog_sink.Put(priority, line);
  if (writes_errors) error_sink.Put(priority, line);
}

void ReportLostLines() {
  syslog_sink.ReportLost();
  if (writes_errors) error_sink.ReportLost();
}

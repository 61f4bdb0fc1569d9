#include "listening_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <stdexcept>
#include <thread>

#include "environment.h"
#include "owned_descriptor.h"
#include "passed_descriptors.h"
#include "start_error.h"
#include "unix_address.h"

using ZELT::TokenManager::OwnedDescriptor;
using ZELT::TokenManager::UnixAddress;

namespace {

constexpr int kFirstInherited = 3;  // SD_LISTEN_FDS_START, sd_listen_fds(3)

// The kernel's maximum (net.core.somaxconn): clients that do not block in connect(2) fail beyond
// it.
constexpr int kBacklog = std::numeric_limits<int>::max();

// The workers of a daemon that was killed take a moment to close its socket.
constexpr int kLooks = 50;
constexpr std::chrono::milliseconds kBetweenLooks{10};

std::runtime_error SystemError(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

OwnedDescriptor MakeSocket() {
  OwnedDescriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!made.IsOpen()) throw SystemError("socket");
  return made;
}

// connect(2) fails with EAGAIN if the backlog is full (unix(7)): somebody listens in that case too.
bool IsServed(const std::string& path) {
  const OwnedDescriptor client = MakeSocket();
  return UnixAddress(path).Connect(client.Get()) == 0 || (errno != ECONNREFUSED && errno != ENOENT);
}

// Only a socket of this user that nobody serves may be replaced.
void ExpectReplaceable(const std::string& path) {
  struct stat found {};
  if (lstat(path.c_str(), &found) != 0) {
    if (errno == ENOENT) return;
    throw SystemError("cannot listen on " + path);
  }
  if (!S_ISSOCK(found.st_mode) || found.st_uid != geteuid()) {
    throw std::runtime_error("cannot listen on " + path + ": a file of uid " +
                             std::to_string(found.st_uid) + " is there; remove it first");
  }
  for (int looks = 1; IsServed(path); ++looks) {
    if (looks == kLooks) throw StartError(EX_UNAVAILABLE, "another daemon serves " + path);
    std::this_thread::sleep_for(kBetweenLooks);
  }
}

// The umask sets the file's mode in bind(2). Before a later chmod(2), another file could be put in
// its place.
OwnedDescriptor BindAndListen(const std::string& path) {
  OwnedDescriptor made = MakeSocket();
  RefuseDescriptors(made.Get());
  const mode_t mask = umask(S_IXUSR | S_IXGRP | S_IXOTH);
  const int bound = UnixAddress(path).Bind(made.Get());
  umask(mask);
  if (bound != 0 || listen(made.Get(), kBacklog) != 0)
    throw SystemError("cannot listen on " + path);
  return made;
}

}  // namespace

std::vector<int> InheritedSockets() {
  const bool is_ours = NumberFromEnvironment("LISTEN_PID") == getpid();
  const std::int64_t count = is_ours ? NumberFromEnvironment("LISTEN_FDS") : 0;
  for (const char* variable : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) unsetenv(variable);
  std::vector<int> sockets;
  for (int fd = kFirstInherited; fd < kFirstInherited + count; ++fd) {
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    sockets.push_back(fd);
  }
  return sockets;
}

int ListenAt(const std::string& path) {
  ExpectReplaceable(path);
  // The name is random, because any user could occupy a predictable one in /tmp.
  const std::string beside = path + "." + std::to_string(std::random_device{}());
  OwnedDescriptor listener = BindAndListen(beside);
  if (rename(beside.c_str(), path.c_str()) == 0) return listener.Release();
  const std::string error = std::strerror(errno);
  unlink(beside.c_str());
  throw std::runtime_error("cannot listen on " + path + ": " + error);
}

std::string AddressOf(int socket) {
  sockaddr_un address{};
  socklen_t length = sizeof address;
  int listens = 0;
  socklen_t size = sizeof listens;
  getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
  getsockopt(socket, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size);
  if (address.sun_family != AF_UNIX || listens == 0) {
    throw std::runtime_error("descriptor " + std::to_string(socket) +
                             " was passed on but is not a listening Unix stream socket");
  }
  return address.sun_path;
}

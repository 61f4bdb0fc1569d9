#include "neighbour.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "board.h"
#include "daemon.h"

namespace ZELT::Torture {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned int kReopenUs = 1000000;  // the daemon closes most of the silent ones at once

constexpr std::string_view kRequest = R"({"type":"validate","service":"fastapi","token":"none"})"
                                      "\n";

class Connection {
 public:
  Connection() : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::strcpy(address.sun_path, kSocket);
    connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (connected) ++TheBoard().neighbours;
  }
  ~Connection() {
    if (fd >= 0) close(fd);
  }
  Connection(Connection&& other) noexcept
      : fd(std::exchange(other.fd, -1)), connected(other.connected) {}
  Connection& operator=(Connection&& other) noexcept {
    std::swap(fd, other.fd);
    std::swap(connected, other.connected);
    return *this;
  }

  bool Open() const { return connected && !Hangs(0); }

  // Sends what the daemon takes; it may stop at any time.
  bool Send(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }

  // What the daemon sends until it closes the connection, or for half a minute.
  std::string Receive() const {
    std::string text;
    std::array<char, 512> chunk{};
    pollfd ready{.fd = fd, .events = POLLIN, .revents = 0};
    while (poll(&ready, 1, 30000) == 1) {
      const ssize_t count = recv(fd, chunk.data(), chunk.size(), 0);
      if (count <= 0) return text;
      text.append(chunk.data(), static_cast<std::size_t>(count));
    }
    Wrong("a connection was left open");
    return text;
  }

  bool Hangs(int milliseconds) const {
    pollfd ready{.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&ready, 1, milliseconds) != 0;
  }

 private:
  int fd;
  bool connected;
};

bool IsRefusal(const std::string& answer) { return answer == "{\"success\":false}\n"; }

// A garbled request may be closed without an answer, and must not succeed.
void ExpectNoSuccess(const Connection& connection) {
  const std::string answer = connection.Receive();
  if (!answer.empty() && !IsRefusal(answer)) Wrong("nonsense was answered: " + answer);
}

void TrickleOne(unsigned int interval_us, bool in_time) {
  const Connection connection;
  const auto begin = Clock::now();
  for (const char& byte : kRequest) {
    if (!connection.Send({&byte, 1})) break;
    Pause(interval_us);
  }
  const bool answered = IsRefusal(connection.Receive());
  const bool fast = Clock::now() - begin < std::chrono::seconds(4);
  if (in_time && fast && !answered) Wrong("a slow request was not answered");
  if (!in_time && answered) Wrong("a request was answered after its deadline");
}

std::string RandomBytes(std::size_t size) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(Below(256));
  return bytes + "\n";
}

std::string Repeated(std::string_view text, std::size_t times) {
  std::string all;
  for (std::size_t i = 0; i < times; ++i) all += text;
  return all;
}

}  // namespace

void Silent(std::size_t count) {
  std::vector<Connection> connections(count);
  for (;; Pause(kReopenUs)) {
    for (Connection& connection : connections) {
      if (!connection.Open()) connection = Connection();
    }
  }
}

void Trickle() {
  constexpr unsigned int kLate = 200000;  // 50 bytes and more take 10 s
  for (;;) {
    Below(8) == 0 ? TrickleOne(kLate, false) : TrickleOne(1 + Below(3000), true);
  }
}

void Noise() {
  for (;;) {
    const Connection connection;
    if (connection.Send(RandomBytes(1 + Below(5000)))) ExpectNoSuccess(connection);
  }
}

void Giant() {
  const std::array<std::string, 5> messages = {
      Repeated("a", 2U << 20), Repeated("[", 1U << 20) + "\n", Repeated("{\"a\":", 200000) + "\n",
      "{\"type\":\"" + Repeated("\\u0000", 100000) + "\"}\n",
      Repeated("[", 999) + Repeated("]", 999) + "\n"};
  for (;; Pause(1000)) {
    const Connection connection;
    connection.Send(messages[Below(messages.size())]);
    ExpectNoSuccess(connection);
  }
}

void Leave() {
  for (;;) {
    const Connection connection;
    connection.Send(kRequest.substr(0, kRequest.size() - Below(2)));
  }
}

void Costly() {
  const std::string message = "[" + Repeated("0,", 90000) + "0]\n";
  std::vector<Connection> connections;
  for (;;) {
    connections.emplace_back();
    connections.back().Send(message);
    if (connections.size() >= 500) connections.clear();
  }
}

}  // namespace ZELT::Torture

// Load on the daemon and on its peers, with a connection for each request. Prints lines "NAME
// VALUE"; the first failure ends the program. One process throughout, since it owns the tokens.
// With the arguments ROW and CLIENTS it only measures the daemon, for the row of that name.
#include <munge.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "json_text.h"
#include "zelttokenmanager/utils.h"

namespace {

using namespace ZELT::TokenManager;
using Clock = std::chrono::steady_clock;
using Operation = std::function<void(std::size_t)>;  // on the nth record

constexpr const char* kOurs = "/tmp/zelttokenmgr.sock";
constexpr const char* kEcho = "/tmp/echo.sock";
constexpr const char* kMemcached = "/tmp/memcached.sock";
const std::string kGrants = R"([{"api":"Demo.Item","method":"get"}])";
const std::string kUse = R"({"api":"Demo.Item","method":"get","runner":"root"})";
const std::string kRecord = R"({"created_at":81544117230815,"payload":)" + kGrants +
                            R"(,"pid":1804,"requester":"root","service":"fastapi"})";
constexpr std::string_view kPermitted = "{\"permitted\":true,\"success\":true}\n";
constexpr std::size_t kCompared = 100000;  // records when the peers are compared
constexpr std::size_t kSamples = 1000;     // requests of each kind at each size
constexpr std::chrono::duration<double> kSlice{0.2};
constexpr int kSlices = 7;

void Check(bool done, const std::string& what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

Json::Value Json(const std::string& text) {
  Json::Value value;
  Check(fromString(text, value), text);
  return value;
}

int Open(const std::string& path, decltype(connect)* open) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  Check(open(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, path);
  return fd;
}

void ReadUntil(int fd, std::string_view ending) {
  char buffer[1024];
  std::size_t got = 0;
  while (!std::string_view(buffer, got).ends_with(ending)) {
    const ssize_t count = recv(fd, buffer + got, sizeof buffer - got, 0);
    Check(count > 0, "recv");
    got += static_cast<std::size_t>(count);
  }
}

void Exchange(const std::string& path, const std::string& request, std::string_view ending) {
  const int fd = Open(path, connect);
  Check(send(fd, request.data(), request.size(), MSG_NOSIGNAL) > 0, "send");
  // When the peer takes the request, the kernel wakes a process in recv(2), but none in poll(2).
  pollfd wanted{.fd = fd, .events = POLLIN, .revents = 0};
  poll(&wanted, 1, -1);
  ReadUntil(fd, ending);
  close(fd);
}

// The least that any server does: accept, receive, send, close; no loop, no limits.
void ServeEcho() {
  const int listener = Open(kEcho, bind);
  Check(listen(listener, SOMAXCONN) == 0, "listen");
  for (unsigned int i = 0; i < std::thread::hardware_concurrency(); ++i) {
    if (fork() != 0) continue;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) {
      const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      ReadUntil(fd, "\n");
      Check(send(fd, kPermitted.data(), kPermitted.size(), MSG_NOSIGNAL) > 0, "send");
      close(fd);
    }
  }
}

std::vector<std::string> tokens;    // of this process
std::vector<std::string> requests;  // to validate each of them

void Issue(std::size_t number) {
  tokens[number] = SendIssueRequest("fastapi", Json(kGrants));
  requests[number] = R"({"type":"validate","service":"fastapi","token":")" + tokens[number] +
                     R"(","payload":)" + kUse + "}\n";
}

void Validate(std::size_t number) { Exchange(kOurs, requests[number], kPermitted); }

void IssueAndValidate(std::size_t /*number*/) {
  const std::string token = SendIssueRequest("fastapi", Json(kGrants));
  Check(SendValidateRequest("fastapi", token, Json(kUse)), "validate");
}

void EncodeAndDecode(std::size_t /*number*/) {
  char* credential = nullptr;
  void* payload = nullptr;
  int size = static_cast<int>(kRecord.size());
  munge_err_t error = munge_encode(&credential, nullptr, kRecord.data(), size);
  if (!error) error = munge_decode(credential, nullptr, &payload, &size, nullptr, nullptr);
  Check(error == EMUNGE_SUCCESS, munge_strerror(error));
  free(credential);
  free(payload);
}

// Visits all records evenly from the first step on, with a stride close to the golden ratio.
std::size_t Spread(std::size_t step, std::size_t count) { return step * 61803 % count; }

// Returns how many operations as many clients as there are `connections` do in a second.
double Rate(std::size_t connections, const Operation& operation) {
  std::atomic<std::size_t> done = 0;
  const auto end = Clock::now() + kSlice;
  const auto repeat = [&] {
    while (Clock::now() < end) operation(Spread(done++, tokens.size()));
  };
  std::vector<std::jthread> clients;
  while (clients.size() < connections) clients.emplace_back(repeat);
  clients.clear();
  return static_cast<double>(done) / kSlice.count();
}

// In short slices by turns: a busy neighbour slows one of them down and not the next.
void Compare(const std::string& row, std::size_t connections,
             const std::map<std::string, Operation>& all) {
  for (int slice = 0; slice < kSlices; ++slice) {
    for (const auto& [name, operation] : all) {
      std::cout << name << '/' << row << ' ' << Rate(connections, operation) << '\n';
    }
  }
}

void ComparePeers() {
  const std::string value = " 0 0 " + std::to_string(kRecord.size()) + "\r\n" + kRecord + "\r\n";
  for (const auto& token : tokens) Exchange(kMemcached, "set " + token + value, "STORED\r\n");
  const auto echo = [](std::size_t number) { Exchange(kEcho, requests[number], kPermitted); };
  const auto get = [](std::size_t number) {
    Exchange(kMemcached, "get " + tokens[number] + "\r\n", "END\r\n");
  };
  for (const std::size_t connections : {1U, 8U, 64U, 128U}) {
    Compare(std::to_string(connections), connections,
            {{"echo", echo}, {"ours", Validate}, {"memcached", get}});
  }
  for (const std::size_t threads : {1U, 2U, 4U}) {
    Compare(std::to_string(threads), threads,
            {{"pair", IssueAndValidate}, {"munge", EncodeAndDecode}});
  }
}

// One request at a time on a store of `count` tokens, which it has again in the end.
void Grow(std::size_t count) {
  std::atomic<std::size_t> next = tokens.size();
  tokens.resize(count + kSamples);
  requests.resize(count + kSamples);
  const auto fill = [&] {
    for (std::size_t number = next++; number < count; number = next++) Issue(number);
  };
  std::thread other(fill);
  fill();
  other.join();

  const auto time = [count](const char* name, const Operation& operation) {
    for (std::size_t i = 0; i < kSamples; ++i) {
      const auto before = Clock::now();
      operation(i);
      const std::chrono::duration<double, std::micro> wait = Clock::now() - before;
      std::cout << name << '/' << count << ' ' << wait.count() << '\n';
    }
  };
  time("issue", [count](std::size_t i) { Issue(count + i); });
  time("validate", [count](std::size_t i) { Validate(Spread(i, count)); });
  time("transfer", [count](std::size_t i) {
    Check(SendTransferRequest("fastapi", tokens[count + i], getpid()), "transfer");
  });
  time("revoke", [count](std::size_t i) {
    Check(SendRevokeRequest("fastapi", tokens[count + i]), "revoke");
  });
  tokens.resize(count);
  requests.resize(count);
}

// What one daemon does for `clients`, whose configuration the row names.
void Vary(const std::string& row, std::size_t clients) {
  tokens.resize(kSamples);
  requests.resize(kSamples);
  for (std::size_t i = 0; i < kSamples; ++i) Issue(i);
  const auto issue = [](std::size_t /*number*/) { SendIssueRequest("fastapi", Json(kGrants)); };
  const std::vector<Json::Value> uses(100, Json(kUse));
  const auto check = [&uses](std::size_t number) {
    SendValidateManyRequest("fastapi", tokens[number], uses);
  };
  Compare(row, clients, {{"validate", Validate}, {"issue", issue}, {"hundred", check}});
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3) {
    Vary(argv[1], std::stoul(argv[2]));
    return 0;
  }
  ServeEcho();
  for (const std::size_t count : {1000U, 10000U, 100000U, 1000000U}) {
    Grow(count);
    if (count == kCompared) ComparePeers();
  }
}

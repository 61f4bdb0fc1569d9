// Load on the daemon and on its peers, each over its local socket and with a connection for each
// request. Prints a line "name/figure value" for each figure; the first failure ends the program.
#include <munge.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "json_text.h"
#include "zelttokenmanager/utils.h"

namespace {

using namespace ZELT::TokenManager;
using Clock = std::chrono::steady_clock;
using Operation = std::function<void()>;

constexpr const char* kEchoSocket = "/tmp/echo.sock";
constexpr const char* kMungeSocket = "/tmp/munge/socket";
constexpr std::string_view kAnswer = "{\"permitted\":true,\"success\":true}\n";

// One request to one kind of server.
struct Target {
  std::string socket;
  std::string request;
  std::string ending;  // of the answer
};

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

sockaddr_un Address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

int Connect(const std::string& path) {
  const sockaddr_un address = Address(path);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) Fail("socket");
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) Fail(path);
  return fd;
}

// The kernel wakes who waits in recv(2) also when the peer takes the request, which would cost the
// client, and with it all servers, a switch of tasks for each request. It does not wake poll(2).
void AwaitInput(int fd) {
  pollfd wanted{.fd = fd, .events = POLLIN, .revents = 0};
  poll(&wanted, 1, -1);
}

// Reads until `ending`; returns what came, which is shorter when the peer closed.
std::string_view ReadUntil(int fd, std::string_view ending, char* buffer, std::size_t size) {
  std::size_t got = 0;
  while (got < size && !std::string_view(buffer, got).ends_with(ending)) {
    const ssize_t count = recv(fd, buffer + got, size - got, 0);
    if (count <= 0) break;
    got += static_cast<std::size_t>(count);
  }
  return {buffer, got};
}

std::string Exchange(const Target& target) {
  char buffer[1024];
  const int fd = Connect(target.socket);
  if (send(fd, target.request.data(), target.request.size(), MSG_NOSIGNAL) < 0) Fail("send");
  AwaitInput(fd);
  const std::string_view answer = ReadUntil(fd, target.ending, buffer, sizeof buffer);
  if (!answer.ends_with(target.ending)) Fail(target.socket);
  close(fd);
  return std::string(answer);
}

[[noreturn]] void EchoWorker(int listener) {
  char buffer[1024];
  for (;;) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ReadUntil(fd, "\n", buffer, sizeof buffer);
    send(fd, kAnswer.data(), kAnswer.size(), MSG_NOSIGNAL);
    close(fd);
  }
}

// The least that any server does: accept, receive, send, close; no loop, no limits.
void ServeEcho(int workers) {
  const sockaddr_un address = Address(kEchoSocket);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener, SOMAXCONN) != 0) {
    Fail(kEchoSocket);
  }
  for (int i = 1; i < workers; ++i) {
    if (fork() == 0) EchoWorker(listener);
  }
  EchoWorker(listener);
}

Json::Value Wanted() {
  Json::Value wanted;
  wanted["api"] = "Demo.Item";
  wanted["method"] = "get";
  return wanted;
}

Json::Value IssuePayload() {
  Json::Value payload(Json::arrayValue);
  payload.append(Wanted());
  return payload;
}

Json::Value ValidatePayload() {
  Json::Value payload = Wanted();
  payload["runner"] = "root";
  return payload;
}

std::string ValidateRequest(const std::string& token) {
  Json::Value request;
  request["type"] = "validate";
  request["service"] = "fastapi";
  request["token"] = token;
  request["payload"] = ValidatePayload();
  return toString(request) + '\n';
}

const std::string& Value() {
  static const std::string value =
      R"({"created_at":81544117230815,"payload":[{"api":"Demo.Item","method":"get"}],)"
      R"("pid":1804,"requester":"root","service":"fastapi"})";
  return value;
}

Target Zelt() {
  const std::string token = SendIssueRequest("fastapi", IssuePayload());
  return {"/tmp/zelttokenmgr.sock", ValidateRequest(token), std::string(kAnswer)};
}

Target Echo() { return {kEchoSocket, ValidateRequest(std::string(48, 'x')), std::string(kAnswer)}; }

Target Memcached() {
  const std::string socket = "/tmp/memcached.sock";
  const std::string key(48, 'x');
  const std::string size = std::to_string(Value().size());
  Exchange({socket, "set " + key + " 0 0 " + size + "\r\n" + Value() + "\r\n", "STORED\r\n"});
  return {socket, "get " + key + "\r\n", Value() + "\r\nEND\r\n"};
}

Target Redis() {
  const std::string socket = "/tmp/redis.sock";
  const std::string key = "$48\r\n" + std::string(48, 'x') + "\r\n";
  const std::string value = "$" + std::to_string(Value().size()) + "\r\n" + Value() + "\r\n";
  Exchange({socket, "*3\r\n$3\r\nSET\r\n" + key + value, "+OK\r\n"});
  return {socket, "*2\r\n$3\r\nGET\r\n" + key, Value() + "\r\n"};
}

Operation Requests(const Target& target) {
  return [target] { Exchange(target); };
}

void IssueAndValidate() {
  const std::string token = SendIssueRequest("fastapi", IssuePayload());
  if (!SendValidateRequest("fastapi", token, ValidatePayload())) Fail("validate");
}

void EncodeAndDecode() {
  const std::unique_ptr<munge_ctx, void (*)(munge_ctx_t)> context(munge_ctx_create(),
                                                                  munge_ctx_destroy);
  munge_ctx_set(context.get(), MUNGE_OPT_SOCKET, kMungeSocket);
  char* credential = nullptr;
  void* payload = nullptr;
  int length = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  if (munge_encode(&credential, context.get(), Value().data(), static_cast<int>(Value().size())) !=
          EMUNGE_SUCCESS ||
      munge_decode(credential, context.get(), &payload, &length, &uid, &gid) != EMUNGE_SUCCESS) {
    Fail(munge_ctx_strerror(context.get()));
  }
  free(credential);
  free(payload);
}

Operation OperationOf(const std::string& name) {
  if (name == "validate/ours") return Requests(Zelt());
  if (name == "validate/echo") return Requests(Echo());
  if (name == "validate/memcached") return Requests(Memcached());
  if (name == "validate/redis") return Requests(Redis());
  if (name == "pair/ours") return IssueAndValidate;
  if (name == "pair/munge") return EncodeAndDecode;
  throw std::invalid_argument(name);
}

using Latencies = std::vector<double>;  // in microseconds

void Repeat(const Operation& operation, Clock::time_point end, Latencies& latencies) {
  for (auto before = Clock::now(); before < end;) {
    operation();
    const auto after = Clock::now();
    latencies.push_back(std::chrono::duration<double, std::micro>(after - before).count());
    before = after;
  }
}

void Report(const std::string& name, Latencies& latencies, Clock::duration elapsed) {
  std::sort(latencies.begin(), latencies.end());
  const auto count = static_cast<double>(latencies.size());
  const auto percentile = [&](double part) {
    return latencies[static_cast<std::size_t>(part * (count - 1))];
  };
  std::cout << name << "/rps " << count / std::chrono::duration<double>(elapsed).count() << '\n'
            << name << "/p50 " << percentile(0.5) << '\n'
            << name << "/p99 " << percentile(0.99) << '\n'
            << name << "/p99.9 " << percentile(0.999) << '\n';
}

void Load(const std::string& name, std::ptrdiff_t connections, std::chrono::milliseconds time) {
  const Operation operation = OperationOf(name);
  std::vector<Latencies> latencies(static_cast<std::size_t>(connections));
  std::latch start(connections + 1);
  std::vector<std::jthread> clients;
  for (Latencies& own : latencies) {
    clients.emplace_back([&start, &operation, &own, time] {
      start.arrive_and_wait();
      Repeat(operation, Clock::now() + time, own);
    });
  }
  start.arrive_and_wait();
  const auto begin = Clock::now();
  clients.clear();
  const auto elapsed = Clock::now() - begin;

  Latencies all;
  for (const Latencies& own : latencies) all.insert(all.end(), own.begin(), own.end());
  Report(name + "/" + std::to_string(connections), all, elapsed);
}

std::ptrdiff_t Descriptors(const std::string& process) {
  namespace fs = std::filesystem;
  return std::distance(fs::directory_iterator("/proc/" + process + "/fd"),
                       fs::directory_iterator());
}

double AnonymousKiB(const std::string& process) {
  std::ifstream rollup("/proc/" + process + "/smaps_rollup");
  std::string word;
  while (rollup >> word && word != "Anonymous:") {
  }
  double size = 0;
  rollup >> size;
  return size;
}

// What idle connections take in the memory of the worker that holds them.
void Idle(const std::string& worker, int connections) {
  const double before = AnonymousKiB(worker);
  const std::ptrdiff_t wanted = Descriptors(worker) + connections;
  for (int i = 0; i < connections; ++i) Connect("/tmp/zelttokenmgr.sock");
  const auto deadline = Clock::now() + std::chrono::seconds(4);
  while (Descriptors(worker) < wanted) {
    if (Clock::now() > deadline) throw std::runtime_error("the daemon does not take them all");
    std::this_thread::yield();
  }
  std::cout << "memory/idle " << (AnonymousKiB(worker) - before) / connections << '\n';
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 2 && words[0] == "echo") {
    ServeEcho(std::stoi(words[1]));
  } else if (words.size() == 3 && words[0] == "idle") {
    Idle(words[1], std::stoi(words[2]));
  } else if (words.size() == 3) {
    Load(words[0], std::stol(words[1]), std::chrono::milliseconds(std::stol(words[2])));
  } else {
    std::cerr << "usage: load_bench echo WORKERS | idle PID CONNECTIONS |\n"
                 "       validate/{ours,echo,memcached,redis} CONNECTIONS MILLISECONDS |\n"
                 "       pair/{ours,munge} THREADS MILLISECONDS\n";
    return 64;
  }
}

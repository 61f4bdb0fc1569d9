#include "server.h"

#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <deque>

#include "message.h"
#include "support/logged.h"
#include "support/serving.h"

namespace {
std::atomic<int> accept_calls = 0;
}  // namespace

// Stands in for the C library's, and counts.
extern "C" [[gnu::visibility("default")]] int accept4(int fd, sockaddr* address, socklen_t* length,
                                                      int flags) {
  ++accept_calls;
  return static_cast<int>(syscall(SYS_accept4, fd, address, length, flags));
}

namespace ZELT::ServerTests {

constexpr const char* kPath = "/tmp/socket";
const std::string kLongest(zeltdaemon::kMaxMessageBytes, 'x');
constexpr uid_t kAlice = 4001;
constexpr uid_t kBob = 4002;

using ServerTest = PrivateFiles;
using Clients = std::deque<Client>;

// The kernel notes whose user a client has when it connects. False without other users.
bool ConnectAs(uid_t user, Clients& clients, const std::string& bytes) {
  if (seteuid(user) != 0) return false;
  clients.emplace_back(kPath, bytes);
  return seteuid(0) == 0;
}

TEST_F(ServerTest, SlowClientsAreClosedAtTheirDeadline) {
  constexpr std::chrono::seconds kDeadline(1);
  TestServer server(kPath, {.request_deadline = kDeadline, .answer_deadline = kDeadline});
  const auto answer = [](const auto&... /*request*/) { return kLongest; };
  server.While(answer, [] {
    Client silent(kPath);
    const Client trickling(kPath);
    Client deaf(kPath, "ask\n");
    EXPECT_TRUE(Client(kPath, "ask\n").Answer() == kLongest);
    while (trickling.Write("x")) std::this_thread::yield();
    while (deaf.Write("x")) std::this_thread::yield();
    EXPECT_EQ(silent.Answer(), "none");
    EXPECT_LT(deaf.Answer().size(), kLongest.size());
  });
}

TEST_F(ServerTest, WhatArrivedInTimeDuringAStallIsServed) {
  constexpr std::chrono::milliseconds kStall(1100);
  TestServer server(kPath, {.request_deadline = std::chrono::seconds(1)});
  Client early(kPath);
  const Client stalling(kPath, "stall\n");
  const auto stall = [&](const Peer& /*peer*/, const std::string& request) {
    if (request == "stall" && early.Write("early\n")) std::this_thread::sleep_for(kStall);
    return request;
  };
  server.While(stall, [&] { EXPECT_EQ(early.Answer(), "early"); });
}

// Requests take longer than a turn, so that the backlog is looked through.
TEST_F(ServerTest, UsersTakeTurns) {
  TestServer server(kPath);
  Clients clients;
  for (int i = 0; i < 20; ++i) {
    if (!ConnectAs(kAlice, clients, "request\n")) GTEST_SKIP() << "no other users";
  }
  ConnectAs(kBob, clients, "request\n");
  std::vector<uid_t> order;
  const auto note = [&](const Peer& peer, const std::string& request) {
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    order.push_back(peer.credential.uid);
    return request;
  };
  server.While(note, [&] {
    for (Client& each : clients) each.Answer();
  });
  EXPECT_LT(std::find(order.begin(), order.end(), kBob) - order.begin(), 4);
}

// Alice has four connections where two are allowed, and Bob has one.
TEST_F(ServerTest, AUserAtALimitLosesTheOldestAndIsLoggedOnce) {
  const std::string half(100000, 'x');  // takes 131,072 bytes
  for (const ServerLimits& limits :
       {ServerLimits{.waiting_per_user = 2}, ServerLimits{.waiting = 3},
        ServerLimits{.bytes_per_user = 300000}}) {
    TestServer server(kPath, limits);
    Clients clients;
    if (!ConnectAs(kBob, clients, half)) GTEST_SKIP() << "no other users";
    for (int i = 0; i < 4; ++i) ConnectAs(kAlice, clients, half);
    const auto use = [&] {
      EXPECT_EQ(clients[1].Answer() + clients[2].Answer(), "nonenone");
      for (const std::size_t i : {4U, 3U, 0U}) {
        EXPECT_TRUE(clients[i].Write("\n") && clients[i].Answer() == half) << limits.waiting;
      }
    };
    const std::string log = Logged([&] { server.While(Echo, use); });
    EXPECT_TRUE(std::regex_match(log, std::regex("user 4001 has .*closing the oldest\n"))) << log;
  }
}

TEST_F(ServerTest, AServerEndsWithOrWithoutTheBacklog) {
  TestServer server(kPath, {.backlog = 128, .request_deadline = std::chrono::hours(1)});
  Clients clients;
  while (clients.size() < 100) clients.emplace_back(kPath, "stop\n");
  const Client incomplete(kPath, "req");
  unsigned int answered = 0;
  for (const bool inherited : {true, false}) {
    EXPECT_LT(answered, clients.size());
    const auto count = [&](const Peer& /*peer*/, const std::string& request) {
      ++answered;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));  // a turn serves a few
      return request;
    };
    server.Run(count, inherited);
  }
  EXPECT_EQ(answered, clients.size());
}

TEST_F(ServerTest, WithoutDescriptorsItWaitsAndDoesNotSpin) {
  TestServer server(kPath);
  Clients clients;
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  int seconds = 0;
  server.Run(Echo, false, [&] {
    if (++seconds == 1) clients.emplace_back(kPath, "stop\n");
    accept_calls = seconds == 1 ? 0 : accept_calls.load();
    const rlimit none{.rlim_cur = 0, .rlim_max = usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, seconds == 1 ? &none : &usual);
  });
  EXPECT_GE(seconds, 2);
  EXPECT_LT(accept_calls, 100);
}

// Sends a socket that lingers for an hour once nobody else has it, since its peer does not read.
void SendAlong(const Client& client, int listener, std::string bytes) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  const OwnedDescriptor sent(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  Check(connect(sent.Get(), reinterpret_cast<const sockaddr*>(&address), length), "connect");
  const linger hour{.l_onoff = 1, .l_linger = 3600};
  Check(setsockopt(sent.Get(), SOL_SOCKET, SO_LINGER, &hour, sizeof hour), "linger");
  while (send(sent.Get(), kLongest.data(), kLongest.size(), MSG_DONTWAIT) > 0) {
  }
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  iovec part{.iov_base = bytes.data(), .iov_len = bytes.size()};
  const msghdr message{nullptr, 0, &part, 1, control.data(), control.size(), 0};
  *CMSG_FIRSTHDR(&message) = {
      .cmsg_len = CMSG_LEN(sizeof(int)), .cmsg_level = SOL_SOCKET, .cmsg_type = SCM_RIGHTS};
  *reinterpret_cast<int*>(CMSG_DATA(CMSG_FIRSTHDR(&message))) = sent.Get();
  sendmsg(client.Descriptor(), &message, MSG_NOSIGNAL);  // newer kernels refuse it
}

// What comes before a descriptor, and what becomes of the request. The last client sends its
// descriptor while its request is served, the others before the server can refuse anything.
const std::pair<std::string, std::string> kRequestsWithDescriptors[] = {
    {"", "none"}, {"req", "none"}, {"request\n", "none"}, {"more\n", "more"}};

TEST_F(ServerTest, DescriptorsSentAlongHoldNobodyUp) {
  const OwnedDescriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  Check(listen(listener.Get(), 100), "listen");
  const long descriptors = OpenDescriptors();
  for (const bool refuse : {false, true}) {
    TestServer server(kPath, {.refuse_descriptors = refuse});
    Clients clients;
    for (const auto& [before, expected] : kRequestsWithDescriptors) {
      clients.emplace_back(kPath, before);
      if (expected == "none") SendAlong(clients.back(), listener.Get(), "uest\n");
    }
    const auto answer = [&](const Peer& /*peer*/, const std::string& request) {
      if (request == "more") SendAlong(clients.back(), listener.Get(), "more");
      return request;
    };
    server.While(answer, [&] {
      EXPECT_EQ(Client(kPath, "request\n").Answer(), "request");
      for (std::size_t i = 0; i < clients.size(); ++i) {
        EXPECT_EQ(clients[i].Answer(), kRequestsWithDescriptors[i].second) << i;
      }
    });
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

}  // namespace ZELT::ServerTests

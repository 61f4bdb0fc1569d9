#include "server.h"

#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <list>

#include "log.h"
#include "message.h"
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

class ServerTest : public PrivateFiles {
 protected:
  // The kernel notes whose user a client has when it connects. False without other users.
  static bool As(uid_t user, const std::function<void()>& connect) {
    if (seteuid(user) != 0) return false;
    connect();
    return seteuid(0) == 0;
  }
};

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
  std::list<Client> clients;
  const auto connect = [&] { clients.emplace_back(kPath, "request\n"); };
  for (int i = 0; i < 20; ++i) {
    if (!As(kAlice, connect)) GTEST_SKIP() << "no other users";
  }
  As(kBob, connect);
  std::vector<uid_t> order;
  server.Run([&](const Peer& peer, const std::string& request) {
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    order.push_back(peer.credential.uid);
    if (order.size() == clients.size()) TestServer::Stop();
    return request;
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
    std::list<Client> clients;
    const auto connect = [&] { clients.emplace_back(kPath, half); };
    if (!As(kBob, connect)) GTEST_SKIP() << "no other users";
    for (int i = 0; i < 4; ++i) As(kAlice, connect);
    testing::internal::CaptureStderr();
    OpenLog(true);
    server.While(Echo, [&] {
      EXPECT_EQ(std::next(clients.begin())->Answer(), "none");
      EXPECT_EQ(std::next(clients.begin(), 2)->Answer(), "none");
      for (Client* each : {&clients.back(), &*std::prev(clients.end(), 2), &clients.front()}) {
        EXPECT_TRUE(each->Write("\n") && each->Answer() == half) << limits.waiting;
      }
    });
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(std::regex_match(log, std::regex(".*: user 4001 has .*closing the oldest\n")))
        << log;
  }
}

TEST_F(ServerTest, AServerEndsWithOrWithoutTheBacklog) {
  TestServer server(kPath, {.backlog = 128});
  constexpr unsigned int kClients = 100;
  std::list<Client> clients;
  while (clients.size() < kClients) clients.emplace_back(kPath, "request\n");
  const Client incomplete(kPath, "req");
  unsigned int answered = 0;
  for (const bool inherited : {true, false}) {
    EXPECT_LT(answered, kClients);
    const auto stop = [&](const Peer& /*peer*/, const std::string& request) {
      ++answered;
      TestServer::Stop();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));  // a turn serves a few
      return request;
    };
    server.Run(stop, inherited);
  }
  EXPECT_EQ(answered, kClients);
}

TEST_F(ServerTest, WithoutDescriptorsItWaitsAndDoesNotSpin) {
  TestServer server(kPath);
  const OwnedDescriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  int seconds = 0;
  server.Run(
      [](const Peer& /*peer*/, const std::string& request) {
        TestServer::Stop();
        return request;
      },
      false,
      [&] {
        const rlimit none{.rlim_cur = 0, .rlim_max = usual.rlim_max};
        setrlimit(RLIMIT_NOFILE, ++seconds == 1 ? &none : &usual);
        if (seconds > 1) return;
        accept_calls = 0;
        Check(TokenManager::UnixAddress(kPath).Connect(client.Get()), kPath);
        Check(send(client.Get(), "request\n", 8, 0) != 8, kPath);
      });
  EXPECT_GE(seconds, 2);
  EXPECT_LT(accept_calls, 100);
}

// A socket that lingers for an hour once nobody else has it, since its peer does not read.
int LingeringSocket(int listener) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  const int made = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  Check(connect(made, reinterpret_cast<const sockaddr*>(&address), length), "connect");
  const linger hour{.l_onoff = 1, .l_linger = 3600};
  Check(setsockopt(made, SOL_SOCKET, SO_LINGER, &hour, sizeof hour), "linger");
  while (send(made, kLongest.data(), kLongest.size(), MSG_DONTWAIT) > 0) {
  }
  return made;
}

void SendAlong(const Client& client, int descriptor, std::string bytes) {
  std::array<char, CMSG_SPACE(sizeof descriptor)> control{};
  iovec part{.iov_base = bytes.data(), .iov_len = bytes.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof descriptor);
  std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  sendmsg(client.Descriptor(), &message, MSG_NOSIGNAL);  // newer kernels refuse it
  close(descriptor);
}

// What comes before a descriptor, and what becomes of the request.
const std::pair<std::string, std::string> kRequestsWithDescriptors[] = {
    {"", "none"}, {"req", "none"}, {"request\n", "none"}, {"more\n", "more"}};

// All connect before the server can refuse anything. The last one sends its descriptor while its
// request is served.
TEST_F(ServerTest, DescriptorsSentAlongHoldNobodyUp) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  Check(listen(listener, 100), "listen");
  const long descriptors = OpenDescriptors();
  for (const bool refuse : {false, true}) {
    TestServer server(kPath, {.refuse_descriptors = refuse});
    std::list<Client> clients;
    for (const auto& [before, expected] : kRequestsWithDescriptors) {
      clients.emplace_back(kPath, before);
      if (before != "more\n") SendAlong(clients.back(), LingeringSocket(listener), "uest\n");
    }
    const auto answer = [&](const Peer& /*peer*/, const std::string& request) {
      if (request == "more") SendAlong(clients.back(), LingeringSocket(listener), "more");
      return request;
    };
    server.While(answer, [&] {
      EXPECT_EQ(Client(kPath, "request\n").Answer(), "request");
      for (const auto& [before, expected] : kRequestsWithDescriptors) {
        EXPECT_EQ(clients.front().Answer(), expected) << before;
        clients.pop_front();
      }
    });
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
  close(listener);
}

}  // namespace ZELT::ServerTests

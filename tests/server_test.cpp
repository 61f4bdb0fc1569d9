#include "server.h"

#include <netinet/in.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <deque>

#include "message.h"
#include "people.h"
#include "support/logged.h"
#include "support/serving.h"

namespace {
std::atomic<int> waits = 0;
}  // namespace

// Stands in for the C library's, and counts.
extern "C" [[gnu::visibility("default")]] int epoll_wait(int fd, epoll_event* events, int most,
                                                         int timeout) {
  ++waits;
  return static_cast<int>(syscall(SYS_epoll_wait, fd, events, most, timeout));
}

namespace ZELT::ServerTests {

constexpr const char* kPath = "/tmp/socket";
constexpr const char* kSecond = "/tmp/socket2";
constexpr std::chrono::seconds kShort(1);
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
  TestServer server(kPath, {.deadline = kShort});
  const auto use = [] {
    const Client silent(kPath);
    const Client trickling(kPath);
    const Client deaf(kPath, "ask\n");
    EXPECT_TRUE(Client(kPath, "ask\n").Answer() == kLongest);
    while (trickling.Write("x") || deaf.Write("x")) std::this_thread::yield();
    EXPECT_EQ(silent.Answer(), "none");
    EXPECT_LT(deaf.Answer().size(), kLongest.size());
  };
  server.While([](const auto&... /*request*/) { return kLongest; }, use);
}

TEST_F(ServerTest, WhatArrivedInTimeDuringAStallIsServed) {
  constexpr std::chrono::milliseconds kStall(1100);
  TestServer server(kPath, {.deadline = kShort});
  Client early(kPath);
  const Client stalling(kPath, "stall\n");
  const auto stall = [&](const Peer& /*peer*/, const std::string& request) {
    if (request == "starve") throw std::bad_alloc();  // as if there were none for the answer
    if (request == "stall" && early.Write("early\n")) std::this_thread::sleep_for(kStall);
    return kLongest;
  };
  server.While(stall, [&] {
    EXPECT_TRUE(stalling.Answer() == kLongest);
    EXPECT_TRUE(early.Answer() == kLongest);
    EXPECT_EQ(Client(kPath, "starve\n").Answer(), "none");
  });
}

// Bob spends much alone, then asks for little, while Alice begins to ask for more. Hers are served
// when she has spent less: two, or some more if the machine is busy, before all of his.
TEST_F(ServerTest, TheNextAccountIsTheOneThatSpentLeast) {
  TestServer server(kPath);
  Clients clients;
  if (!ConnectAs(kBob, clients, "begin\n")) GTEST_SKIP() << "no other users";
  const Client& first = clients.front();
  std::vector<uid_t> order;
  const auto note = [&](const Peer& peer, const std::string& request) {
    const int time = request == "begin" ? 400 : request == "large" ? 20 : 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(time));
    order.push_back(peer.credential.uid);
    for (int i = 0; request == "begin" && i < 50; ++i) {
      ConnectAs(kAlice, clients, "large\n");
      ConnectAs(kBob, clients, "small\n");
    }
    return request;
  };
  server.While(note, [&] {
    first.Answer();
    for (Client& each : clients) each.Answer();
  });
  const auto last = std::find(order.rbegin(), order.rend(), kBob);
  EXPECT_LE(std::count(last, order.rend(), kAlice), 10);
}

const std::string kHalf(100000, 'x');  // takes 131,072 bytes; an answer takes 2 MiB

// What each client sends at first; "ask" is answered at length.
const std::pair<ServerLimits, std::string> kLimits[] = {
    {{.account = {2, 1 << 20}}, kHalf},   {{.worker = {3, 1 << 20}}, kHalf},
    {{.account = {9, 300000}}, kHalf},    {{.worker = {9, 400000}}, kHalf},
    {{.account = {9, 5 << 20}}, "ask\n"},
};

// Alice has four connections where two are allowed, and Bob has one, or five with less to hold.
TEST_F(ServerTest, AtALimitTheOldestOfTheBusiestIsGivenUp) {
  for (const auto& [limits, first] : kLimits) {
    TestServer server(kPath, limits);
    Clients clients;
    if (!ConnectAs(kBob, clients, first)) GTEST_SKIP() << "no other users";
    for (int i = 0; i < 4; ++i) ConnectAs(kAlice, clients, first);
    Clients small;
    while (limits.worker.connections == 9 && small.size() < 4) ConnectAs(kBob, small, "x");
    const bool asks = first != kHalf;
    const std::string& expected = asks ? kLongest : kHalf;
    std::atomic<int> asked = 0;
    const auto answer = [&](const auto&... /*request*/) { return ++asked, expected; };
    const auto use = [&] {
      EXPECT_EVENTUALLY(asked == 5 || !asks);
      if (asks) Client(kPath, "done\n").Answer();
      for (const std::size_t i : {1U, 2U}) EXPECT_FALSE(clients[i].Answer() == expected);
      for (const std::size_t i : {4U, 3U, 0U}) {
        EXPECT_TRUE(clients[i].Write(asks ? "" : "\n") && clients[i].Answer() == expected) << i;
      }
    };
    const std::string log = Logged([&] { server.While(answer, use); });
    const std::regex line("(closed . connections of user 4001, which keeps .*\n)+");
    EXPECT_TRUE(std::regex_match(log, line)) << log;
  }
}

TEST_F(ServerTest, WholeRequestsAreNeverGivenUp) {
  for (const std::size_t most : {1U, 1000U}) {  // bytes
    TestServer server(kPath, {.worker = {2 * most, most}, .account = {1, most}});
    Clients clients;
    for (int i = 0; i < 200; ++i) clients.emplace_back(kPath, i == 100 ? "req" : "request\n");
    server.While(Echo, [&] {
      const Client& incomplete = clients[100];
      for (const Client& each : clients) {
        EXPECT_TRUE(&each == &incomplete || each.Answer() == "request");
      }
      EXPECT_EQ(incomplete.Write("\n") ? incomplete.Answer() : "none", most == 1 ? "none" : "req");
    });
    EXPECT_GE(server.after_answers, 199U);
  }
}

TEST_F(ServerTest, EachAccountHasItsLinesInTheLog) {
  TestServer server(kPath);
  Clients clients;
  for (const uid_t user : {kAlice, kAlice + 256}) {
    if (!ConnectAs(user, clients, "request\n")) GTEST_SKIP() << "no other users";
  }
  const auto take = [](const Peer& peer, const auto& /*request*/) {
    EXPECT_TRUE(peer.connection > 2 && peer.accepted < std::chrono::years(10));
    int taken = 0;
    for (int i = 0; i < 25; ++i) taken += peer.lines->Take() ? 1 : 0;
    return std::to_string(taken);
  };
  const auto use = [&] {
    const Client silent(kPath);
    EXPECT_EVENTUALLY(server.slot.waiting == 1);
    for (Client& each : clients) EXPECT_EQ(each.Answer(), "20");
  };
  const std::string log = Logged([&] { server.While(take, use); });
  EXPECT_NE(log.find("5 more refusals of user 4001 were not logged\n"), log.npos) << log;
}

TEST_F(ServerTest, SubordinateIdsBelongToTheirOwner) {
  WriteFile("/etc/subuid", "alice:100000:65536\n:x\n4002:200000:10\nnobody:300000:2\nx:1:0\n");
  People people;
  people.EverySecond();
  const std::map<uid_t, uid_t> persons = {
      {0, 0},           {kAlice, kAlice},    {99999, kSomebody},
      {100000, kAlice}, {165535, kAlice},    {165536, kSomebody},
      {200009, kBob},   {300002, kSomebody}, {300001, 300000}};
  for (const auto& [id, person] : persons) EXPECT_EQ(people.PersonOf(id), person) << id;
  WriteFile("/etc/subuid", "bob:100000:65536\n");
  fs::last_write_time("/etc/subuid", {});  // another one, however coarse the clock is
  people.EverySecond();
  EXPECT_EQ(people.PersonOf(100000), kBob);
}

TEST_F(ServerTest, AnEndingServerAnswersWhoWaits) {
  TestServer server(kPath);
  Clients clients;
  while (clients.size() < 200) clients.emplace_back(kPath, "stop\n");
  const Client incomplete(kPath, "req");
  const Client other(kSecond, "request\n");
  std::size_t answered = 0;
  int seconds = 0;
  const auto answer = [&](const auto&... /*request*/) {
    if (++answered == 2) clients.emplace_back(kSecond, "late\n");
    return std::to_string(answered);
  };
  server.Run(answer, [&] { ++seconds; });
  EXPECT_GE(seconds, 2) << "it waits a second for the rest of a request";
  ASSERT_EQ(answered, clients.size() + 1);
  EXPECT_LT(std::stoi(other.Answer()), 100);
}

// The sanitizers need descriptors when they see a class for the first time.
TEST_F(ServerTest, WithoutDescriptorsItWaitsAndDoesNotSpin) {
  TestServer server(kPath);
  Clients clients;
  clients.emplace_back(kPath, "request\n");
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  usual.rlim_cur = usual.rlim_max;  // as the server sets it
  int seconds = 0;
  server.Run(Echo, [&] {
    if (++seconds == 2) clients.emplace_back(kSecond, "stop\n");
    waits = seconds == 2 ? 0 : waits.load();
    const rlimit none{.rlim_cur = 0, .rlim_max = usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, seconds == 2 ? &none : &usual);
  });
  EXPECT_GE(seconds, 3);
  EXPECT_LT(waits, 100);
}

TEST_F(ServerTest, OnlyPausesWithoutAnyNewConnectionEndIt) {
  const TestServer server(kPath);
  Poll poll;
  Backlog backlog(poll, {server.listener.Get()});
  for (int pauses = 0; pauses < 20; ++pauses) {
    backlog.Pause(EMFILE);
    backlog.Listen();
    const Client client(kPath);
    poll.Wait({});
    EXPECT_TRUE(pauses >= 10 || backlog.Accept().IsOpen());
  }
  EXPECT_THROW(backlog.Pause(EMFILE), std::system_error);
}

// Sends a socket that lingers for an hour once nobody else has it, since its peer does not read.
void SendAlong(const Client& client, int listener, std::string bytes, int flags) {
  sockaddr address{};
  socklen_t length = sizeof address;
  getsockname(listener, &address, &length);
  const OwnedDescriptor sent(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  Check(connect(sent.Get(), &address, length), "connect");
  linger time{.l_onoff = 1, .l_linger = 3600};
  Check(setsockopt(sent.Get(), SOL_SOCKET, SO_LINGER, &time, sizeof time), "linger");
  while (send(sent.Get(), kLongest.data(), kLongest.size(), MSG_DONTWAIT) > 0) {
  }
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  iovec part{.iov_base = bytes.data(), .iov_len = bytes.size()};
  const msghdr message{nullptr, 0, &part, 1, control.data(), control.size(), 0};
  *CMSG_FIRSTHDR(&message) = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
  *reinterpret_cast<int*>(CMSG_DATA(CMSG_FIRSTHDR(&message))) = sent.Get();
  time.l_onoff = sendmsg(client.Descriptor(), &message, MSG_NOSIGNAL | flags) > 0 ? 1 : 0;
  setsockopt(sent.Get(), SOL_SOCKET, SO_LINGER, &time, sizeof time);  // newer kernels refuse it
}

// What comes before a descriptor, and with what flags it is sent. No request is answered if the
// kernel lets it through.
const std::pair<const char*, int> kRequestsWithDescriptors[] = {
    {"", 0}, {"req", 0}, {"", MSG_OOB}, {"req", MSG_OOB}, {"request\n", 0}};

TEST_F(ServerTest, DescriptorsSentAlongHoldNobodyUp) {
  const OwnedDescriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  Check(listen(listener.Get(), 100), "listen");
  const long descriptors = OpenDescriptors();
  for (const int passes : {1, 0}) {
    TestServer server(kPath, {.deadline = kShort});
    // SO_PASSRIGHTS, which older headers lack
    setsockopt(server.listener.Get(), SOL_SOCKET, 83, &passes, sizeof passes);
    Clients clients;
    for (const auto& [before, flags] : kRequestsWithDescriptors) {
      clients.emplace_back(kPath, before);
      SendAlong(clients.back(), listener.Get(), flags == 0 ? "uest\n" : "!", flags);
    }
    const auto answer = [&](const Peer& /*peer*/, const std::string& request) {
      if (request == "late") SendAlong(clients.back(), listener.Get(), request, 0);
      return request;
    };
    clients.emplace_back(kPath, "late\n");
    Client(kPath, "gone\n");  // does not wait
    waits = 0;
    server.While(answer, [&] {
      EXPECT_EQ(clients.back().Answer(), "late");
      for (const Client& each : clients) {
        const std::string got = each.Answer();
        EXPECT_TRUE(got == "none" || (!passes && got == "request")) << got;
      }
    });
    EXPECT_LT(waits, 1000) << "a byte out of band makes it spin";
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

}  // namespace ZELT::ServerTests

#include <sys/socket.h>

#include <climits>
#include <list>
#include <set>

#include "message.h"
#include "server.h"
#include "support/testing.h"
#include "zeltdaemon/domain_sock_connection.h"
#include "zeltrandom/random.h"
#include "zeltsystem/group.h"

namespace ZELT::PlatformTests {

using PlatformTest = PrivateFiles;
using zeltdaemon::DomainSockServer;
using Answers = std::function<std::string(const std::string&)>;

constexpr const char* kPath = "/tmp/socket";
const std::string kLongest(zeltdaemon::kMaxMessageBytes, 'x');

struct Client : zeltdaemon::DomainSockConnection {
  explicit Client(const std::string& bytes = "") : DomainSockConnection(kPath) {
    EXPECT_TRUE(Connect() && Write(bytes));
  }
  bool Write(const std::string& bytes) const {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  void EndStream() const { shutdown(fd, SHUT_WR); }
  std::string Answer() {
    std::string answer = "none";
    Recv(answer);
    return answer;
  }
};

std::string Echo(const std::string& request) { return request; }

// Serves on a thread of its own while `use` runs.
void Serve(DomainSockServer& server, const Answers& answers, const std::function<void()>& use) {
  const std::jthread thread([&] {
    server.Serve([&](int /*connection*/, const std::string& request) {
      if (request == "stop") server.Stop();
      return answers(request);
    });
  });
  use();
  Client("stop\n");
}

// What a client writes until it ends the stream, and the message that arrives.
const std::pair<std::vector<std::string>, std::string> kMessages[] = {
    {{}, "none"},
    {{"a\n"}, "a"},
    {{"\n"}, ""},
    {{"a", "b"}, "ab"},
    {{"a\nb\n"}, "a"},
    {{kLongest, "\n"}, kLongest},
    {{kLongest}, kLongest},
    {{kLongest, "y"}, "none"},
    {{kLongest + "y\n"}, "none"},
};

TEST_F(PlatformTest, MessagesEndAtANewlineOrAtTheEndOfTheStream) {
  DomainSockServer server(kPath);
  Serve(server, Echo, [] {
    for (const auto& [pieces, message] : kMessages) {
      Client client;
      for (const std::string& piece : pieces) client.Write(piece);
      client.EndStream();
      EXPECT_TRUE(client.Answer() == message) << pieces.size() << message.substr(0, 10);
    }
  });
}

TEST_F(PlatformTest, SlowClientsAreClosedAtTheirDeadline) {
  constexpr std::chrono::seconds kDeadline(1);
  DomainSockServer server(kPath, {.request_deadline = kDeadline, .answer_deadline = kDeadline});
  const auto answer = [](const auto& /*request*/) { return kLongest; };
  Serve(server, answer, [] {
    Client silent;
    const Client trickling;
    Client deaf("ask\n");
    EXPECT_TRUE(Client("ask\n").Answer() == kLongest);
    while (trickling.Write("x")) std::this_thread::yield();
    while (deaf.Write("x")) std::this_thread::yield();
    EXPECT_EQ(silent.Answer(), "none");
    EXPECT_LT(deaf.Answer().size(), kLongest.size());
  });
}

TEST_F(PlatformTest, WhatArrivedInTimeDuringAStallIsServed) {
  constexpr std::chrono::milliseconds kStall(1100);
  DomainSockServer server(kPath, {.request_deadline = std::chrono::seconds(1)});
  Client early;
  const Client stalling("stall\n");
  const auto stall = [&](const std::string& request) {
    if (request == "stall" && early.Write("early\n")) std::this_thread::sleep_for(kStall);
    return request;
  };
  Serve(server, stall, [&] { EXPECT_EQ(early.Answer(), "early"); });
}

TEST_F(PlatformTest, AUserAtHisLimitLosesTheOldestAndIsLoggedOnce) {
  DomainSockServer server(kPath, {.waiting_per_user = 2});
  TakeLog();
  Client first;
  Client second;
  Client third;
  Client ready("in whole\n");
  const Client last;
  Serve(server, Echo, [&] {
    EXPECT_EQ(first.Answer() + second.Answer() + ready.Answer(), "nonenonein whole");
    third.Write("late\n");
    EXPECT_EQ(third.Answer(), "late");
  });
  EXPECT_EQ(TakeLog(), "<4>user 0 has 2 of 2 waiting connections: the oldest make room\n");
}

TEST_F(PlatformTest, AServerEndsWithOrWithoutTheBacklog) {
  DomainSockServer server(kPath);
  constexpr unsigned int kClients = 200;  // more than two servers accept at once
  std::list<Client> clients;
  while (clients.size() < kClients) clients.emplace_back("request\n");
  unsigned int answered = 0;
  for (const auto end : {&DomainSockServer::HandOver, &DomainSockServer::Stop}) {
    EXPECT_LT(answered, kClients);
    server.Serve([&](int /*connection*/, const std::string& request) {
      ++answered;
      (server.*end)();
      return request;
    });
  }
  EXPECT_EQ(answered, kClients);
}

TEST_F(PlatformTest, APathMustBeShort) {
  const std::string path(200, 'x');
  zeltdaemon::DomainSockConnection connection(path);
  std::string answer;
  EXPECT_FALSE(connection.Connect() || connection.Send("x") || connection.Recv(answer));
  EXPECT_EQ(Outcome([&] { const DomainSockServer server(path); }), path + ": path too long");
}

TEST(RandomTest, DrawsEveryNumberAndEveryCharacter) {
  RANDOM::ZELTRandom generator;
  std::set<int> numbers;
  for (int i = 0; i < 2000; ++i) numbers.insert(generator.random(-1, 2));
  EXPECT_EQ(numbers, (std::set<int>{-1, 0, 1, 2}));
  std::set<bool> signs;
  for (int i = 0; i < 100; ++i) signs.insert(generator.random(INT_MIN, INT_MAX) < 0);
  EXPECT_EQ(signs.size(), 2U);
  std::string text;
  EXPECT_TRUE(generator.getString(RANDOM::POOL_URL_FRIENDLY, 10000, text));
  EXPECT_EQ(text.size(), 10000U);
  EXPECT_EQ(std::set<char>(text.begin(), text.end()).size(), 64U);
  EXPECT_FALSE(generator.getString("", 1, text));
}

TEST_F(PlatformTest, GroupsAreFoundHoweverManyAndHoweverLarge) {
  std::string members;
  for (int i = 0; i < 500; ++i) members += "member" + std::to_string(i) + ",";
  std::string groups = "users:x:4100:\n";
  std::set<std::string> names = {"users"};
  for (int id = 5000; id < 5200; ++id) {
    names.insert("g" + std::to_string(id));
    groups += "g" + std::to_string(id) + ":x:" + std::to_string(id) + ":" + members + "bob\n";
  }
  WriteFile("/etc/group", groups);
  QLIBCSzList* list = QLIBGroupInfoListGet("bob", 1);
  ASSERT_NE(list, nullptr);
  while (const char* name = QLIBCSzListShift(list)) EXPECT_EQ(names.erase(name), 1U) << name;
  EXPECT_TRUE(names.empty());
  QLIBCSzListFree(list);
  EXPECT_EQ(QLIBGroupInfoListGet("gone", 1), nullptr);
}

}  // namespace ZELT::PlatformTests

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <climits>
#include <memory>
#include <set>
#include <thread>

#include "support/testing.h"
#include "zeltdaemon/domain_sock_connection.h"
#include "zeltdaemon/domain_sock_server.h"
#include "zeltdaemon/message.h"
#include "zeltrandom/random.h"
#include "zeltsystem/file.h"
#include "zeltsystem/group.h"
#include "zeltsystem/user.h"

namespace ZELT::TestSupport {
namespace {

using zeltdaemon::DomainSockServer;
using zeltdaemon::kMaxMessageBytes;
using zeltdaemon::MessageReader;
using State = MessageReader::State;

// A reader behind the pieces that its peer sends, one read after each, and the peer's leaving.
std::string Received(const std::vector<std::string>& pieces) {
  std::array<int, 2> ends{};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends.data()), 0);
  MessageReader reader;
  State state = State::kIncomplete;
  for (std::string piece : pieces) {
    while (!piece.empty() && state == State::kIncomplete) {
      const ssize_t sent = send(ends[1], piece.data(), piece.size(), MSG_NOSIGNAL);
      piece.erase(0, sent < 0 ? 0 : static_cast<std::size_t>(sent));
      state = reader.Read(ends[0]);
    }
  }
  close(ends[1]);
  if (state == State::kIncomplete) state = reader.Read(ends[0]);
  close(ends[0]);
  return state == State::kComplete ? "<" + reader.Take() + ">" : "failed";
}

TEST(MessageTest, EndsAtANewlineOrAtTheEndOfTheStream) {
  const std::string longest(kMaxMessageBytes, 'x');
  const struct {
    std::vector<std::string> pieces;
    std::string message;
  } rows[] = {
      {{}, "failed"},
      {{"a\n"}, "<a>"},
      {{"\n"}, "<>"},
      {{"a", "b", "\n"}, "<ab>"},
      {{"a", "b"}, "<ab>"},
      {{"a\nb\n"}, "<a>"},
      {{longest + "\n"}, "<" + longest + ">"},
      {{longest, "\n"}, "<" + longest + ">"},
      {{longest}, "<" + longest + ">"},
      {{longest, "y"}, "failed"},
      {{longest + "y\n"}, "failed"},
  };
  for (const auto& row : rows) EXPECT_TRUE(Received(row.pieces) == row.message);
}

using ServerTest = PrivateFiles;

constexpr const char* kPath = "/tmp/socket";

struct Client : zeltdaemon::DomainSockConnection {
  explicit Client(const std::string& request = "", const std::string& socket = kPath)
      : DomainSockConnection(socket), connected(Connect()) {
    EXPECT_TRUE(request.empty() || Send(request));
  }
  int Descriptor() const { return fd; }
  bool SendByte() const { return send(fd, "x", 1, MSG_NOSIGNAL) == 1; }
  std::string Answer() {
    std::string answer = "none";
    Recv(answer);
    return answer;
  }

  bool connected;
};

std::string Echo(const std::string& request) { return request; }

// Serves on a thread of its own, until a client says "stop" at the latest.
class Serving {
 public:
  Serving(DomainSockServer& server, const std::function<std::string(const std::string&)>& answer)
      : thread([&server, answer] {
          server.Serve([&](int /*connection*/, const std::string& request) {
            if (request == "stop") server.Stop();
            return answer(request);
          });
        }) {}
  Serving(const Serving&) = delete;
  Serving& operator=(const Serving&) = delete;
  ~Serving() {
    const Client last("stop");
    thread.join();
  }

 private:
  std::thread thread;
};

TEST_F(ServerTest, ClosesSlowClientsAtTheirDeadline) {
  constexpr std::chrono::seconds kDeadline(1);
  DomainSockServer server(kPath, {.request_deadline = kDeadline, .answer_deadline = kDeadline});
  const Serving serving(server, [](const auto&) { return std::string(kMaxMessageBytes, 'x'); });
  Client silent;
  Client trickling;
  Client deaf("ask");
  EXPECT_EQ(Client("ask").Answer().size(), kMaxMessageBytes);
  while (trickling.SendByte()) std::this_thread::yield();
  EXPECT_EQ(silent.Answer(), "none");
  pollfd closed{.fd = deaf.Descriptor(), .events = POLLRDHUP, .revents = 0};
  EXPECT_EQ(poll(&closed, 1, 30000), 1);
  EXPECT_LT(deaf.Answer().size(), kMaxMessageBytes);
}

TEST_F(ServerTest, ServesWhatArrivedInTimeDuringAStall) {
  constexpr std::chrono::milliseconds kStall(1100);
  DomainSockServer server(kPath, {.request_deadline = std::chrono::seconds(1)});
  Client early;
  const Client stalling("stall");
  const Serving serving(server, [&](const std::string& request) {
    if (request == "stall") {
      EXPECT_TRUE(early.Send("early"));
      std::this_thread::sleep_for(kStall);
    }
    return request;
  });
  EXPECT_EQ(early.Answer(), "early");
}

TEST_F(ServerTest, LogsAUserAtHisLimitOnce) {
  DomainSockServer server(kPath, {.waiting_per_user = 1});
  TakeLog();
  Client first;
  Client second;
  Client ready("in whole");
  Client last;
  const Serving serving(server, Echo);
  EXPECT_EQ(first.Answer() + second.Answer() + ready.Answer(), "nonenonein whole");
  EXPECT_TRUE(last.Send("late"));
  EXPECT_EQ(last.Answer(), "late");
  EXPECT_EQ(TakeLog(), "<4>user " + std::to_string(geteuid()) +
                           " has 1 of 1 waiting connections: the oldest make room\n");
}

TEST_F(ServerTest, EndsWithOrWithoutTheBacklog) {
  DomainSockServer server(kPath);
  constexpr unsigned int kClients = 100;  // more than are accepted at once
  std::vector<std::unique_ptr<Client>> clients;
  while (clients.size() < kClients) clients.push_back(std::make_unique<Client>("request"));
  unsigned int answered = 0;
  server.Serve([&](int /*connection*/, const std::string& request) {
    ++answered;
    server.HandOver();
    return request;
  });
  EXPECT_LT(answered, kClients);
  server.Serve([&](int /*connection*/, const std::string& request) {
    ++answered;
    server.Stop();
    return request;
  });
  EXPECT_EQ(answered, kClients);
}

TEST_F(ServerTest, NeedsAServerAndAShortPath) {
  const std::string too_long(200, 'x');
  EXPECT_FALSE(Client().connected);
  EXPECT_FALSE(Client("", too_long).connected);
  EXPECT_EQ(Client().Answer(), "none");
  EXPECT_EQ(Outcome([&] { const DomainSockServer server(too_long); }),
            too_long + ": path too long");
}

TEST(RandomTest, DrawsEveryNumberAndEveryCharacter) {
  RANDOM::ZELTRandom generator;
  std::set<int> numbers;
  for (int i = 0; i < 2000; ++i) numbers.insert(generator.random(-1, 2));
  EXPECT_EQ(numbers, (std::set<int>{-1, 0, 1, 2}));
  EXPECT_EQ(generator.random(INT_MAX, INT_MAX), INT_MAX);
  std::set<bool> signs;
  for (int i = 0; i < 100; ++i) signs.insert(generator.random(INT_MIN, INT_MAX) < 0);
  EXPECT_EQ(signs.size(), 2U);

  const std::string pool = RANDOM::POOL_URL_FRIENDLY;
  std::string text;
  ASSERT_TRUE(generator.getString(pool, 10000, text));
  EXPECT_EQ(text.size(), 10000U);
  EXPECT_EQ(std::set<char>(text.begin(), text.end()), std::set<char>(pool.begin(), pool.end()));
  EXPECT_EQ(std::set<char>(pool.begin(), pool.end()).size(), 64U);
  EXPECT_TRUE(generator.getString("ab", 0, text));
  EXPECT_EQ(text, "");
  EXPECT_FALSE(generator.getString("", 1, text));
}

using SystemTest = PrivateFiles;

TEST_F(SystemTest, FindsUsersAndGroupsHoweverMany) {
  std::string groups = "root:x:0:\nusers:x:4100:\n";
  std::string many;
  for (int i = 0; i < 500; ++i) many += "member" + std::to_string(i) + ",";
  for (int i = 0; i < 200; ++i) {
    groups += "g" + std::to_string(i) + ":x:" + std::to_string(5000 + i) + ":" + many + "bob\n";
  }
  WriteFile("/etc/group", groups);
  QLIBCSzList* list = QLIBGroupInfoListGet("bob", 1);
  ASSERT_NE(list, nullptr);
  std::set<std::string> names;
  while (const char* name = QLIBCSzListShift(list)) names.insert(name);
  QLIBCSzListFree(list);
  EXPECT_EQ(names.size(), 201U);
  EXPECT_TRUE(names.count("users") == 1 && names.count("g199") == 1);
  EXPECT_EQ(QLIBGroupInfoListGet("gone", 1), nullptr);

  ZELTUser* user = nullptr;
  EXPECT_NE(ZELTUserGetLocalByUID(4999, &user), 0);
  EXPECT_EQ(ZELTUserGetLocalByUID(4002, &user), 0);
  EXPECT_STREQ(user->name, "bob");
  ZELTUserFree(user);
}

TEST_F(SystemTest, TouchesFiles) {
  WriteFile("/tmp/kept", "text");
  EXPECT_EQ(QLIBCFileTouch("/tmp/kept"), 0);
  EXPECT_EQ(ReadFile("/tmp/kept"), "text");
  EXPECT_EQ(QLIBCFileTouch("/tmp/new"), 0);
  EXPECT_EQ(access("/tmp/new", F_OK), 0);
  EXPECT_NE(QLIBCFileTouch("/tmp/none/new"), 0);
}

}  // namespace
}  // namespace ZELT::TestSupport

#include <set>

#include "message.h"
#include "support/serving.h"
#include "zeltrandom/random.h"
#include "zeltsystem/group.h"

namespace ZELT::PlatformTests {

using PlatformTest = PrivateFiles;

constexpr const char* kPath = "/tmp/socket";
const std::string kLongest(zeltdaemon::kMaxRequestBytes, 'x');

// What a client writes until it ends the stream, and the message that arrives.
const std::pair<std::vector<std::string>, std::string> kMessages[] = {
    {{}, "none"},
    {{"\n"}, ""},
    {{"a\nb\n"}, "a"},
    {{kLongest}, kLongest},
    {{kLongest, "y"}, kLongest + "y"},
    {{kLongest + "yz\n"}, kLongest + "y"},  // what is too long is cut
};

TEST_F(PlatformTest, MessagesEndAtANewlineOrAtTheEndOfTheStream) {
  TestServer server(kPath);
  server.While(Echo, [] {
    for (const auto& [pieces, message] : kMessages) {
      Client client(kPath);
      for (const std::string& piece : pieces) client.Write(piece);
      shutdown(client.Descriptor(), SHUT_WR);
      EXPECT_TRUE(client.Answer() == message) << pieces.size() << message.substr(0, 10);
    }
    Client client(kPath);
    EXPECT_EQ(fcntl(client.Descriptor(), F_GETFD), FD_CLOEXEC);
    EXPECT_TRUE(client.Send(kLongest) && client.Answer() == kLongest);
  });
}

TEST_F(PlatformTest, APathMustBeShort) {
  const std::string path(200, 'x');
  zeltdaemon::DomainSockConnection connection(path);
  std::string answer;
  EXPECT_FALSE(connection.Connect() || connection.Send("x") || connection.Recv(answer));
}

TEST(RandomTest, DrawsEveryNumberAndEveryCharacter) {
  RANDOM::ZELTRandom generator;
  std::set<int> numbers;
  for (int i = 0; i < 2000; ++i) numbers.insert(generator.random(-1, 2));
  EXPECT_EQ(numbers, (std::set<int>{-1, 0, 1, 2}));
  std::string text;
  EXPECT_TRUE(generator.getString(RANDOM::POOL_URL_FRIENDLY, 10000, text));
  EXPECT_EQ(text.size(), 10000U);
  EXPECT_EQ(std::set<char>(text.begin(), text.end()).size(), 64U);
  EXPECT_FALSE(generator.getString("", 1, text));
}

std::string GroupsOf(const char* user) {
  QLIBCSzList* list = QLIBGroupInfoListGet(user, 1);
  if (list == nullptr) return "none";
  std::string groups;
  while (const char* name = QLIBCSzListShift(list)) groups += name + std::string(" ");
  QLIBCSzListFree(list);
  return groups;
}

TEST_F(PlatformTest, GroupsAreFoundHoweverManyAndHoweverLarge) {
  std::string members;
  for (int i = 0; i < 500; ++i) members += "member" + std::to_string(i) + ",";
  std::string names = "users ";
  std::string groups = "users:x:4100:\n";
  for (int id = 5000; id < 5200; ++id) {
    const std::string number = std::to_string(id);
    names += "g" + number + " ";
    groups += "g" + number + ":x:" + number + ":" + members + "bob\n";
  }
  WriteFile("/etc/group", groups);
  EXPECT_EQ(GroupsOf("bob"), names);
  EXPECT_EQ(GroupsOf("gone"), "none");
}

TEST_F(PlatformTest, AChangeOfGroupsHoldsAtOnce) {
  for (int i = 0; i < 300; ++i) {
    const std::string group = "g" + std::to_string(100 + i);
    WriteFile("/etc/group", "root:x:0:\nusers:x:4100:\n" + group + ":x:4101:bob\n");
    // Often, the file is too young to be remembered; with this many turns, it is not always.
    for (int again = 0; again < 1 + i % 30; ++again) {
      ASSERT_EQ(GroupsOf("bob"), "users " + group + " ");
      ASSERT_EQ(GroupsOf("alice"), "users ");
    }
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(GroupsOf("bob"), "users g399 ");
  WriteFile("/etc/passwd", "bob:x:4002:0::/:/bin/sh\n");
  EXPECT_EQ(GroupsOf("bob"), "root g399 ");
  Check(mount("/dev/null", "/etc/group", nullptr, MS_BIND, nullptr), "/etc/group");
  EXPECT_EQ(GroupsOf("bob"), "");
  Check(mount("/proc/self/mem", "/etc/group", nullptr, MS_BIND, nullptr), "/etc/group");
  EXPECT_EQ(GroupsOf("bob"), "none") << "the file cannot be read";
  for (int i = 0; i < 2; ++i) Check(umount("/etc/group"), "/etc/group");
}

}  // namespace ZELT::PlatformTests

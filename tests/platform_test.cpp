#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <set>

#include "support/testing.h"
#include "zeltdaemon/message.h"
#include "zeltrandom/random.h"
#include "zeltsystem/file.h"
#include "zeltsystem/group.h"
#include "zeltsystem/user.h"

namespace ZELT::TestSupport {
namespace {

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
  QLIBCSzList* list = QLIBGroupInfoListGet("bob", kQLIBAllGroups);
  ASSERT_NE(list, nullptr);
  std::set<std::string> names;
  while (const char* name = QLIBCSzListShift(list)) names.insert(name);
  QLIBCSzListFree(list);
  EXPECT_EQ(names.size(), 201U);
  EXPECT_TRUE(names.count("users") == 1 && names.count("g199") == 1);
  EXPECT_EQ(QLIBGroupInfoListGet("gone", kQLIBAllGroups), nullptr);

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

#include "zelttokenmanager/utils.h"

#include <sys/poll.h>
#include <sys/syscall.h>

#include "daemon_socket.h"
#include "support/fake_daemon.h"
#include "support/tables.h"

namespace {
std::atomic<int> time_left = 0;
}  // namespace

// Stands in for the C library's, and notes how long a client is ready to wait.
extern "C" [[gnu::visibility("default")]] int poll(pollfd* fds, nfds_t count, int milliseconds) {
  time_left = milliseconds;
  return static_cast<int>(syscall(SYS_poll, fds, count, milliseconds));
}

namespace ZELT::TokenManager::UtilsTests {

using UtilsTest = PrivateFiles;

TEST_F(UtilsTest, PermittedListsAdmitUsersAndGroups) {
  const auto is_in = [](const auto& names, const auto& permitted) {
    return IsIdentityInPermittedList(names[0].asString(), permitted, names[1].asString());
  };
  CheckSection("utils.txt", "permitted lists", is_in);
}

std::string SendMany() {
  std::string verdicts;
  for (const Verdict verdict : SendValidateManyRequest("s", "t", {Value("{}"), Value("[1]"), 2})) {
    verdicts += std::to_string(static_cast<int>(verdict));
  }
  return verdicts;
}

std::string Send(const std::string& type) {
  return Outcome([&]() -> Json::Value {
    if (type == "issue") return SendIssueRequest("s", Value("{'a':[1]}"));
    if (type == "many") return SendMany();
    if (type == "validate") return SendValidateRequest("s", "t", Value("['äࠀ한𐀀\\n']"));
    return type == "revoke" ? SendRevokeRequest("s", "t") : SendTransferRequest("s", "t", 77);
  });
}

TEST_F(UtilsTest, ClientsSendOneRequestAndReadOneResponse) {
  const OwnedDescriptor daemon = ListenAt(kSocketPath);
  for (const Cells& row : Section("utils.txt", "exchanges")) {
    const std::jthread client(
        [&] { EXPECT_EQ(Requoted(Send(row.at(0))), row.at(2)) << row[0] << row[1]; });
    EXPECT_EQ(AnswerOne(daemon, row.at(1)), RequestOf(row[0]));
  }
}

// How daemons may frame their messages. The first reads to the end of the stream before it answers.
const char* const kFramings[] = {
    R"({"success":true})",
    "\n\r\n{\"a\":[\"\\\"}\\\\\",{}],\"success\":true}",
    "\xef\xbb\xbf{\"success\":true} more",
};

TEST_F(UtilsTest, ClientsUnderstandDaemonsThatFrameMessagesInOtherWays) {
  const OwnedDescriptor daemon = ListenAt(kSocketPath);
  signal(SIGUSR1, [](int) {});
  for (const char* framing : kFramings) {
    OwnedDescriptor connection;
    std::jthread client([&] { EXPECT_EQ(Send("revoke"), "true") << framing; });
    connection = OwnedDescriptor(accept(daemon.Get(), nullptr, nullptr));
    for (char c = 0; read(connection.Get(), &c, 1) == 1;) {
      if (c == '\n' && *framing != '{') break;
    }
    for (const char* c = framing; *c != '\0'; ++c) {
      pthread_kill(client.native_handle(), SIGUSR1);
      send(connection.Get(), c, 1, MSG_NOSIGNAL);
    }
  }
}

TEST_F(UtilsTest, ClientsHaveOneDeadlineForAWholeAnswer) {
  const OwnedDescriptor daemon = ListenAt(kSocketPath);
  const std::jthread client([] { Send("revoke"); });
  const OwnedDescriptor connection(accept(daemon.Get(), nullptr, nullptr));
  EXPECT_EVENTUALLY(send(connection.Get(), " ", 1, MSG_NOSIGNAL) == 1 && time_left > 9999 &&
                    time_left < 29990);
}

TEST_F(UtilsTest, NeedADaemonARequestThatCanBeSentAndASocket) {
  MountEmpty("/run", "mode=755");
  const long descriptors = OpenDescriptors();
  EXPECT_EQ(Send("issue"), "utils.cpp:62 failed to access domain socket");
  const OwnedDescriptor daemon = ListenAt(kSecondSocketPath);
  const std::string large(1 << 19, 'x');
  std::jthread leaving([&] { close(accept(daemon.Get(), nullptr, nullptr)); });
  EXPECT_EQ(Outcome([&] { SendRevokeRequest("s", large); }), "utils.cpp:65 failed to send request");
  leaving.join();
  EXPECT_EQ(Outcome([] { GetPeerCredential(-1); }), "utils.cpp:149 failed to get peer credential");
  EXPECT_EQ(OpenDescriptors(), descriptors + 1);
  for (const std::size_t spaces : {0U, 1U << 20}) {
    const std::jthread client([&] {
      EXPECT_EQ(Outcome([&] { return Json::Value(SendRevokeRequest("s", large)); }),
                spaces == 0 ? "true" : "utils.cpp:72 failed to receive response");
    });
    const std::string answer = std::string(spaces, ' ') + R"({"success":true})";
    EXPECT_TRUE(AnswerOne(daemon, answer).ends_with('}'));
  }
}

// Who listens at the first address, who owns the socket file there, and whether that is trusted.
const std::tuple<uid_t, uid_t, bool> kServers[] = {
    {0, 0, true}, {4005, 4005, true}, {4002, 4002, false}, {4002, 0, false}, {0, 4002, false}};

TEST_F(UtilsTest, ClientsSendNothingToStrangers) {
  if (seteuid(4002) != 0 || seteuid(0) != 0) GTEST_SKIP() << "no users but this one";
  std::ofstream("/etc/passwd", std::ios::app) << "zelttokenmgr:x:4005:4100::/:/bin/sh\n";
  MountEmpty("/run", "mode=755");
  const OwnedDescriptor second = ListenAt(kSecondSocketPath);
  for (const auto& [listener, owner, trusted] : kServers) {
    fs::permissions("/tmp", fs::perms::all);
    Check(seteuid(listener), "seteuid");
    const OwnedDescriptor first = ListenAt(kSocketPath);
    Check(seteuid(0), "seteuid");
    Check(chown(kSocketPath, owner, 0), kSocketPath);
    const std::jthread client([] { EXPECT_EQ(Send("revoke"), "true"); });
    EXPECT_NE(AnswerOne(trusted ? first : second, R"({"success":true})"), "") << listener;
  }
  Check(seteuid(4002), "seteuid");
  EXPECT_FALSE(ForeignOwner(kSocketPath).has_value()) << "it is its own";
  Check(seteuid(0), "seteuid");
  fs::remove(kSocketPath);
  fs::create_symlink(kSecondSocketPath, kSocketPath);
  Check(lchown(kSocketPath, 4002, 0), kSocketPath);
  EXPECT_TRUE(ForeignOwner(kSocketPath).has_value()) << "whose link it is";
  const auto unmapped = [] { return unshare(CLONE_NEWUSER) != 0 || !IsDaemonUser(65534) ? 7 : 0; };
  EXPECT_EQ(Finish(Start(unmapped)), 7) << "anybody may have this id";
}

}  // namespace ZELT::TokenManager::UtilsTests

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
    if (type == "validate") return SendValidateRequest("s", "t", Value("['\xc3\xa4\\n']"));
    return type == "revoke" ? SendRevokeRequest("s", "t") : SendTransferRequest("s", "t", 77);
  });
}

TEST_F(UtilsTest, ClientsSendOneRequestAndReadOneResponse) {
  const OwnedDescriptor daemon = ListenAt(kSocketPath);
  std::map<std::string, std::string> requests;
  for (const Cells& row : Section("utils.txt", "requests")) requests[row.at(0)] = row.at(1);
  for (const Cells& row : Section("utils.txt", "exchanges")) {
    const std::jthread client(
        [&] { EXPECT_EQ(Requoted(Send(row.at(0))), row.at(2)) << row[0] << row[1]; });
    EXPECT_EQ(AnswerOne(daemon, row.at(1)), requests[row[0]]);
  }
}

struct Framing {
  const char* answer;
  bool reads_to_the_end = false;  // of the client's stream, before it answers
  bool closes = false;
};

// How daemons may frame their messages.
const Framing kFramings[] = {{.answer = R"({"success":true})", .closes = true},
                             {.answer = R"({"success":true})"},
                             {.answer = "{\"success\":true}\n", .reads_to_the_end = true},
                             {.answer = "\n\r\n{\"a\":[\"\\\"}\\\\\",{}],\"success\":true}"},
                             {.answer = "\xef\xbb\xbf{\"success\":true} more"}};

TEST_F(UtilsTest, ClientsUnderstandDaemonsThatFrameMessagesInOtherWays) {
  const OwnedDescriptor daemon = ListenAt(kSocketPath);
  for (const Framing& framing : kFramings) {
    OwnedDescriptor connection;
    const std::jthread client([&] { EXPECT_EQ(Send("revoke"), "true") << framing.answer; });
    connection = OwnedDescriptor(accept(daemon.Get(), nullptr, nullptr));
    for (char c = 0; read(connection.Get(), &c, 1) == 1;) {
      if (c == '\n' && !framing.reads_to_the_end) break;
    }
    for (const char* c = framing.answer; *c != '\0'; ++c) {
      send(connection.Get(), c, 1, MSG_NOSIGNAL);
    }
    if (framing.closes) connection.Close();
  }
}

TEST_F(UtilsTest, ClientsHaveOneDeadlineForAWholeAnswer) {
  const OwnedDescriptor daemon = ListenAt(kSocketPath);
  const std::jthread client([] { Send("revoke"); });
  const OwnedDescriptor connection(accept(daemon.Get(), nullptr, nullptr));
  EXPECT_TRUE(Eventually([&] {
    return send(connection.Get(), " ", 1, MSG_NOSIGNAL) == 1 && time_left > 0 && time_left < 29990;
  }));
}

TEST_F(UtilsTest, NeedADaemonARequestThatCanBeSentAndASocket) {
  MountEmpty("/run", "mode=755");
  const long descriptors = OpenDescriptors();
  EXPECT_EQ(Send("issue"), "utils.cpp:62 failed to access domain socket");
  const OwnedDescriptor daemon = ListenAt(kSecondSocketPath);
  EXPECT_EQ(Outcome([] { SendRevokeRequest("s", std::string(2 << 20, 'x')); }),
            "utils.cpp:65 failed to send request");
  EXPECT_EQ(Outcome([] { GetPeerCredential(-1); }), "utils.cpp:149 failed to get peer credential");
  EXPECT_EQ(OpenDescriptors(), descriptors + 1);
}

// Who listens at the first address, and who owns the socket file there.
struct ServerRow {
  uid_t listener;
  uid_t owner;
  bool trusted;
};

const ServerRow kServers[] = {
    {0, 0, true}, {4005, 4005, true}, {4002, 4002, false}, {4002, 0, false}, {0, 4002, false}};

TEST_F(UtilsTest, ClientsSendNothingToStrangers) {
  if (seteuid(4002) != 0 || seteuid(0) != 0) GTEST_SKIP() << "no users but this one";
  std::ofstream("/etc/passwd", std::ios::app) << "zelttokenmgr:x:4005:4100::/:/bin/sh\n";
  MountEmpty("/run", "mode=755");
  const OwnedDescriptor second = ListenAt(kSecondSocketPath);
  for (const ServerRow& row : kServers) {
    fs::permissions("/tmp", fs::perms::all);
    Check(seteuid(row.listener), "seteuid");
    const OwnedDescriptor first = ListenAt(kSocketPath);
    Check(seteuid(0), "seteuid");
    Check(chown(kSocketPath, row.owner, 0), kSocketPath);
    EXPECT_EQ(ForeignOwner(kSocketPath).has_value(), row.owner == 4002);
    const std::jthread client([] { EXPECT_EQ(Send("revoke"), "true"); });
    EXPECT_NE(AnswerOne(row.trusted ? first : second, R"({"success":true})"), "") << row.listener;
  }
  fs::remove(kSocketPath);
  fs::create_symlink(kSecondSocketPath, kSocketPath);
  Check(lchown(kSocketPath, 4002, 0), kSocketPath);
  EXPECT_TRUE(ForeignOwner(kSocketPath).has_value()) << "whose link it is";
}

}  // namespace ZELT::TokenManager::UtilsTests

#include "zelttokenmanager/utils.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <thread>

#include "support/testing.h"

namespace ZELT::TokenManager {
namespace {

using namespace TestSupport;
using PermittedListTest = PrivateFiles;
using ClientTest = PrivateFiles;

// Identity and requester with a permitted list. Nobody is named "gone".
const std::vector<Row> kListRows = {
    {"['alice','alice']", "5", "190 invalid type of permitted list"},
    {"['gone','gone']", "{}", "190 invalid type of permitted list"},
    {"['','alice']", "'any'", "true"},
    {"['alice','bob']", "'ANY'", "false"},
    {"['alice','alice']", "'ANY'", "true"},
    {"['gone','gone']", "'requester'", "true"},
    {"['gone','alice']", "'gone'", "false"},
    {"['','']", "''", "true"},
    {"['alice','alice']", "[]", "false"},
    {"['gone','gone']", "[]", "37 failed to lookup groups of user"},
    {"['gone','']", "['gone',5]", "37 failed to lookup groups of user"},
    {"['alice','alice']", "['any']", "false"},
    {"['any','alice']", "['any']", "true"},
    {"['alice','alice']", "['Alice','alice ']", "false"},
    {"['bob','']", "['alice','@staff']", "true"},
    {"['bob','']", "['@Staff','@','staff']", "false"},
    {"['carol','']", "['@staff']", "false"},
    {"['bob\\u0000','']", "['@staff']", "37 failed to lookup groups of user"},
    {"['@staff','']", "['@staff']", "true"},
    {"['@staff','@staff']", "['staff','any']", "false"},
    {"['@nowhere','']", "['@nowhere']", "true"},
    {"['@','']", "['@']", "true"},
    {"['bob','']", "['bob',5]", "true"},
    {"['carol','']", "['bob',5]", "170 invalid type, String expected"},
    {"['@staff','']", "[null]", "170 invalid type, String expected"},
};

TEST_F(PermittedListTest, AdmitsUsersAndGroups) {
  CheckRows("utils.cpp", kListRows, [](const auto& names, const auto& permitted) {
    return IsIdentityInPermittedList(names[0].asString(), permitted, names[1].asString());
  });
}

TEST(CredentialTest, IsThatOfThePeer) {
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
  const ucred peer = GetPeerCredential(ends[0]);
  EXPECT_TRUE(peer.pid == getpid() && peer.uid == geteuid() && peer.gid == getegid());
  close(ends[0]);
  close(ends[1]);
  EXPECT_EQ(Outcome([&] { GetPeerCredential(ends[0]); }),
            "utils.cpp:149 failed to get peer credential");
}

// Listens on the daemon's socket and serves one connection: reads a line, then answers.
class OneAnswer {
 public:
  explicit OneAnswer(const std::string& answer) : listener(socket(AF_UNIX, SOCK_STREAM, 0)) {
    const sockaddr_un address{AF_UNIX, "/tmp/zelttokenmgr.sock"};
    unlink(address.sun_path);
    EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener, 1), 0);
    thread = std::thread([this, answer] { Serve(answer); });
  }
  OneAnswer(const OneAnswer&) = delete;
  OneAnswer& operator=(const OneAnswer&) = delete;
  ~OneAnswer() { close(listener); }

  std::string Request() {
    thread.join();
    return request;
  }

 private:
  void Serve(const std::string& answer) {
    const int connection = accept(listener, nullptr, nullptr);
    for (char next = 0; recv(connection, &next, 1, 0) == 1 && next != '\n';) {
      request += next;
    }
    send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
    close(connection);
  }

  int listener;
  std::string request;
  std::thread thread;
};

Json::Value Send(const std::string& type) {
  if (type == "issue") {
    return SendIssueRequest("s", Value("{'a':[1]}"));
  }
  if (type == "validate") {
    return SendValidateRequest("s", "t", Value("['\xc3\xa4\\n']"));
  }
  return type == "revoke" ? SendRevokeRequest("s", "t") : SendTransferRequest("s", "t", 77);
}

const std::vector<Row> kRequests = {
    {"issue", "{'success':true}", "{'payload':{'a':[1]},'service':'s','type':'issue'}"},
    {"validate", "{'success':true}",
     "{'payload':['\xc3\xa4\\n'],'service':'s','token':'t','type':'validate'}"},
    {"revoke", "{}", "{'payload':null,'service':'s','token':'t','type':'revoke'}"},
    {"transfer", "{}", "{'payload':77,'service':'s','token':'t','type':'transfer'}"},
};

const std::vector<Row> kAnswers = {
    {"issue", "{'success':true,'token':'x','more':1}", "'x'"},
    {"issue", "{'success':true}", "''"},
    {"issue", "{'success':true,'token':[]}", "''"},
    {"issue", "{'success':1,'token':5}", "'5'"},
    {"issue", "{'success':false,'token':'x'}", "utils.cpp:89 token manager cannot issue token"},
    {"issue", "{'success':{},'token':'x'}", "utils.cpp:89 token manager cannot issue token"},
    {"issue", "[]", "utils.cpp:89 token manager cannot issue token"},
    {"validate", "{'success':true,'permitted':true}", "true"},
    {"validate", "{'success':true}", "false"},
    {"validate", "{'success':true,'permitted':false}", "false"},
    {"validate", "{'permitted':true}", "utils.cpp:108 token manager cannot validate token"},
    {"validate", "'success'", "utils.cpp:108 token manager cannot validate token"},
    {"revoke", "{'success':true}", "true"},
    {"revoke", "{'success':'yes'}", "false"},
    {"revoke", "5", "false"},
    {"transfer", "{'success':true}", "true"},
    {"transfer", "[true]", "false"},
    {"issue", "", "utils.cpp:72 failed to receive response"},
    {"validate", "\n", "utils.cpp:72 failed to receive response"},
    {"revoke", "{'success':true", "utils.cpp:72 failed to receive response"},
    {"transfer", "{'success':true} trailing", "utils.cpp:72 failed to receive response"},
};

std::string DoubleQuoted(std::string text) {
  for (char& each : text) {
    each = each == '\'' ? '"' : each;
  }
  return text;
}

TEST_F(ClientTest, SendsOneRequestAndReadsOneResponse) {
  for (const Row& row : kRequests) {
    OneAnswer server(DoubleQuoted(row.second) + "\n");
    Send(row.first);
    EXPECT_EQ(Text(Value(server.Request())), row.outcome);
  }
  for (const Row& row : kAnswers) {
    SCOPED_TRACE(row.second);
    OneAnswer server(DoubleQuoted(row.second));
    EXPECT_EQ(Outcome([&] { return Send(row.first); }), row.outcome);
    server.Request();
  }
}

TEST_F(ClientTest, NeedsADaemonAndAShortRequest) {
  const char* const no_daemon = "utils.cpp:62 failed to access domain socket";
  EXPECT_EQ(Outcome([] { Send("issue"); }), no_daemon);
  {
    OneAnswer server("{}");
    EXPECT_EQ(Outcome([] { SendRevokeRequest("s", std::string(2 << 20, 'x')); }),
              "utils.cpp:65 failed to send request");
    server.Request();
  }
  EXPECT_EQ(Outcome([] { Send("transfer"); }), no_daemon) << "a socket that nobody serves";
}

}  // namespace
}  // namespace ZELT::TokenManager

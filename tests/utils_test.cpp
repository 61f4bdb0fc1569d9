#include "zelttokenmanager/utils.h"

#include "daemon_socket.h"
#include "support/fake_daemon.h"
#include "support/tables.h"

namespace ZELT::TokenManager::UtilsTests {

using UtilsTest = PrivateFiles;

TEST_F(UtilsTest, PermittedListsAdmitUsersAndGroups) {
  const auto is_in = [](const auto& names, const auto& permitted) {
    return IsIdentityInPermittedList(names[0].asString(), permitted, names[1].asString());
  };
  CheckSection("utils.txt", "permitted lists", is_in);
}

Json::Value Send(const std::string& type) {
  if (type == "issue") return SendIssueRequest("s", Value("{'a':[1]}"));
  if (type == "validate") return SendValidateRequest("s", "t", Value("['\xc3\xa4\\n']"));
  return type == "revoke" ? SendRevokeRequest("s", "t") : SendTransferRequest("s", "t", 77);
}

// Types of requests with the daemon's answers.
const Row kAnswers[] = {
    {"issue", "{'success':true,'token':'x','more':1}", "'x'"},
    {"issue", "{'success':true,'token':[]}", "''"},
    {"issue", "{'success':1,'token':5}", "'5'"},
    {"issue", "{'success':false,'token':'x'}", "utils.cpp:89 token manager cannot issue token"},
    {"validate", "{'success':true,'permitted':true}", "true"},
    {"validate", "{'success':true}", "false"},
    {"validate", "{'permitted':true}", "utils.cpp:108 token manager cannot validate token"},
    {"revoke", "{'success':true}", "true"},
    {"revoke", "{'success':'yes'}", "false"},
    {"transfer", "{'success':true}", "true"},
    {"transfer", "[true]", "false"},
    {"issue", "", "utils.cpp:72 failed to receive response"},
    {"transfer", "{'success':true} trailing", "utils.cpp:72 failed to receive response"},
};

const std::map<std::string, std::string> kRequests = {
    {"issue", "{'payload':{'a':[1]},'service':'s','type':'issue'}"},
    {"validate", "{'payload':['\xc3\xa4\\n'],'service':'s','token':'t','type':'validate'}"},
    {"revoke", "{'payload':null,'service':'s','token':'t','type':'revoke'}"},
    {"transfer", "{'payload':77,'service':'s','token':'t','type':'transfer'}"},
};

TEST_F(UtilsTest, ClientsSendOneRequestAndReadOneResponse) {
  const OwnedDescriptor daemon = ListenAt(kSocketPath);
  for (const Row& row : kAnswers) {
    const std::jthread client(
        [&] { EXPECT_EQ(Outcome([&] { return Send(row.first); }), row.outcome) << row.second; });
    EXPECT_EQ(Requoted(AnswerOne(daemon, Requoted(row.second))), kRequests.at(row.first));
  }
}

TEST_F(UtilsTest, NeedADaemonAShortRequestAndASocket) {
  MountEmpty("/run", "mode=755");
  EXPECT_EQ(Outcome([] { Send("issue"); }), "utils.cpp:62 failed to access domain socket");
  const OwnedDescriptor daemon = ListenAt(kSecondSocketPath);
  EXPECT_EQ(Outcome([] { SendRevokeRequest("s", std::string(2 << 20, 'x')); }),
            "utils.cpp:65 failed to send request");
  EXPECT_EQ(Outcome([] { GetPeerCredential(-1); }), "utils.cpp:149 failed to get peer credential");
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
    const std::jthread client([] { EXPECT_EQ(Outcome([] { return Send("revoke"); }), "true"); });
    const std::string request = AnswerOne(row.trusted ? first : second, R"({"success":true})");
    EXPECT_NE(request, "") << row.listener << " " << row.owner;
  }
}

}  // namespace ZELT::TokenManager::UtilsTests

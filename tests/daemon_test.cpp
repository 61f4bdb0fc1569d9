#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>

#include "support/programs.h"
#include "zeltdaemon/domain_sock_connection.h"

namespace ZELT::TestSupport {
namespace {

using DaemonTest = ProgramsTest;

constexpr const char* kRefused = R"({"success":false})";
constexpr const char* kPermitted = R"({"permitted":true,"success":true})";
constexpr const char* kIssue =
    R"({"type":"issue","service":"fastapi","payload":[{"api":"Demo.Item","method":"get"}]})";

std::string IssuedToken() { return Value(Ask(kIssue))["token"].asString(); }

std::string Validate(const std::string& token) {
  return Ask(R"({"type":"validate","service":"fastapi","token":")" + token +
             R"(","payload":{"api":"Demo.Item","method":"get","runner":"root"}})");
}

std::string Revoke(const std::string& token) {
  return Ask(R"({"type":"revoke","service":"fastapi","token":")" + token + R"(","payload":null})");
}

TEST_F(DaemonTest, RefusesWhatItCannotServeAndSaysWhy) {
  const Daemon daemon;
  const std::string token = IssuedToken();
  const struct {
    std::string request;
    const char* answer;
    const char* reason;
  } rows[] = {
      {"", kRefused, "type=none service=none"},
      {"[1]", kRefused, "not a JSON object"},
      {std::string(1 << 20, '['), kRefused, "not a JSON object"},
      {std::string((1 << 20) + 1, ' '), "none", ""},
      {"{}", kRefused, "unknown type"},
      {R"({"type":["issue"]})", kRefused, "unknown type"},
      {R"({"type":"issue\nroot logged in"})", kRefused, R"(type="issue\nroot logged in")"},
      {R"({"type":"issue","service":5})", kRefused, "token_manager.cpp:95"},
      {R"({"type":"validate","service":"fastapi","token":"no"})", kRefused,
       "cpp:147 invalid token"},
      {R"({"type":"validate","service":"fastapi","token":"a\u0000"})", kRefused, "NUL byte"},
      {R"({"type":"validate","service":")" + token + R"(","token":")" + token + R"("})", kRefused,
       R"(service="...")"},
      {R"({"type":"validate","service":"fastapi","token":")" + token + R"("})",
       R"({"permitted":null,"success":false})", "service/fastapi.cpp:58"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Ask(row.request), row.answer) << row.reason;
    EXPECT_TRUE(daemon.Logs(row.reason)) << row.reason;
  }
  EXPECT_EQ(Validate(token), kPermitted);
  EXPECT_EQ(daemon.Log().find(token), std::string::npos);
}

TEST_F(DaemonTest, OnlyOneServesAndItStopsClean) {
  Daemon daemon;
  const Ended second = RunProgram("daemon/zelttokenmgrd", {});
  EXPECT_EQ(second.exit_code, 1);
  EXPECT_EQ(second.errors, "zelttokenmgrd: another daemon serves /tmp/zelttokenmgr.sock\n");
  const std::string token = IssuedToken();
  EXPECT_EQ(kill(daemon.pid, SIGUSR1), 0);
  EXPECT_TRUE(daemon.Logs(R"(cache: {"hit":0,"miss":0,"total":0})"));
  EXPECT_EQ(daemon.End(SIGTERM).exit_code, 0);
  EXPECT_FALSE(std::filesystem::exists("/tmp/zelttokenmgr.sock"));

  Daemon killed({"--cache-size", "0"});
  EXPECT_EQ(Validate(token), kPermitted);
  killed.End(SIGKILL);
  EXPECT_TRUE(std::filesystem::exists("/tmp/zelttokenmgr.sock"));
  Daemon next;
  EXPECT_EQ(Validate(token), kPermitted);
  next.End(SIGINT);
  WriteFile("/tmp/zelttokenmgr.sock", "kept");
  const Ended refused = RunProgram("daemon/zelttokenmgrd", {});
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_EQ(ReadFile("/tmp/zelttokenmgr.sock"), "kept");
}

TEST_F(DaemonTest, ServesOnWhenWorkersAreKilled) {
  const Daemon daemon;
  const std::string kept = IssuedToken();
  const std::string revoked = IssuedToken();
  EXPECT_EQ(Validate(revoked), kPermitted);
  EXPECT_EQ(Revoke(revoked), R"({"success":true})");
  for (int round = 0; round < 10; ++round) {
    const std::vector<pid_t> workers = daemon.Workers();
    ASSERT_EQ(workers.size(), 2U);
    kill(workers[0], SIGKILL);
    // A request that the killed worker had accepted fails; the next one waits for the new workers.
    EXPECT_TRUE(Eventually([&] { return Validate(kept) == kPermitted; }));
    EXPECT_NE(Validate(revoked), kPermitted);
    EXPECT_TRUE(Eventually([&] {
      const auto now = daemon.Workers();
      return now.size() == 2 && now[0] != workers[0] && now[1] != workers[1];
    }));
  }
}

TEST_F(DaemonTest, MendsAStoreThatWasCutShort) {
  const std::string record = R"( {"service":"fastapi","requester":"root","pid":1,)"
                             R"("payload":[{"api":"Demo.Item","method":"get"}]})";
  std::string token;
  {
    WriteFile("/var/lib/zelttokenmgr/tokens", "moved" + record);
    WriteFile("/var/lib/zelttokenmgr/tokens.undo", "undone" + record + "\ntorn {\"serv");
    const Daemon daemon;
    EXPECT_EQ(Validate("undone"), kPermitted);
    EXPECT_EQ(Validate("moved"), kRefused);
    token = IssuedToken();
    EXPECT_EQ(Validate(token), kPermitted);
  }
  const Daemon again;
  EXPECT_EQ(Validate(token), kPermitted);
  EXPECT_FALSE(std::filesystem::exists("/var/lib/zelttokenmgr/tokens.undo"));
}

TEST_F(DaemonTest, KeepsTheTokenOfATransferThatFails) {
  WriteFile("/var/small/full", "");
  MountEmpty("/var/small", "size=16384");
  const Daemon daemon({"--store", "/var/small/tokens"});
  std::string token;
  std::string other;
  for (std::string last; !(last = IssuedToken()).empty(); token = last) other = token;
  EXPECT_EQ(Ask(R"({"type":"transfer","service":"fastapi","token":")" + token + R"(","payload":)" +
                std::to_string(daemon.pid) + "}"),
            kRefused);
  EXPECT_EQ(Validate(token), kPermitted);
  EXPECT_EQ(Revoke(token), R"({"success":true})");
  EXPECT_EQ(Validate(token), kRefused);
  EXPECT_EQ(Revoke(other), R"({"success":true})");
  EXPECT_FALSE(IssuedToken().empty());  // which may be longer than one of them
}

TEST_F(DaemonTest, IsNotHeldUpBySilentClients) {
  const Daemon daemon({"--max-waiting-per-user", "8"});
  std::vector<std::unique_ptr<zeltdaemon::DomainSockConnection>> silent;
  while (silent.size() < 100) {
    silent.push_back(std::make_unique<zeltdaemon::DomainSockConnection>("/tmp/zelttokenmgr.sock"));
    ASSERT_TRUE(silent.back()->Connect());
  }
  EXPECT_EQ(Validate(IssuedToken()), kPermitted);
  EXPECT_TRUE(daemon.Logs("user 0 has 8 of 8 waiting connections"));
}

TEST_F(DaemonTest, TellsItsUsage) {
  const struct {
    Words words;
    int exit_code;
  } rows[] = {{{"--help"}, 0},
              {{"--version"}, 0},
              {{"--nonsense"}, 64},
              {{"--workers", "0"}, 64},
              {{"--cache-size", "5G"}, 64},
              {{"--cache-size", "x"}, 64},
              {{"--cache-size", "9"}, 1},
              {{"--store", "/dev/null/x"}, 1}};
  for (const auto& row : rows) {
    const Ended ended = RunProgram("daemon/zelttokenmgrd", row.words);
    EXPECT_EQ(ended.exit_code, row.exit_code) << row.words.back();
    EXPECT_NE(ended.output.empty(), ended.errors.empty()) << row.words.back();
  }
}

}  // namespace
}  // namespace ZELT::TestSupport

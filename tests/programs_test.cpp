// The daemon and the command line as processes, on a private machine.
#include "support/programs.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <list>

#include "zelttokenmanager/token_storage.h"

namespace ZELT::ProgramsTests {

using zeltdaemon::DomainSockConnection;

TEST_F(ProgramsTest, RefusesWhatItCannotServeAndSaysWhy) {
  const Daemon daemon;
  const std::string token = Issue();
  const struct {
    std::string request;
    const char* answer;
    const char* reason;
  } rows[] = {
      {"", kRefused, "type=none service=none"},
      {"[1]", kRefused, "not a JSON object"},
      {std::string((1 << 20) + 1, ' '), "none", ""},
      {std::string(10001, '['), kRefused, "too many values"},
      {"{'type':['issue']}", kRefused, "unknown type of request"},
      {"{'type':'issue\\nroot logged in'}", kRefused, R"(type="issue\nroot logged in")"},
      {"{'type':'validate','service':'fastapi','token':'no'}", kRefused, "cpp:147 invalid token"},
      {"{'type':'validate','token':'a\\u0000'}", kRefused, "newline or a NUL byte"},
      {"{'type':'validate','token':'" + std::string(65, 'x') + "'}", kRefused, "is too long"},
      {"{'type':'revoke','service':'" + token + "','token':'" + token + "'}", kRefused,
       R"(service="...")"},
      {"{'type':'validate','service':'fastapi','token':'" + token + "'}",
       "{'permitted':null,'success':false}", "service/fastapi.cpp:58"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Ask(row.request), row.answer) << row.reason;
    EXPECT_TRUE(daemon.Logs(row.reason)) << row.reason;
  }
  EXPECT_EQ(Validate(token), kPermitted);
  EXPECT_EQ(daemon.Errors().find(token), std::string::npos);
}

TEST_F(ProgramsTest, OnlyOneServesAndItStopsClean) {
  Daemon daemon;
  Program second("exec zelttokenmgrd");
  EXPECT_EQ(second.End(), 1);
  EXPECT_EQ(second.Errors(), "zelttokenmgrd: another daemon serves /tmp/zelttokenmgr.sock\n");
  EXPECT_EQ(fs::status(kSocket).permissions(), fs::perms(0666));
  const std::string token = Issue();
  EXPECT_EQ(fs::status(kStore).permissions(), fs::perms(0600));
  kill(daemon.pid, SIGUSR1);
  EXPECT_TRUE(daemon.Logs(R"(cache: {"hit":0,"miss":0,"total":0})"));
  EXPECT_EQ(daemon.End(SIGTERM), 0);
  EXPECT_FALSE(fs::exists(kSocket));

  Daemon killed("--cache-size 0");
  EXPECT_EQ(Validate(token), kPermitted);
  killed.End(SIGKILL);
  EXPECT_TRUE(fs::exists(kSocket));
  Daemon next;
  EXPECT_EQ(Validate(token), kPermitted);
  EXPECT_EQ(next.End(SIGINT), 0);
  WriteFile(kSocket, "kept");
  EXPECT_EQ(Program("exec zelttokenmgrd").End(), 1);
  EXPECT_EQ(ReadFile(kSocket), "kept");
}

TEST_F(ProgramsTest, NotifiesOfItsReadiness) {
  for (const std::string name : {"/tmp/notify", "@notify"}) {
    sockaddr_un address{AF_UNIX, ""};
    name.copy(address.sun_path, name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';  // abstract, unix(7)
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    const int notified = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(bind(notified, reinterpret_cast<const sockaddr*>(&address), length), 0);
    const Program daemon("NOTIFY_SOCKET=" + name + " exec zelttokenmgrd");
    std::array<char, 8> message{};
    EXPECT_TRUE(Eventually([&] {
      return recv(notified, message.data(), message.size() - 1, MSG_DONTWAIT) >= 0;
    })) << name;
    EXPECT_STREQ(message.data(), "READY=1");
    close(notified);
  }
}

TEST_F(ProgramsTest, ServesOnWhenWorkersAreKilled) {
  const Daemon daemon;
  const std::string kept = Issue();
  const std::string revoked = Issue();
  EXPECT_EQ(Validate(revoked), kPermitted);
  EXPECT_EQ(Ask("revoke", revoked, "null"), kDone);
  for (int round = 0; round < 10; ++round) {
    const std::vector<pid_t> workers = daemon.Workers();
    ASSERT_EQ(workers.size(), 2U);
    kill(workers[0], SIGKILL);
    // A request that the killed worker had accepted fails; the next one waits for the new workers.
    ASSERT_TRUE(Eventually([&] { return Validate(kept) == kPermitted; }));
    EXPECT_NE(Validate(revoked), kPermitted);
    ASSERT_TRUE(Eventually([&] {
      const auto now = daemon.Workers();
      return now.size() == 2 && now[0] != workers[0] && now[1] != workers[1];
    }));
  }
}

TEST_F(ProgramsTest, GivesUpWhenWorkersKeepDyingAtOnce) {
  Daemon daemon;
  EXPECT_TRUE(Eventually([&] {
    const std::vector<pid_t> workers = daemon.Workers();
    // Its last child, after that, is the leak checker's.
    if (daemon.Errors().find("workers keep dying at once") != std::string::npos) return true;
    for (const pid_t worker : workers) kill(worker, SIGKILL);
    return false;
  }));
  EXPECT_EQ(daemon.End(), 1);
}

TEST_F(ProgramsTest, MendsAStoreThatWasCutShort) {
  const std::string record =
      Requoted(" {'service':'fastapi','requester':'root','pid':1,'payload':" + kGet + "}");
  WriteFile(kStore, "moved" + record);
  WriteFile(kStore + ".undo", "undone" + record + "\ntorn {\"serv");
  auto daemon = std::make_unique<Daemon>();
  EXPECT_EQ(Validate("undone"), kPermitted);
  EXPECT_EQ(Validate("moved"), kRefused);
  const std::string token = Issue();
  daemon = nullptr;
  daemon = std::make_unique<Daemon>();
  EXPECT_EQ(Validate(token), kPermitted);
  EXPECT_FALSE(fs::exists(kStore + ".undo"));
}

// The record has become too long to be written again.
TEST_F(ProgramsTest, UndoesATransferThatFailsHalfWay) {
  const std::string grants = "'payload':" + kGet + ",'note':'" + std::string(64 << 10, 'x') + "'}";
  const std::string owner =
      "{'service':'fastapi','requester':'root','pid':" + std::to_string(getpid());
  WriteFile(kStore, Requoted("long " + owner + "," + grants));
  const Daemon daemon;
  EXPECT_EQ(Ask("transfer", "long", "1"), kRefused);
  EXPECT_TRUE(daemon.Logs("the record is too long"));
  EXPECT_EQ(Validate("long"), kPermitted);
}

TEST_F(ProgramsTest, LocksOtherWorkersOutOfTheStoreOnly) {
  const Daemon daemon("--workers 1");
  const std::string token = Issue();
  const struct {
    std::string command;
    const char* lock;
    int exit_code;
  } rows[] = {{"zelttoken validate fastapi unknown @run", "READ", 1},
              {"zelttoken revoke fastapi " + token, "WRITE", 1},
              {"zelttoken issue fastapi @get", "WRITE", 0}};
  for (const auto& [command, lock, exit_code] : rows) {
    auto held = std::make_unique<TokenManager::FileLock>(kStore + ".workers", true);
    EXPECT_EQ(Validate(token), kPermitted) << "which the cache answers";
    Program client(command);
    EXPECT_TRUE(WaitsToLock(daemon.Workers().at(0), lock)) << command;
    held.reset();
    EXPECT_EQ(client.End(), exit_code) << command;
  }
}

TEST_F(ProgramsTest, RefusesChangesWithoutTheLockFile) {
  const Daemon daemon("--workers 1");
  const std::string token = Issue();
  fs::rename(kStore + ".lock", kStore + ".lost");
  EXPECT_EQ(Issue(), "");
  EXPECT_EQ(Ask("revoke", token, "null"), kRefused);
  EXPECT_EQ(Ask("transfer", token, "1"), kRefused);
  fs::rename(kStore + ".lost", kStore + ".lock");
  EXPECT_EQ(Validate(token), kPermitted);
  EXPECT_EQ(Ask("revoke", token, "null"), kDone);
}

TEST_F(ProgramsTest, KeepsTheTokenOfATransferThatFails) {
  WriteFile("/var/small/full", "");
  MountEmpty("/var/small", "size=16384");
  const Daemon daemon("--store /var/small/tokens");
  std::string token;
  std::string other;
  for (std::string last; !(last = Issue()).empty(); token = last) other = token;
  EXPECT_EQ(Ask("transfer", token, std::to_string(daemon.pid)), kRefused);
  EXPECT_EQ(Validate(token), kPermitted);
  EXPECT_EQ(Ask("revoke", token, "null"), kDone);
  EXPECT_EQ(Validate(token), kRefused);
  EXPECT_EQ(Ask("revoke", other, "null"), kDone);
  EXPECT_NE(Issue(), "") << "which may be longer than one of them";
}

TEST_F(ProgramsTest, IsNotHeldUpBySilentClients) {
  const Daemon daemon("--max-waiting-per-user 8");
  std::list<DomainSockConnection> silent;
  while (silent.size() < 100) ASSERT_TRUE(silent.emplace_back(kSocket).Connect());
  EXPECT_EQ(Validate(Issue()), kPermitted);
  EXPECT_TRUE(daemon.Logs("user 0 has 8 of 8 waiting connections"));
}

TEST_F(ProgramsTest, TellWhatIsWrong) {
  const struct {
    const char* command;
    int exit_code;
    const char* error;
  } rows[] = {
      {"zelttokenmgrd --help", 0, ""},
      {"zelttokenmgrd --workers 0", 64, "--workers"},
      {"zelttokenmgrd --cache-size 5G", 64, "--cache-size"},
      {"zelttokenmgrd --cache-size 9", 1, "Could not initialize"},
      {"zelttokenmgrd --store /dev/null/x", 1, "/dev/null"},
  };
  for (const auto& row : rows) {
    Program program(std::string("exec ") + row.command);
    EXPECT_EQ(program.End(), row.exit_code) << row.command;
    EXPECT_NE(program.Errors().find(row.error), std::string::npos) << program.Errors();
    EXPECT_EQ(program.Output().empty(), row.exit_code != 0) << row.command;
  }
}

}  // namespace ZELT::ProgramsTests

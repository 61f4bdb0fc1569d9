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
      {"zelttoken issue fastapi @get", 69, "utils.cpp:62"},
      {"zelttoken revoke fastapi -token-that-begins-with-a-dash-as-one-in-64", 69, "utils.cpp:62"},
      {"zelttoken issue fastapi '[1,]'", 64, "the payload is not JSON"},
      {"zelttoken issue fastapi @none", 64, "cannot open none: No such file"},
      {"zelttoken issue fastapi @/dev/zero", 64, "/dev/zero holds more than 1 MiB"},
      {"zelttoken revoke fastapi @newline", 64, "the token is empty"},
      {"zelttoken validate fastapi - -", 64, "only one of TOKEN and PAYLOAD"},
      {"zelttoken issue fastapi @get --owner 0", 64, "0 is not a process id"},
      {"zelttoken transfer fastapi t 010", 64, "010 is not a process id"},
      {"zelttoken transfer fastapi t 2147483648", 64, "PID"},
      {"zelttoken run fastapi @get", 64, "COMMAND"},
      {"zelttoken", 64, "name a command"},
  };
  for (const auto& row : rows) {
    Program program(std::string("exec ") + row.command);
    EXPECT_EQ(program.End(), row.exit_code) << row.command;
    EXPECT_NE(program.Errors().find(row.error), std::string::npos) << program.Errors();
    EXPECT_EQ(program.Output().empty(), row.exit_code != 0) << row.command;
  }
}

// Nobody has the process id 4194304: what was issued for it is taken back.
TEST_F(ProgramsTest, TakesATokenThroughItsLife) {
  const Daemon daemon;
  Program life(R"(
    ask() { echo "$1:"; zelttoken "$@" 2>/dev/null || echo "exit $?"; }
    zelttoken issue fastapi @get --owner $$ >token
    ask validate fastapi @token @run
    ask validate --json fastapi - '{"api":"Demo.Item","method":"set","runner":"root"}' <token
    ask validate taskmanager @token '{}'
    ask revoke fastapi @token
    ask transfer fastapi @token $$
    ask issue fastapi @get --owner 4194304
    zelttoken issue fastapi @get >/dev/full || echo "exit $?"
    wc -l </var/lib/zelttokenmgr/tokens
    ask revoke --json fastapi
    exec zelttoken revoke fastapi @token)");
  EXPECT_EQ(life.End(), 0) << life.Errors();
  EXPECT_EQ(life.Output(),
            "validate:\npermitted\n"
            "validate:\n{\"permitted\":false,\"success\":true}\nexit 1\n"
            "validate:\nexit 1\nrevoke:\nexit 1\ntransfer:\nexit 1\nissue:\nexit 1\nexit 1\n1\n"
            "revoke:\n{\"error\":\"TOKEN is required; see zelttoken revoke --help\","
            "\"success\":false}\nexit 64\n");
}

const std::pair<const char*, int> kRunRows[] = {
    {"sh -c 'exit 7'", 7},
    {"/none", 127},
    {"/tmp", 126},
    {"sh -c 'kill -KILL $$'", 128 + SIGKILL},
    {"sh -c 'kill -PWR $PPID; while :; do sleep 0.01; done'", 128 + SIGPWR},
    {"sh -c 'trap \"exit 3\" TERM; kill -TERM $PPID; while :; do sleep 0.01; done'", 3},
    {"bash -c 'trap \"\" CHLD; exec zelttoken run fastapi @get -- sh -c \"exit 5\"'", 5},
    {"sh -c '[ $0 = \"[a,b]\" ] && zelttoken validate fastapi $ZELT_TOKEN @run' '[a,b]'", 0},
};

TEST_F(ProgramsTest, RunsACommandWithATokenThatEndsWithIt) {
  Daemon daemon;
  const std::string run = "exec zelttoken run fastapi @get -- ";
  for (const auto& [command, exit_code] : kRunRows) {
    Program zelttoken(run + command);
    EXPECT_EQ(zelttoken.End(), exit_code) << command << ": " << zelttoken.Errors();
    EXPECT_EQ(ReadFile(kStore), "") << command;
  }
  Program last(run + "sh -c 'kill " + std::to_string(daemon.pid) +
               "; while [ -e zelttokenmgr.sock ]; do sleep 0.01; done; exit 3'");
  EXPECT_EQ(last.End(), 3);
  EXPECT_TRUE(last.Logs("utils.cpp:62")) << "how the command ended counts more";
}

}  // namespace ZELT::ProgramsTests

// The daemon as processes, on a private machine.
#include <sys/socket.h>
#include <sysexits.h>

#include <list>

#include "support/sessions.h"
#include "unix_address.h"

namespace ZELT::ProgramsTests {

using zeltdaemon::DomainSockConnection;

constexpr const char* kSecondSocket = "/run/zelttokenmgr/socket";
const std::string kStore = "/run/zelttokenmgr/tokens.mdb";

void ExpectFailure(const std::string& command, const std::string& error, int status = 1) {
  Program program(command);
  EXPECT_EQ(program.End(), status) << command;
  EXPECT_TRUE(program.Logs(error)) << command << program.Errors();
}

// A socket that other programs inherit, at `name` as of UnixAddress.
int Bound(const std::string& name, int type) {
  const int fd = socket(AF_UNIX, type, 0);
  EXPECT_EQ(TokenManager::UnixAddress(name).Bind(fd), 0) << name;
  return fd;
}

TEST_F(ProgramsTest, OnlyOneServesAndItStopsClean) {
  Daemon daemon("--workers 2 --audit");
  ExpectFailure("exec zelttokenmgrd --store /run/other/tokens.mdb",
                "zelttokenmgrd: another daemon serves /tmp/zelttokenmgr.sock\n", EX_UNAVAILABLE);
  const std::string token = Issue();
  for (const char* path : {kSocket, kSecondSocket}) {
    EXPECT_EQ(fs::status(path).permissions(), fs::perms(0666));
    EXPECT_EQ(Ask("[]", path), kRefused);
  }
  kill(daemon.pid, SIGUSR1);
  EXPECT_TRUE(daemon.Logs("deaths=0, requests done/refused: issue=1/0 validate=0/0 v"));
  EXPECT_TRUE(daemon.Logs("audit issue id="));
  EXPECT_EQ(daemon.End(SIGTERM), 0);
  Program killed(
      "exec zelttokenmgrd --stderr 2>&-");  // the store must not become its standard error
  EXPECT_EVENTUALLY(Validate(token) == kPermitted);
  killed.End(SIGKILL);
  Daemon next("--drop-orphans-after 1s");
  Shell("zelttoken issue fastapi @get");
  EXPECT_EVENTUALLY(Value(Ask("{'type':'list'}"))["tokens"].size() == 1);
  EXPECT_EQ(Validate(token), kPermitted);
  DomainSockConnection silent(kSocket);  // for which it waits a second
  EXPECT_TRUE(silent.Connect());
  kill(next.pid, SIGINT);
  for (const char* path : {kSocket, kSecondSocket}) {
    EXPECT_EVENTUALLY(!DomainSockConnection(path).Connect());
  }
  EXPECT_EQ(waitpid(next.pid, nullptr, WNOHANG), 0) << "it runs, but does not listen";
  EXPECT_EQ(next.End(), 0);
  EXPECT_FALSE(std::regex_search(next.Errors(), std::regex("killing them|cannot accept")));
  EXPECT_EQ(std::distance(fs::directory_iterator("/run/zelttokenmgr"), {}), 3)
      << "the store, its lock and the socket";
}

// The first row is about the sockets that an earlier daemon has left.
TEST_F(ProgramsTest, LeavesAloneWhatOthersPutAtItsAddress) {
  Daemon().End(SIGTERM);
  for (const Cells& row : Section("daemon.txt", "addresses")) {
    for (const char* path : {kSocket, kSecondSocket}) {
      setenv("ADDRESS", path, 1);
      Shell(row[0]);
    }
    const std::string found = Shell("stat -c '%F %u %i' /tmp/zelttokenmgr.sock");
    ExpectFailure("exec zelttokenmgrd",
                  "cannot listen on /tmp/zelttokenmgr.sock: " + row[1] + "\n");
    EXPECT_EQ(Shell("stat -c '%F %u %i' /tmp/zelttokenmgr.sock"), found);
    fs::remove(kSocket);
    Daemon daemon;
    EXPECT_TRUE(daemon.Logs("cannot listen on /run/zelttokenmgr/socket: " + row[1] + "; progr"));
    EXPECT_NE(Issue(), "");
    daemon.End(SIGTERM);
  }
}

// As systemd does it.
TEST_F(ProgramsTest, ServesSocketsThatWerePassedOn) {
  const int first = Bound(kSocket, SOCK_STREAM);
  const int other = Bound("/tmp/other", SOCK_STREAM);
  const std::string redirect = " 3<&" + std::to_string(first) + " 4<&" + std::to_string(other);
  ExpectFailure("LISTEN_PID=$$ LISTEN_FDS=2 exec zelttokenmgrd" + redirect,
                "descriptor 3 was passed on but is not a listening");
  for (const int fd : {first, other}) ASSERT_EQ(listen(fd, 16), 0);
  std::string token;
  for (int start = 0; start < 2; ++start) {
    // The second time there are connections that have waited for a daemon.
    std::list<DomainSockConnection> waiting;
    while (waiting.size() < 2) {
      ASSERT_TRUE(waiting.emplace_back(kSocket).Connect() && waiting.back().Send("[]"));
    }
    Daemon daemon("--workers 2" + redirect, "LISTEN_PID=$$ LISTEN_FDS=2");
    for (DomainSockConnection& connection : waiting) EXPECT_TRUE(connection.Recv(token)) << start;
    EXPECT_NE(Issue(), "");
    EXPECT_EQ(Ask("[]", "/tmp/other"), kRefused);
    EXPECT_FALSE(fs::exists(kSecondSocket)) << "which is not its to make";
    EXPECT_TRUE(fcntl(other, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(daemon.End(SIGTERM), 0);
  }
  // They were passed to somebody else, and so somebody else serves.
  ExpectFailure("LISTEN_PID=1 LISTEN_FDS=2 exec zelttokenmgrd" + redirect, "another daemon",
                EX_UNAVAILABLE);
  for (const int fd : {first, other}) close(fd);
}

// Reading the map of a file behind its end is as bad as an unreadable block (mmap(2)).
TEST_F(ProgramsTest, AStoreThatCannotBeReadEndsOnlyWorkers) {
  const Daemon daemon("--workers 2", "ASAN_OPTIONS=handle_sigbus=0");
  const std::string token = Issue();
  Shell("cp " + kStore + " copy; truncate -s 8192 " + kStore);
  for (int worker = 0; worker < 2; ++worker) EXPECT_EQ(Validate(token), "none");
  EXPECT_TRUE(daemon.Logs("was killed by signal 7"));
  Shell("cat copy >" + kStore);
  EXPECT_EVENTUALLY(Validate(token) == kPermitted) << daemon.Errors();
}

TEST_F(ProgramsTest, IsEndedByFewSignals) {
  const Daemon daemon(
      "--workers 2 --max-age 1s --store /tmp/s/tokens --store-size 4M --max-tokens-per-user 7",
      "ulimit -c unlimited; ulimit -Sn 32; ulimit -Hn 96;");
  const std::vector<pid_t> workers = daemon.Children();
  for (const int number : {SIGHUP, SIGUSR1, SIGPIPE, SIGTSTP, SIGXFSZ, SIGRTMAX}) {
    for (const pid_t process : {daemon.pid, workers[0], workers[1]}) kill(process, number);
  }
  for (const pid_t worker : workers) kill(worker, SIGINT);
  std::list<DomainSockConnection> silent;
  while (silent.size() < 200) silent.emplace_back(kSocket).Connect();
  EXPECT_NE(Issue(), "");
  EXPECT_EVENTUALLY(Ask("{'type':'list'}", kSecondSocket).ends_with("'tokens':[]}"));
  const Json::Value status = Value(Ask("{'type':'status'}"));
  EXPECT_TRUE(status["uptime"] < 60 && status["store"]["size"] == 4 << 20 &&
              status["store"]["tokens_per_user"] == 7);
  EXPECT_EQ(daemon.Errors().find("cannot accept"), std::string::npos);
  EXPECT_EQ(daemon.Children(), workers);
  const std::string limits = ReadFile("/proc/" + std::to_string(workers[0]) + "/limits");
  EXPECT_NE(limits.find("Max core file size        0 "), limits.npos) << limits;
}

TEST_F(ProgramsTest, ReplacesAWorkerThatHangs) {
  const Daemon daemon("--workers 1 --request-timeout 2s");
  const std::string pid = std::to_string(daemon.Children()[0]);
  Ask("{'type':'list'}");
  kill(daemon.Children()[0], SIGSTOP);
  EXPECT_TRUE(daemon.Logs("killing it"));
  const std::regex line("worker " + pid +
                        " has .* [2-4]\\.. s; killing it: idle, last request type=" +
                        "(list|other) pid=(" + pid + "|" + std::to_string(getpid()) + ") uid=0");
  EXPECT_TRUE(std::regex_search(daemon.Errors(), line)) << daemon.Errors();
  EXPECT_NE(Issue(), "");
}

TEST_F(ProgramsTest, ServesATextStore) {
  const Daemon daemon("--store-format text");
  const std::string token = Issue();
  EXPECT_EQ(Validate(token), kPermitted);
  EXPECT_EQ(Ask("inspect", token, "null"),
            "{'age':0,'alive':true,'payload':" + kGet + ",'requester':'root','success':true}");
  EXPECT_EVENTUALLY(kill(daemon.pid, SIGUSR1) == 0 &&
                    daemon.Errors().find("cache hit=1 miss=0 total=1") != std::string::npos);
}

TEST_F(ProgramsTest, TellsWhatIsWrongWithItsOptions) { CheckSessions("daemon.txt", "options"); }

TEST_F(ProgramsTest, ChecksFiles) { CheckSessions("daemon.txt", "faults in files"); }

TEST_F(ProgramsTest, NamesWhoElseMayWrite) {
  if (chown("/tmp/get", 4001, 0) != 0) GTEST_SKIP() << "no other users";
  CheckSessions("daemon.txt", "writers");
  EXPECT_TRUE(Daemon().Logs("/etc/zelttokenmgr: it is writable by user \"bob\""));
}

TEST_F(ProgramsTest, SaysWhatAUserWouldBeGranted) { CheckSessions("daemon.txt", "grants"); }

// The command line, with a daemon whose answers are known and with the real one.
using CliTest = ProgramsTest;

TEST_F(CliTest, SaysWhoseSocketItIs) {
  WriteFile(kSocket, "");
  if (chown(kSocket, 4001, 4001) != 0) GTEST_SKIP() << "no other user here";
  CheckSessions("command_line.txt", "a socket of alice");
}

TEST_F(CliTest, AsksTheDaemonAndTakesBackWhatNobodyWouldOwn) {
  for (const char* title : {"words", "exchanges", "a token T", "a status", "commands"}) {
    CheckSessions("command_line.txt", title);
  }
}

TEST_F(CliTest, AgreesWithTheDaemon) {
  const Daemon daemon;
  CheckSessions("command_line.txt", "the daemon");
}

const int source_folder = fcntl(open(ZELT_SOURCE_DIR, O_PATH | O_DIRECTORY), F_DUPFD, 10);

TEST_F(ProgramsTest, PythonPackage) {
  const std::string folder = "/proc/self/fd/" + std::to_string(source_folder) + "/python";
  Program tests("PYTHONPATH=" + folder + " exec python3 -B -W error " + folder +
                "/tests/test_zelttokenmanager.py");
  EXPECT_EQ(tests.End(), 0) << tests.Errors();
}

}  // namespace ZELT::ProgramsTests

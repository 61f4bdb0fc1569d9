// The command line, with a daemon whose answers are known and with the real one.
#include <sys/stat.h>

#include "support/fake_daemon.h"
#include "support/programs.h"
#include "support/tables.h"

namespace ZELT::CliTests {

// What happens in a session: lines by the sign with which they begin (tests/tables/).
using Session = std::map<char, std::string>;

void CheckSession(Session& session) {
  OwnedDescriptor daemon;
  if (session.contains('<')) daemon = ListenAt(kSocket);
  Program program(session['$']);
  std::istringstream answers(session['<']);
  std::string requests;
  for (std::string answer; std::getline(answers, answer);) {
    requests += AnswerOne(daemon, answer) + "\n";
  }
  daemon.Close();
  EXPECT_EQ(program.End(), std::atoi(session['='].c_str())) << session['$'] << program.Errors();
  EXPECT_EQ(program.Output(), session['|']) << session['$'];
  EXPECT_EQ(requests, session['>']) << session['$'];
  std::istringstream errors(program.Errors());
  std::istringstream parts(session['!']);
  for (std::string error, part; std::getline(parts, part);) {
    EXPECT_TRUE(std::getline(errors, error) && error.find(part) != error.npos) << part << error;
  }
  EXPECT_EQ(errors.peek(), EOF) << session['$'] << program.Errors();
}

void CheckSessions(const std::string& title) {
  std::vector<Session> sessions;
  for (const std::string& line : SectionLines("command_line.txt", title)) {
    if (line.front() == '$') sessions.emplace_back();
    sessions.back()[line.front()] += line.substr(std::min<std::size_t>(2, line.size())) + "\n";
  }
  for (Session& session : sessions) CheckSession(session);
}

using CliTest = ProgramsTest;

TEST_F(CliTest, TellsWhatIsWrongWithItsWords) { CheckSessions("words"); }

TEST_F(CliTest, SaysWhoseSocketItIs) {
  WriteFile(kSocket, "");
  if (chown(kSocket, 4001, 4001) != 0) GTEST_SKIP() << "no other user here";
  CheckSessions("a socket of alice");
}

TEST_F(CliTest, AsksTheDaemonAndTakesBackWhatNobodyWouldOwn) { CheckSessions("exchanges"); }

TEST_F(CliTest, RunsACommandAndGivesItsTokenBack) {
  CheckSessions("commands");
  mkfifo("/tmp/payload", 0600);
  const OwnedDescriptor daemon = ListenAt(kSocket);
  Program early("exec zelttoken run fastapi @payload -- sh -c 'while :; do sleep 0.01; done'");
  std::ofstream payload("/tmp/payload");  // waits until the other end is open
  kill(early.pid, SIGTERM);
  payload << "[]" << std::flush;
  payload.close();
  for (const char* answer : {R"({"success":true,"token":"T"})", R"({"success":true})"}) {
    EXPECT_NE(AnswerOne(daemon, answer), "");
  }
  EXPECT_EQ(early.End(), 128 + SIGTERM);
}

TEST_F(CliTest, AgreesWithTheDaemon) {
  const Daemon daemon;
  CheckSessions("the daemon");
}

}  // namespace ZELT::CliTests

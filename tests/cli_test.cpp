// The command line, with a daemon whose answers are known and with the real one.
#include <sys/stat.h>

#include "support/sessions.h"

namespace ZELT::CliTests {

using CliTest = ProgramsTest;

TEST_F(CliTest, TellsWhatIsWrongWithItsWords) { CheckSessions("command_line.txt", "words"); }

TEST_F(CliTest, SaysWhoseSocketItIs) {
  WriteFile(kSocket, "");
  if (chown(kSocket, 4001, 4001) != 0) GTEST_SKIP() << "no other user here";
  CheckSessions("command_line.txt", "a socket of alice");
}

TEST_F(CliTest, AsksTheDaemonAndTakesBackWhatNobodyWouldOwn) {
  CheckSessions("command_line.txt", "exchanges");
}

TEST_F(CliTest, RunsACommandAndGivesItsTokenBack) {
  CheckSessions("command_line.txt", "commands");
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
  CheckSessions("command_line.txt", "the daemon");
}

}  // namespace ZELT::CliTests

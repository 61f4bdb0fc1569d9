// The command line, with a daemon whose answers are known and with the real one.
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

TEST_F(CliTest, RunsACommandAndGivesItsTokenBack) { CheckSessions("command_line.txt", "commands"); }

TEST_F(CliTest, AgreesWithTheDaemon) {
  const Daemon daemon;
  CheckSessions("command_line.txt", "the daemon");
}

}  // namespace ZELT::CliTests

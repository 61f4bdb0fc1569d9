#include <csignal>
#include <filesystem>

#include "support/programs.h"

namespace ZELT::TestSupport {
namespace {

using CliTest = ProgramsTest;

constexpr const char* kGet = R"([{"api":"Demo.Item","method":"get"}])";
constexpr const char* kRun = R"({"api":"Demo.Item","method":"get","runner":"root"})";

Ended Zelttoken(const Words& words) { return RunProgram("cli/zelttoken", words); }

TEST_F(CliTest, AnswersWithoutADaemon) {
  WriteFile("/tmp/empty", "\n");
  const struct {
    Words words;
    int exit_code;
    const char* error;
  } rows[] = {
      {{"issue", "fastapi", kGet}, 69, "utils.cpp:62"},
      {{"run", "fastapi", kGet, "--", "true"}, 69, "utils.cpp:62"},
      {{"revoke", "fastapi", "-" + std::string(40, 'a')}, 69, "utils.cpp:62"},
      {{"issue", "fastapi", "[1,]"}, 64, "payload is not JSON"},
      {{"issue", "fastapi", "@/tmp/none"}, 64, "cannot open /tmp/none"},
      {{"issue", "fastapi", "@/dev/zero"}, 64, "more than 1 MiB"},
      {{"revoke", "fastapi", "@/tmp/empty"}, 64, "token is empty"},
      {{"validate", "fastapi", "-", "-"}, 64, "only one of TOKEN and PAYLOAD"},
      {{"issue", "fastapi", kGet, "--owner", "0"}, 64, "--owner"},
      {{"issue", "fastapi", kGet, "--owner", "010"}, 64, "not a process id"},
      {{"transfer", "fastapi", "t", "2147483648"}, 64, "PID"},
      {{"run", "fastapi", kGet}, 64, "COMMAND"},
      {{}, 64, "name a command"},
  };
  for (const auto& row : rows) {
    const Ended ended = Zelttoken(row.words);
    EXPECT_EQ(ended.exit_code, row.exit_code) << row.error;
    EXPECT_NE(ended.errors.find(row.error), std::string::npos) << ended.errors;
    EXPECT_EQ(ended.output, "");
  }
  EXPECT_EQ(Zelttoken({"revoke", "--json", "fastapi"}).output,
            "{\"error\":\"TOKEN is required; see zelttoken revoke --help\",\"success\":false}\n");
}

TEST_F(CliTest, TakesATokenThroughItsLife) {
  const Daemon daemon;
  const std::string me = std::to_string(getpid());
  const Ended issued = Zelttoken({"issue", "fastapi", kGet, "--owner", me});
  ASSERT_EQ(issued.exit_code, 0) << issued.errors;
  WriteFile("/tmp/token", issued.output);
  EXPECT_EQ(Zelttoken({"validate", "fastapi", "@/tmp/token", kRun}).output, "permitted\n");

  const Ended other = Zelttoken({"validate", "--json", "fastapi", "@/tmp/token",
                                 R"({"api":"Demo.Item","method":"set","runner":"root"})"});
  EXPECT_EQ(other.exit_code, 1);
  EXPECT_EQ(other.output, "{\"permitted\":false,\"success\":true}\n");
  const Ended revoked = Zelttoken({"revoke", "fastapi", "@/tmp/token", "--json"});
  EXPECT_EQ(revoked.exit_code, 1);
  EXPECT_NE(revoked.output.find(R"("success":false})"), std::string::npos);
  EXPECT_EQ(Zelttoken({"validate", "taskmanager", "@/tmp/token", kRun}).exit_code, 1);
  EXPECT_EQ(Zelttoken({"transfer", "fastapi", "@/tmp/token", me}).exit_code, 1);

  // Nobody has this process id: what was issued is taken back.
  EXPECT_EQ(Zelttoken({"issue", "fastapi", kGet, "--owner", "4194304"}).output, "");
  EXPECT_EQ(ReadFile("/var/lib/zelttokenmgr/tokens").find('\n') + 1,
            std::filesystem::file_size("/var/lib/zelttokenmgr/tokens"));
}

TEST_F(CliTest, RunsACommandWithATokenThatEndsWithIt) {
  const Daemon daemon;
  WriteFile("/tmp/payload", kGet);
  const struct {
    const char* script;
    int exit_code;
  } rows[] = {
      {"exit 7", 7},
      {"kill -KILL $$", 128 + SIGKILL},
      {"kill -PWR $PPID; while :; do sleep 0.01; done", 128 + SIGPWR},
      {"trap 'exit 3' TERM; kill -TERM $PPID; while :; do sleep 0.01; done", 3},
      {"trap '' CHLD; exec /proc/$PPID/exe run fastapi @/tmp/payload -- sh -c 'exit 5'", 5}};
  for (const auto& row : rows) {
    const std::string script = std::string("echo $ZELT_TOKEN '[a,b]';") + row.script;
    const Ended ended = Zelttoken({"run", "fastapi", "@/tmp/payload", "--", "sh", "-c", script});
    EXPECT_EQ(ended.exit_code, row.exit_code) << ended.errors;
    EXPECT_NE(ended.output.find(" [a,b]\n"), std::string::npos) << ended.output;
    EXPECT_GE(ended.output.size(), 32U);
    EXPECT_EQ(ReadFile("/var/lib/zelttokenmgr/tokens"), "");
  }
  EXPECT_EQ(Zelttoken({"run", "fastapi", kGet, "--", "/none"}).exit_code, 127);
  EXPECT_EQ(Zelttoken({"run", "fastapi", kGet, "--", "/tmp"}).exit_code, 126);

  const std::string stop = "kill " + std::to_string(daemon.pid) +
                           "; while [ -e /tmp/zelttokenmgr.sock ]; do sleep 0.01; done; exit 3";
  const Ended ended = Zelttoken({"run", "fastapi", kGet, "--", "sh", "-c", stop});
  EXPECT_EQ(ended.exit_code, 3);
  EXPECT_NE(ended.errors.find("utils.cpp:62"), std::string::npos) << ended.errors;
}

}  // namespace
}  // namespace ZELT::TestSupport

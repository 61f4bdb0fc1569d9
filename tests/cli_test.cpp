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
      {{"issue", "fastapi", kGet, "--owner", "0"}, 64, "--owner"},
      {{"transfer", "fastapi", "t", "2147483648"}, 64, "PID"},
      {{"run", "fastapi", kGet}, 64, "COMMAND"},
      {{}, 64, "subcommand"},
  };
  for (const auto& row : rows) {
    const Ended ended = Zelttoken(row.words);
    EXPECT_EQ(ended.exit_code, row.exit_code) << row.error;
    EXPECT_NE(ended.errors.find(row.error), std::string::npos) << ended.errors;
    EXPECT_EQ(ended.output, "");
  }
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
  } rows[] = {{"exit 7", 7},
              {"kill -KILL $$", 128 + SIGKILL},
              {"trap 'exit 3' TERM; kill -TERM $PPID; while :; do sleep 0.01; done", 3}};
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
}

}  // namespace
}  // namespace ZELT::TestSupport

#include "support/programs.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <sstream>
#include <thread>

#include "zeltdaemon/domain_sock_connection.h"

namespace ZELT::TestSupport {
namespace {

// Opened before the private machine hides the folder in which it was built.
const int build_folder = open(ZELT_BUILD_DIR, O_PATH | O_DIRECTORY);

std::string BuildFolder() { return "/proc/self/fd/" + std::to_string(build_folder); }

[[noreturn]] void Execute(const std::string& program, Words words, const std::string& output) {
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
    const std::string path = output + (stream == STDOUT_FILENO ? ".out" : ".err");
    dup2(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0666), stream);
  }
  setenv("LD_LIBRARY_PATH", (BuildFolder() + "/src").c_str(), 1);
  words.insert(words.begin(), program);
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  execv((BuildFolder() + "/" + program).c_str(), arguments.data());
  _exit(255);
}

int ExitCode(pid_t process) {
  int status = 0;
  waitpid(process, &status, 0);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

Ended Await(pid_t process, const std::string& output) {
  const int exit_code = ExitCode(process);
  return {exit_code, ReadFile(output + ".out"), ReadFile(output + ".err")};
}

}  // namespace

Ended RunProgram(const std::string& program, const Words& arguments) {
  const pid_t process = fork();
  if (process == 0) Execute(program, arguments, "/tmp/program");
  return Await(process, "/tmp/program");
}

void ProgramsTest::SetUp() {
  PrivateFiles::SetUp();
  if (IsSkipped()) return;
  WriteFile("/var/packages/notes/conf/privilege", R"({"username":"root"})");
  WriteFile("/var/lib/zelttokenmgr/installed/notes",
            R"({"fastapi":[{"api":"Demo.Item","method":"get"}],
                "taskmanager":[{"prefix":"backup_","owner":"any"}]})");
}

Daemon::Daemon(const Words& arguments) : pid(fork()), log("/tmp/daemon" + std::to_string(pid)) {
  if (pid != 0) {
    EXPECT_TRUE(Logs("ready")) << Log();
    return;
  }
  log = "/tmp/daemon" + std::to_string(getpid());
  Words words = {"--stderr", "--workers", "2"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  Execute("daemon/zelttokenmgrd", words, log);
}

Daemon::~Daemon() {
  if (!ended) End(SIGKILL);
}

std::vector<pid_t> Daemon::Workers() const {
  const std::string path = "/proc/" + std::to_string(pid);
  std::istringstream children(ReadFile(path + "/task/" + std::to_string(pid) + "/children"));
  return {std::istream_iterator<pid_t>(children), {}};
}

std::string Daemon::Log() const { return ReadFile(log + ".err"); }

bool Daemon::Logs(const std::string& text) const {
  return Eventually([&] { return Log().find(text) != std::string::npos; });
}

Ended Daemon::End(int signal) {
  ended = true;
  kill(pid, signal);
  return Await(pid, log);
}

std::string Ask(const std::string& request) {
  zeltdaemon::DomainSockConnection connection("/tmp/zelttokenmgr.sock");
  std::string answer = "none";
  if (connection.Connect() && connection.Send(request)) connection.Recv(answer);
  return answer;
}

bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

}  // namespace ZELT::TestSupport

// The daemon and the command line as processes, on a private machine.
#pragma once

#include <fcntl.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/testing.h"
#include "zeltdaemon/domain_sock_connection.h"

namespace ZELT {

// Opened before the private machine hides the folder in which it was built. The numbers below 10
// are those that programs are given.
inline const int build_folder = fcntl(open(ZELT_BUILD_DIR, O_PATH | O_DIRECTORY), F_DUPFD, 10);

/// A shell that runs a command, and is ended by SIGKILL at the latest when this goes out of scope.
struct Program {
  explicit Program(const std::string& command)
      : pid(Start([this, &command] {
          const std::string redirected = "exec >" + file + ".out 2>" + file + ".err; " + command;
          return execl("/bin/bash", "bash", "-c", redirected.c_str(), nullptr);
        })) {}
  ~Program() { End(SIGKILL); }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  std::string Output() const { return ReadFile(file + ".out"); }
  std::string Errors() const { return ReadFile(file + ".err"); }
  /// Waits until standard error holds `text`.
  bool Logs(const std::string& text) const {
    return Eventually([&] { return Errors().find(text) != std::string::npos; });
  }
  /// Its processes; of a daemon, the workers.
  std::vector<pid_t> Children() const {
    const std::string task = std::to_string(pid);
    std::istringstream children(ReadFile("/proc/" + task + "/task/" + task + "/children"));
    return {std::istream_iterator<pid_t>(children), {}};
  }
  /// Sends a signal, 0 for none, waits for the end, and returns the exit code as of Finish().
  int End(int signal = 0) {
    if (exit_code < 0) kill(pid, signal);
    return exit_code = exit_code < 0 ? Finish(pid) : exit_code;
  }

  static inline int started = 0;
  const std::string file = "/tmp/program" + std::to_string(++started);
  const pid_t pid;
  int exit_code = -1;
};

/// A daemon that is ready.
struct Daemon : Program {
  explicit Daemon(const std::string& options = "--workers 2", const std::string& environment = "")
      : Program(environment + " exec zelttokenmgrd --stderr " + options) {
    EXPECT_TRUE(Logs("ready")) << Errors();
  }
};

constexpr const char* kSocket = "/tmp/zelttokenmgr.sock";
constexpr const char* kRefused = "{'success':false}";
constexpr const char* kPermitted = "{'permitted':true,'success':true}";
inline const std::string kGet = "[{'api':'Demo.Item','method':'get'}]";
inline const std::string kRun = "{'api':'Demo.Item','method':'get','runner':'root'}";

/// A private machine, with the programs on the path, on which a package that is granted `kGet` runs
/// as root.
struct ProgramsTest : PrivateFiles {
  void SetUp() override {
    PrivateFiles::SetUp();
    if (IsSkipped()) return;
    MountEmpty("/run", "mode=755");
    const std::string folder = "/proc/self/fd/" + std::to_string(build_folder);
    setenv("PATH", (folder + "/cli:" + folder + "/daemon:/usr/bin:/bin").c_str(), 1);
    setenv("LD_LIBRARY_PATH", (folder + "/src").c_str(), 1);
    fs::current_path("/tmp");
    WriteFile("/tmp/get", Requoted(kGet));
    WriteFile("/tmp/run", Requoted(kRun));
    WriteFile("/tmp/newline", "\n");
    WriteFile("/var/packages/root", "");
    WriteFile("/etc/zelttokenmgr/installed/root", Requoted("{'fastapi':" + kGet + "}"));
  }
};

/// Sends one request and returns the answer, both with ' for ", or "none".
inline std::string Ask(const std::string& request, const char* socket = kSocket) {
  zeltdaemon::DomainSockConnection connection(socket);
  std::string answer = "none";
  if (connection.Connect() && connection.Send(Requoted(request))) connection.Recv(answer);
  return Requoted(answer);
}
inline std::string Ask(const std::string& type, const std::string& token,
                       const std::string& payload) {
  return Ask("{'type':'" + type + "','service':'fastapi','token':'" + token +
             "','payload':" + payload + "}");
}
inline std::string Issue() { return Value(Ask("issue", "", kGet))["token"].asString(); }
inline std::string Validate(const std::string& token) { return Ask("validate", token, kRun); }

}  // namespace ZELT

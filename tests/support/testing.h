// What the tests share: tables, a machine that a test may break, processes, and syslog.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <regex>
#include <system_error>
#include <thread>

#include "json_text.h"

namespace ZELT {

namespace fs = std::filesystem;

/// `text` with ' for " and " for ', as the tables hold JSON and error texts.
inline std::string Requoted(std::string text) {
  for (char& each : text) each = each == '"' ? '\'' : each == '\'' ? '"' : each;
  return text;
}

/// Reads JSON that is written so, and writes it on one line, members in the order of their names.
inline Json::Value Value(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(TokenManager::fromString(Requoted(text), value)) << text;
  return value;
}
inline std::string Text(const Json::Value& value) {
  return Requoted(TokenManager::toString(value));
}
inline std::string Text(const std::string& text) { return text; }

/// Returns what `call` returned, as text ("done" for nothing), or the message of what it threw,
/// after a "~" when that is no `std::runtime_error`.
template <typename Call>
std::string Outcome(const Call& call) {
  try {
    if constexpr (!std::is_void_v<decltype(call())>) return Text(call());
    return static_cast<void>(call()), "done";
  } catch (const std::runtime_error& error) {
    return Requoted(error.what());
  } catch (const std::exception& error) {
    return std::string("~") + error.what();
  }
}

inline void Check(int result, const std::string& what) {
  if (result != 0) throw std::system_error(errno, std::generic_category(), what);
}

/// Mounts an empty file system with the options of tmpfs(5).
inline void MountEmpty(const std::string& directory, const std::string& options) {
  Check(mount("tmpfs", directory.c_str(), "tmpfs", 0, options.c_str()), directory);
}

/// Runs a command of the shell and returns its output.
inline std::string Shell(const std::string& command) {
  std::string output;
  FILE* const pipe = popen(command.c_str(), "r");
  for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) output += static_cast<char>(c);
  if (pclose(pipe) != 0) throw std::runtime_error("failed: " + command);
  return output;
}

/// Writes a file, making the directories that lead to it.
inline void WriteFile(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  if (!(std::ofstream(path, std::ios::binary) << text << std::flush)) Check(-1, path);
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Enters a mount namespace, if need be in a user namespace in which this user is root
// (user_namespaces(7)), and hides the machine's /tmp and /etc.
inline void EnterPrivateMachine() {
  const std::string user = "0 " + std::to_string(getuid()) + " 1";
  const std::string group = "0 " + std::to_string(getgid()) + " 1";
  Check(unshare(getuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER), "unshare");
  if (getuid() != 0) {
    WriteFile("/proc/self/uid_map", user);
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/gid_map", group);
  }
  Check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "/");
  for (const char* directory : {"/tmp", "/etc"}) MountEmpty(directory, "mode=755");
}

/// A test on a machine of its own: an empty /tmp, /etc and /var/packages, and the users alice
/// (4001), bob (4002), any (4003) and carol (4004), all in "users" and bob in "staff". Needs to be
/// root, or user namespaces; without either the test is skipped.
class PrivateFiles : public testing::Test {
 protected:
  void SetUp() override {
    static const std::string entered = Outcome(EnterPrivateMachine);  // once for the process
    if (entered != "done") GTEST_SKIP() << "no private machine: " << entered;
    for (const char* directory : {"/tmp", "/var", "/etc"}) MountEmpty(directory, "mode=755");
    fs::create_directory("/var/packages");
    WriteFile("/etc/passwd", "root:x:0:0::/:/bin/sh\nalice:x:4001:4100:" + std::string(2000, 'x') +
                                 ":/:/bin/sh\nbob:x:4002:4100::/:/bin/sh\n"
                                 "any:x:4003:4100::/:/bin/sh\ncarol:x:4004:4100::/:/bin/sh\n");
    WriteFile("/etc/group", "root:x:0:\nusers:x:4100:\nstaff:x:4101:bob\n");
  }
};

/// Polls until `condition` holds; false when it does not within 30 s, long for a busy machine.
inline bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

#define EXPECT_EVENTUALLY(...) EXPECT_TRUE(::ZELT::Eventually([&] { return __VA_ARGS__; }))

/// Forks a process that runs `work` as `user`, and exits with what it returns.
inline pid_t Start(const std::function<int()>& work, uid_t user = getuid()) {
  const pid_t process = fork();
  if (process != 0) return process;
  if (user != getuid() && (setgid(user) != 0 || setuid(user) != 0)) _exit(254);
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that hangs and is ended takes its processes along
  int exit_code = 255;
  Outcome([&] { exit_code = work(); });
  _exit(exit_code);
}

/// Waits for a process and returns its exit code, 128 + N when signal N ended it.
inline int Finish(pid_t process) {
  int status = 0;
  waitpid(process, &status, 0);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

/// Limits the size of the files that this process writes.
inline void LimitFiles(rlim_t bytes) {
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{.rlim_cur = bytes, .rlim_max = RLIM_INFINITY};
  Check(setrlimit(RLIMIT_FSIZE, &limit), "setrlimit");
}

inline int EndProcess(pid_t process) { return kill(process, SIGKILL), Finish(process); }

/// Polls until `process` waits for a record lock of the `kind` "READ" or "WRITE" (proc_locks(5)).
inline bool WaitsToLock(pid_t process, const std::string& kind) {
  const std::string line = "-> POSIX  ADVISORY  " + kind + " " + std::to_string(process) + " ";
  return Eventually([&] { return ReadFile("/proc/locks").find(line) != std::string::npos; });
}

inline long OpenDescriptors() { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); }

inline std::mutex log_mutex;
inline std::string log_text;

/// Returns and forgets what was written to syslog, each entry a line "<PRIORITY>TEXT".
inline std::string TakeLog() {
  const std::lock_guard<std::mutex> lock(log_mutex);
  return std::exchange(log_text, {});
}

}  // namespace ZELT

// Stands in for the C library's: hidden or unused, it would not.
extern "C" [[gnu::visibility("default"), gnu::used]] inline void syslog(int priority,
                                                                        const char* format, ...) {
  std::array<char, 512> text{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  const std::lock_guard<std::mutex> lock(ZELT::log_mutex);
  ZELT::log_text.append("<").append(std::to_string(priority)).append(">");
  ZELT::log_text.append(text.data()).append("\n");
}

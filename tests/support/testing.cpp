#include "support/testing.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <regex>
#include <sstream>
#include <system_error>
#include <thread>
#include <utility>

namespace ZELT::TestSupport {
namespace {

std::mutex log_mutex;
std::string log_text;

void Check(int result, const std::string& what) {
  if (result != 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

void Replace(const std::string& path, const std::string& text) {
  WriteFile("/tmp" + path, text);
  Check(mount(("/tmp" + path).c_str(), path.c_str(), nullptr, MS_BIND, nullptr), path);
}

// A user namespace in which this user is root (user_namespaces(7)).
void BecomeRoot() {
  const std::string user = std::to_string(getuid());
  const std::string group = std::to_string(getgid());
  Check(unshare(CLONE_NEWUSER), "unshare");
  WriteFile("/proc/self/uid_map", "0 " + user + " 1");
  WriteFile("/proc/self/setgroups", "deny");
  WriteFile("/proc/self/gid_map", "0 " + group + " 1");
}

void Enter() {
  if (getuid() != 0) {
    BecomeRoot();
  }
  Check(unshare(CLONE_NEWNS), "unshare");
  Check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "/");
  MountEmpty("/tmp", "mode=755");
  Replace("/etc/passwd",
          "root:x:0:0::/:/bin/sh\nalice:x:4001:4100::/:/bin/sh\nbob:x:4002:4100::/:/bin/sh\n"
          "any:x:4003:4100::/:/bin/sh\ncarol:x:4004:4100::/:/bin/sh\n");
  Replace("/etc/group", "root:x:0:\nusers:x:4100:\nstaff:x:4101:bob\n");
  Check(umount2("/tmp", MNT_DETACH), "/tmp");
}

// Entered once for the process; returns why that failed, or nothing.
const std::string& WhyNotEntered() {
  static const std::string reason = [] {
    try {
      Enter();
      return std::string();
    } catch (const std::exception& error) {
      return "no private file system: " + std::string(error.what());
    }
  }();
  return reason;
}

}  // namespace

std::string SingleQuoted(std::string text) {
  std::replace(text.begin(), text.end(), '"', '\'');
  return text;
}

Json::Value Value(std::string text) {
  std::replace(text.begin(), text.end(), '\'', '"');
  Json::Value value;
  std::istringstream(text) >> value;
  return value;
}

std::string Text(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return SingleQuoted(Json::writeString(builder, value));
}

void CheckRows(const std::string& source, const std::vector<Row>& rows, const RowCall& call) {
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.first) + " with " + row.second);
    const bool is_error = *row.outcome >= '0' && *row.outcome <= '9';
    EXPECT_EQ(Outcome([&] { return call(Value(row.first), Value(row.second)); }),
              (is_error ? source + ":" : "") + row.outcome);
  }
}

void PrivateFiles::SetUp() {
  if (!WhyNotEntered().empty()) {
    std::cerr << "SKIPPED, " << WhyNotEntered() << '\n';
    GTEST_SKIP() << WhyNotEntered();
  }
  MountEmpty("/tmp", "mode=755");
  MountEmpty("/var", "mode=755");
  std::filesystem::create_directory("/var/packages");
}

void PrivateFiles::TearDown() {
  if (WhyNotEntered().empty()) {
    umount2("/var", MNT_DETACH);
    umount2("/tmp", MNT_DETACH);
  }
}

void MountEmpty(const std::string& directory, const std::string& options) {
  Check(mount("tmpfs", directory.c_str(), "tmpfs", 0, options.c_str()), directory);
}

void WriteFile(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream file(path, std::ios::binary);
  file << text << std::flush;
  if (!file) {
    throw std::runtime_error("cannot write " + path);
  }
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

pid_t Start(const std::function<int()>& work) {
  const pid_t process = fork();
  if (process != 0) {
    return process;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that hangs and is ended takes its processes along
  try {
    _exit(work());
  } catch (const std::exception&) {
    _exit(255);
  }
}

int Finish(pid_t process) {
  int status = 0;
  return waitpid(process, &status, 0) == process && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string WaitedLock(pid_t process) {
  // A waiter's line: "1: -> POSIX  ADVISORY  WRITE 123 ..." (proc_locks(5)).
  const std::regex waiter("-> POSIX +ADVISORY +(\\w+) " + std::to_string(process) + " ");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < deadline) {
    const std::string locks = ReadFile("/proc/locks");
    std::smatch match;
    if (std::regex_search(locks, match, waiter)) {
      return match[1];
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return "";
}

long OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

std::string TakeLog() {
  const std::lock_guard<std::mutex> lock(log_mutex);
  return std::exchange(log_text, {});
}

}  // namespace ZELT::TestSupport

// Stands in for the C library's; hidden, it would not.
extern "C" [[gnu::visibility("default"), gnu::format(printf, 2, 3)]] void syslog(int priority,
                                                                                 const char* format,
                                                                                 ...) {
  std::array<char, 512> text{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  const std::lock_guard<std::mutex> lock(ZELT::TestSupport::log_mutex);
  ZELT::TestSupport::log_text += "<" + std::to_string(priority) + ">" + text.data() + "\n";
}

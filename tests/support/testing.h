// What the tests share: tables, a machine that a test may break, other processes, and syslog.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/types.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace ZELT::TestSupport {

/// `text` with ' for ", as the tables hold JSON and error texts.
std::string SingleQuoted(std::string text);

/// Parses JSON that is written with ' for ". Throws `Json::RuntimeError` when it is malformed.
Json::Value Value(std::string text);

/// The inverse of `Value`, on one line; members stand in the order of their names.
std::string Text(const Json::Value& value);

/// Returns what `call` returned, as text ("done" for nothing), or the message of the
/// `std::runtime_error` that it threw. Every other exception goes through and fails the test.
template <typename Call>
std::string Outcome(const Call& call) {
  try {
    if constexpr (std::is_void_v<decltype(call())>) {
      call();
      return "done";
    } else {
      return Text(call());
    }
  } catch (const std::runtime_error& error) {
    return SingleQuoted(error.what());
  }
}

/// One call with two JSON values. An outcome that begins with a digit is an error text less its
/// source file.
struct Row {
  const char* first;
  const char* second;
  const char* outcome;
};

using RowCall = std::function<Json::Value(const Json::Value& first, const Json::Value& second)>;

void CheckRows(const std::string& source, const std::vector<Row>& rows, const RowCall& call);

/// A test in a mount namespace of its own: an empty /tmp, an empty /var/packages, and the users
/// alice (4001), bob (4002), any (4003) and carol (4004), all in "users" and bob in "staff". Needs
/// to be root, or user namespaces; without either the test is skipped.
class PrivateFiles : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
};

/// Mounts an empty file system with the options of tmpfs(5).
void MountEmpty(const std::string& directory, const std::string& options);

/// Writes a file, making the directories that lead to it.
void WriteFile(const std::string& path, const std::string& text);

std::string ReadFile(const std::string& path);

/// Forks a process that runs `work` and exits with what it returns (255 when it throws).
pid_t Start(const std::function<int()>& work);

/// Waits for a process and returns its exit code, or -1 when a signal ended it.
int Finish(pid_t process);

/// Polls until `process` waits for a record lock, and returns "READ" or "WRITE"; nothing when it
/// does not within 30 s, long for a busy machine.
std::string WaitedLock(pid_t process);

/// The number of open descriptors of this process.
long OpenDescriptors();

/// Returns and forgets what was written to syslog, each entry a line "<PRIORITY>TEXT".
std::string TakeLog();

}  // namespace ZELT::TestSupport

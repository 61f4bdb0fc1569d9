#include "configuration.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "json_member.h"
#include "json_text.h"
#include "owned_descriptor.h"
#include "packages.h"
#include "users.h"

namespace fs = std::filesystem;
using namespace ZELT::TokenManager;

namespace {

constexpr std::size_t kNamedCauses = 3;  // more would only make the line longer

std::string SystemText(int error) { return std::generic_category().message(error); }

// Returns why the library cannot read the file at `path`; empty if it can.
std::string FileProblem(const std::string& path) {
  // Without O_NONBLOCK, opening a FIFO waits for a writer (fifo(7)).
  const OwnedDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (!file.IsOpen() || fstat(file.Get(), &status) != 0) return SystemText(errno);
  if (!S_ISREG(status.st_mode)) return "not a regular file";
  if (std::cmp_greater(status.st_size, kMaxFileBytes)) return "larger than 4 MiB";
  char byte = 0;
  return read(file.Get(), &byte, 1) < 0 ? SystemText(errno) : "";
}

std::string ReadJsonFile(const std::string& path, Json::Value& value) {
  std::string problem = FileProblem(path);
  if (problem.empty() && !fromFile(path, value)) problem = "not JSON";
  if (problem.empty() && !value.isObject()) problem = "not a JSON object";
  return problem;
}

// Sets the package's user to the one that its privilege file names, if the file is valid.
void ReadPrivilege(Package& package) {
  std::error_code ignored;
  if (!fs::exists(fs::symlink_status(package.privilege, ignored))) return;
  Json::Value privilege;
  package.problem = ReadJsonFile(package.privilege, privilege);
  if (!package.problem.empty() || !privilege.isMember("username")) return;
  const std::string user = TextOf(privilege["username"]);
  if (user.empty()) {
    package.problem = "\"username\" does not name a user";
  } else {
    package.user = user;
  }
}

fs::directory_iterator Entries(const std::string& directory) {
  std::error_code error;
  fs::directory_iterator entries(directory, error);
  if (error) throw std::runtime_error(directory + ": " + error.message());
  return entries;
}

std::string PackageCause(const std::string& user, const std::string& installed_config) {
  for (const Package& package : ReadPackages()) {
    if (package.user != user) continue;
    const std::string path = installed_config + "/" + package.name;
    Json::Value configuration;
    return path + ": " + ReadConfiguration(path, configuration);
  }
  return "";
}

std::string NoPackageCause(const std::string& user) {
  std::string cause = "no package in " + std::string(kPackages) + " runs as \"" + user + "\"";
  std::size_t named = 0;
  for (const Package& package : ReadPackages()) {
    if (package.problem.empty() || ++named > kNamedCauses) continue;
    cause += "; " + package.privilege + ": " + package.problem;
  }
  return cause;
}

}  // namespace

std::vector<Package> ReadPackages() {
  std::vector<Package> packages;
  for (const fs::directory_entry& entry : Entries(kPackages)) {
    const std::string file = entry.path().filename();
    // Not fs::path::stem, because Boost's version, which the library uses, returns "" for ".name".
    const std::string name = file.substr(0, file.rfind('.'));
    packages.push_back({.name = name,
                        .directory = entry.path(),
                        .user = name,
                        .privilege = entry.path() / kPrivilegeFile,
                        .problem = ""});
    ReadPrivilege(packages.back());
  }
  return packages;
}

std::string ReadConfiguration(const std::string& path, Json::Value& configuration) {
  return ReadJsonFile(path, configuration);
}

std::vector<std::string> ListFiles(const std::string& directory) {
  std::vector<std::string> files;
  for (const fs::directory_entry& entry : Entries(directory)) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

Refusal Explain(const std::string& reason, uid_t uid, const std::string& installed_config) {
  try {
    if (reason.starts_with("token_manager.cpp:260 ")) {
      return {reason, PackageCause(UserName(uid), installed_config)};
    }
    if (reason.starts_with("token_manager.cpp:66 ")) {
      return {reason, NoPackageCause(UserName(uid))};
    }
    // The reason is an error of Boost, which the library does not catch. Entries() throws a clearer
    // one.
    if (reason.find(kPackages) != std::string::npos) Entries(kPackages);
    return {reason, ""};
  } catch (const std::runtime_error& error) {
    return {error.what(), ""};
  }
}

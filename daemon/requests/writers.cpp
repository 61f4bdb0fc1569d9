#include "writers.h"

#include <grp.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <stdexcept>

#include "configuration.h"
#include "daemon_socket.h"
#include "packages.h"
#include "users.h"

namespace fs = std::filesystem;
using namespace ZELT::TokenManager;

namespace {

std::string GroupName(gid_t gid) {
  const group* found = getgrgid(gid);
  return found != nullptr ? found->gr_name : std::to_string(gid);
}

// With the sticky bit, others cannot replace what is in a directory.
bool IsWritableByEverybody(const struct stat& status, bool is_above) {
  const bool is_protected = is_above && (status.st_mode & S_ISVTX) != 0;
  return (status.st_mode & S_IWOTH) != 0 && !is_protected;
}

// `is_above`: it is a directory above the one that counts.
std::string ForeignWriter(const fs::path& path, bool is_above) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return "";
  if (IsWritableByEverybody(status, is_above)) return "it is writable by everybody";
  if (status.st_uid != 0 && !IsUnmapped(status.st_uid))
    return "it is writable by user \"" + UserName(status.st_uid) + "\"";
  if ((status.st_mode & S_IWGRP) == 0 || status.st_gid == 0) return "";
  return "it is writable by group \"" + GroupName(status.st_gid) + "\"";
}

class Writers {
 public:
  void Check(const fs::path& path, bool is_above = false) {
    const std::string writer = ForeignWriter(path, is_above);
    if (!writer.empty()) writers[path] = writer;
  }

  void CheckDirectory(const fs::path& directory) {
    Check(directory);
    for (fs::path above = directory; above != above.parent_path();) {
      Check(above = above.parent_path(), true);
    }
  }

  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    for (const auto& [path, writer] : writers) {
      lines.push_back(std::string(path).append(": ").append(writer));
    }
    return lines;
  }

 private:
  std::map<std::string, std::string> writers;  // by path
};

void CheckPackages(Writers& writers) try {
  for (const Package& package : ReadPackages()) {
    const fs::path privilege = package.privilege;
    for (const fs::path& path : {fs::path(package.directory), privilege.parent_path(), privilege}) {
      writers.Check(path);
    }
  }
} catch (const std::runtime_error&) {
  // Requests that need the directory are refused with this reason.
}

void CheckConfigurations(const std::string& directory, Writers& writers) try {
  for (const std::string& file : ListFiles(directory)) writers.Check(file);
} catch (const std::runtime_error&) {
  // As above.
}

}  // namespace

std::vector<std::string> ForeignWriters(const std::string& installed_config) {
  Writers writers;
  writers.CheckDirectory(kPackages);
  writers.CheckDirectory(fs::absolute(installed_config).lexically_normal());
  CheckPackages(writers);
  CheckConfigurations(installed_config, writers);
  return writers.Lines();
}

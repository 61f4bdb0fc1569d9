#include "configuration.h"

#include <fcntl.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "json_text.h"
#include "packages.h"

namespace fs = std::filesystem;
using namespace ZELT::TokenManager;

namespace {

fs::directory_iterator Entries(const std::string& directory) {
  std::error_code error;
  fs::directory_iterator entries(directory, error);
  if (error) throw std::runtime_error(directory + ": " + error.message());
  return entries;
}

}  // namespace

std::vector<Package> ReadPackages() {
  std::vector<Package> packages;
  PrivilegeReader reader;
  for (const fs::directory_entry& directory : Entries(kPackages)) {
    const std::string entry = directory.path().filename();
    const std::string name(PackageName(entry));
    const Privilege privilege = reader.Read(entry);
    packages.push_back({.name = name,
                        .directory = directory.path(),
                        .user = privilege.username.empty() ? name : privilege.username,
                        .privilege = directory.path() / kPrivilegeFile,
                        .problem = privilege.problem != nullptr ? privilege.problem : ""});
  }
  return packages;
}

std::string ReadConfiguration(const std::string& path, Json::Value& configuration) {
  const FileProblem problem = JsonFileReader().Read(AT_FDCWD, path.c_str(), configuration);
  if (problem.text != nullptr) return problem.text;
  return configuration.isObject() ? "" : "not a JSON object";
}

std::vector<std::string> ListFiles(const std::string& directory) {
  std::vector<std::string> files;
  for (const fs::directory_entry& entry : Entries(directory)) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

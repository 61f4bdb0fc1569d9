// Checks the files in which an administrator sets a package's user and grants. The library reads
// the same files, but reports only that it failed.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <string>
#include <vector>

/// A package as the library sees it.
struct Package {
  std::string name;
  std::string directory;
  std::string user;       ///< the user it runs as
  std::string privilege;  ///< the path of its privilege file
  std::string problem;    ///< why the privilege file is ignored; empty if it is valid or missing
};

/// Returns all packages, in the order in which the library reads them. Throws `std::runtime_error`
/// when they cannot be listed.
std::vector<Package> ReadPackages();

/// Reads the installed configuration at `path`. Returns why it cannot be used; empty when it can.
std::string ReadConfiguration(const std::string& path, Json::Value& configuration);

/// Returns the paths of the installed configurations in `directory`, sorted. Throws
/// `std::runtime_error` when they cannot be listed.
std::vector<std::string> ListFiles(const std::string& directory);

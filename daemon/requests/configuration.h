// The files in which an administrator says which user a package runs as and what it is granted, and
// what can be wrong with them. The library reads them itself and only says that it could not.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

/// A package as the library sees it.
struct Package {
  std::string name;
  std::string directory;
  std::string user;       ///< under whom it runs
  std::string privilege;  ///< the path of its privilege file
  std::string problem;  ///< why the privilege file does not count; empty when it does or is missing
};

/// Returns all packages, in the order in which the library asks them. Throws `std::runtime_error`
/// when they cannot be listed.
std::vector<Package> ReadPackages();

/// Reads the installed configuration at `path`. Returns why it cannot be used; empty when it can.
std::string ReadConfiguration(const std::string& path, Json::Value& configuration);

/// Returns the paths of the installed configurations in `directory`, sorted. Throws
/// `std::runtime_error` when they cannot be listed.
std::vector<std::string> ListFiles(const std::string& directory);

/// Returns who may write to `path` and should not, because they are neither root nor the daemon's
/// user: `it may be written by user "alice"`. Empty when there is nobody, or no such file.
std::string ForeignWriter(const std::string& path);

/// Why a request to issue was refused, for an administrator.
struct Refusal {
  std::string reason;
  std::string cause;  ///< which file or directory to look at and why; empty when none is to blame
};

/// Finds the cause of a refusal for `reason`, the text that the library threw for the user `uid`.
Refusal Explain(const std::string& reason, uid_t uid, const std::string& installed_config);

/// Names installed configurations that have a foreign writer in the log, each once.
class WriterWatch {
 public:
  explicit WriterWatch(const std::string& watched_directory) : directory(watched_directory) {}

  void Look();

 private:
  std::string directory;
  std::set<std::string> named;
};

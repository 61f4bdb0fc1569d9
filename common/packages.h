// Where the machine's packages are, and which of their files count.
#pragma once

#include <string>
#include <string_view>

#include "json_text.h"
#include "owned_descriptor.h"

namespace ZELT::TokenManager {

/// One directory for each package.
inline constexpr const char* kPackages = "/var/packages";

/// Below a package's directory. It names the user whom the package runs as.
inline constexpr const char* kPrivilegeFile = "conf/privilege";

/// Returns the name of the package in the `entry` of `kPackages`: the entry's without its last
/// extension.
std::string_view PackageName(std::string_view entry);

/// What a privilege file says.
struct Privilege {
  std::string username;           ///< empty if the file names none
  const char* problem = nullptr;  ///< why the file is ignored; null if it is valid or missing
};

/// Reads the privilege files of packages.
class PrivilegeReader {
 public:
  /// Opens `kPackages`. If this fails, `Read` throws.
  PrivilegeReader();

  /// Reads the privilege file of the package in `entry`. Throws `std::system_error` when
  /// descriptors or memory run out, which says nothing about the file.
  Privilege Read(const std::string& entry);

 private:
  OwnedDescriptor packages;
  JsonFileReader reader;
};

}  // namespace ZELT::TokenManager

// Where the machine's packages are, and which of their files count.
#pragma once

namespace ZELT::TokenManager {

/// One directory for each package.
inline constexpr const char* kPackages = "/var/packages";

/// Below a package's directory. It names the user whom the package runs as.
inline constexpr const char* kPrivilegeFile = "conf/privilege";

}  // namespace ZELT::TokenManager

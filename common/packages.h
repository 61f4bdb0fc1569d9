// Where the machine's packages are, and which of their files count.
#pragma once

#include <cstddef>

namespace ZELT::TokenManager {

/// One directory for each package.
inline constexpr const char* kPackages = "/var/packages";

/// Below a package's directory. It names the user whom the package runs as.
inline constexpr const char* kPrivilegeFile = "conf/privilege";

/// A larger privilege file is treated as missing: every privilege file is read for each token.
constexpr std::size_t kMaxPrivilegeBytes = 64U << 10;

}  // namespace ZELT::TokenManager

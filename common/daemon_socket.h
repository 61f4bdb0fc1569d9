// Where clients reach the daemon, and whom they take for it: anybody may put a socket into /tmp.
#pragma once

#include <sys/types.h>

#include <array>
#include <optional>

namespace ZELT::TokenManager {

/// The daemon's addresses in the order in which clients try them. Programs with a /tmp of their
/// own, such as services with PrivateTmp= (systemd.exec(5)), reach only the second.
inline constexpr const char* kSocketPath = "/tmp/zelttokenmgr.sock";
inline constexpr const char* kSecondSocketPath = "/run/zelttokenmgr/socket";
inline constexpr std::array kSocketPaths{kSocketPath, kSecondSocketPath};

/// The user under whom the packages run the daemon.
inline constexpr const char* kDaemonUser = "zelttokenmgr";

/// Whether clients take a process of `user` for the daemon: root, this process's effective user and
/// "zelttokenmgr".
bool IsDaemonUser(uid_t user);

/// Returns the owner of what stands at `path` (not of what a symbolic link there leads to), unless
/// that is a user of the daemon or nothing can be seen there.
std::optional<uid_t> ForeignOwner(const char* path);

}  // namespace ZELT::TokenManager

// The daemon's addresses, and the users whom clients accept as the daemon: any user can create a
// socket in /tmp.
#pragma once

#include <sys/types.h>

#include <array>
#include <optional>

namespace ZELT::TokenManager {

/// The daemon's addresses in the order in which clients try them. Programs with a private /tmp,
/// such as services with PrivateTmp= (systemd.exec(5)), reach only the second.
inline constexpr const char* kSocketPath = "/tmp/zelttokenmgr.sock";
inline constexpr const char* kSecondSocketPath = "/run/zelttokenmgr/socket";
inline constexpr std::array kSocketPaths{kSocketPath, kSecondSocketPath};

/// The user under whom the packages run the daemon.
inline constexpr const char* kDaemonUser = "zelttokenmgr";

/// Whether `user` stands for all users who are not mapped in this user namespace
/// (user_namespaces(7)): any of them may have it, this process's user included.
bool IsUnmapped(uid_t user);

/// Whether clients accept a process of `user` as the daemon. They accept root, this process's
/// effective user, and "zelttokenmgr".
bool IsDaemonUser(uid_t user);

/// Returns the owner of the file at `path` if clients do not accept that user as the daemon.
/// Symbolic links are not followed. Returns nothing if the file is missing or cannot be examined.
std::optional<uid_t> ForeignOwner(const char* path);

}  // namespace ZELT::TokenManager

// `zelttokenmgrd --check`: checks the files that an administrator writes.
#pragma once

#include <iosfwd>
#include <string>

/// Checks all packages, their privilege files and the installed configurations in the directory
/// `installed_config`. Prints one line for each finding, "FILE: what is wrong", and returns the
/// exit code: 1 if there is one. Must run as a user that may read the files.
int CheckFiles(const std::string& installed_config, std::ostream& output);

/// Prints the payload of the token that `service` would issue to a process of `user` for `payload`,
/// JSON text, or why it would not. Returns the exit code: 0 if it would, 1 if not, and 64 if
/// `payload` is not JSON.
int CheckIssue(const std::string& installed_config, const std::string& user,
               const std::string& service, const std::string& payload, std::ostream& output);

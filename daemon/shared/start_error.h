// Starts that fail.
#pragma once

#include <sysexits.h>

#include <stdexcept>
#include <string>

/// A reason for which the daemon cannot start, and for which starting it again would fail in the
/// same way. The daemon ends with `status`, of sysexits.h(3head):
/// - `EX_DATAERR`: the store is damaged, or not a store of this daemon
/// - `EX_UNAVAILABLE`: another daemon has the store, or serves the address
/// - `EX_NOPERM`: others own or may open the store's file or directory, or this user may not
/// - `EX_CONFIG`: the store cannot be in this place
///
/// Everything else that fails at the start ends the daemon with 1, and may be gone the next time.
class StartError : public std::runtime_error {
 public:
  StartError(int exit_status, const std::string& what)
      : std::runtime_error(what), status(exit_status) {}

  const int status;
};

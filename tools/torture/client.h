// The honest processes: clients that own tokens, auditors, and one whose waiting is measured.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>

namespace ZELT::Torture {

/// Forks a process that runs `work` for ever as the user `uid`, and ends with this one.
pid_t Fork(uid_t uid, const std::function<void()>& work);

/// Fills the seat with a new client, which issues, validates, transfers and revokes tokens and
/// checks every answer. A client that sat there before must be gone.
void SeatClient(std::size_t seat);

/// Starts the auditors, who validate all clients' tokens while their owners revoke them, and the
/// honest client whose waiting is measured.
void SeatWatchers();

}  // namespace ZELT::Torture

// Hostile local users. Each function runs for ever, in a process of its own.
#pragma once

#include <cstddef>

namespace ZELT::Torture {

/// Keeps `count` connections open that say nothing, and opens those again that the daemon closes.
void Silent(std::size_t count);

/// Sends requests one byte at a time: some fast enough to be answered, which must be, and some
/// that cannot be whole before the daemon's deadline, which must not.
void Trickle();

/// Sends random bytes.
void Noise();

/// Sends messages that are too long, and ones that are nested as deeply as a message can be.
void Giant();

/// Leaves before the answer.
void Leave();

/// Sends messages that take long to read: as many values as fit into what a socket takes at once.
void Costly();

}  // namespace ZELT::Torture

// Telling whoever started the daemon how it does (sd_notify(3)).
#pragma once

#include <chrono>
#include <optional>

/// Sends `state`, such as "READY=1", to the socket that `$NOTIFY_SOCKET` names, if it is set. A
/// failure is logged: the daemon serves all the same.
void NotifyServiceManager(const char* state);

/// How often "WATCHDOG=1" is due, if it is expected at all (sd_watchdog_enabled(3)): twice as often
/// as must be.
std::optional<std::chrono::microseconds> WatchdogInterval();

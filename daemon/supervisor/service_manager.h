// Notifications to the service manager (sd_notify(3)).
#pragma once

#include <chrono>
#include <optional>

/// Sends `state`, such as "READY=1", to the socket that `$NOTIFY_SOCKET` names, if it is set. A
/// failure is only logged.
void NotifyServiceManager(const char* state);

/// Returns how often to send "WATCHDOG=1", which is twice as often as required, or none if the
/// service manager does not expect it (sd_watchdog_enabled(3)).
std::optional<std::chrono::microseconds> WatchdogInterval();

// Exchanges with the daemon, and what to say when one fails.
#pragma once

#include <json/value.h>

#include <string>

#include "failure.h"

constexpr const char* kReasonInLog = "; its log says why (journalctl -u zelttokenmgrd)";

/// Each returns the failure that `cause` led to, with what to do about it.
Failure Unreachable(const std::string& cause);
Failure BrokenExchange(const std::string& cause);

/// Sends a request that the library has no call for, and returns the response. Throws `Failure`.
Json::Value SendToDaemon(const Json::Value& request);

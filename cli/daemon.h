// Exchanges with the daemon, and their failures.
#pragma once

#include <json/value.h>

#include <string>

#include "failure.h"

constexpr const char* kReasonInLog = "; its log says why (as root: journalctl -u zelttokenmgrd)";

/// Returns the failure of a refused issue, with the command that tells why.
Failure IssueRefused(const std::string& cause, const std::string& service,
                     const Json::Value& payload);

/// Each returns a failure whose text includes `cause` and what to do about it.
Failure Unreachable(const std::string& cause);
Failure BrokenExchange(const std::string& cause);

/// Sends a request for which the library has no function, and returns the response. Throws
/// `Failure`.
Json::Value SendToDaemon(const Json::Value& request);

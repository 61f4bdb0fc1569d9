// Log lines about requests. They never contain a token.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <exception>
#include <string>

#include "peer.h"

/// Returns what the library names as the cause of a refusal, a file or directory and what is wrong
/// with it: the text of the exception nested in `refusal`. Empty if there is none.
std::string CauseOf(const std::exception& refusal);

/// Logs why a request was refused: the process and user that sent it, its type and service, the
/// text of `refusal`, and its cause. `request` need not be an object.
void LogRefusal(const Peer& peer, const Json::Value& request, const std::exception& refusal);

/// Returns the JSON text of a token's grants as a JSON string, cut at 1 KiB.
std::string QuotedGrants(const std::string& grants);

/// Returns the line of the audit for a change of a token by `peer`. `what` is one of "issue",
/// "revoke", "transfer" and "drop"; `details` has the form " name=value".
std::string AuditLine(const Peer& peer, const char* what, std::uint64_t id,
                      const std::string& service, const std::string& details);

// Log lines about requests. They never contain a token.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "configuration.h"
#include "peer.h"

/// Logs why a request was refused, with its type and service and the process and user that sent it.
/// `request` need not be an object.
void LogRefusal(const Peer& peer, const Json::Value& request, const Refusal& refusal);

/// Returns the line of the audit for a change of a token by `peer`. `what` is one of "issue",
/// "revoke", "transfer" and "drop"; `details` has the form " name=value".
std::string AuditLine(const Peer& peer, const char* what, std::uint64_t id,
                      const std::string& service, const std::string& details);

// What a request must be before it is carried out. Whatever is not throws `std::runtime_error` with
// the reason.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "peer.h"
#include "request_type.h"

/// Who may send a request.
enum class Sender : std::uint8_t {
  kAnybody,
  kProcess,  ///< a process that the daemon can tell from all others, so that it can own tokens
  kAdministrator
};

/// Parses `text`, which must be one JSON object of bounded size.
void ReadRequest(const std::string& text, Json::Value& request);

/// Returns the type that the object `request` names, `kOther` if there is no such type.
RequestType TypeOf(const Json::Value& request);

Sender SenderOf(RequestType type);

void ExpectSender(Sender expected, const Peer& peer);

/// Checks the request's token, if it has one: stores keep texts that could be no token in ways of
/// their own.
void ExpectWholeToken(const Json::Value& request);

/// Checks the payload of an issue. This comes early, because a service copies all requested grants
/// before the store refuses the token.
void ExpectFewGrants(const Json::Value& payload);

/// Returns the lifetime that "expires_in" of an issue asks for.
std::chrono::seconds Lifetime(const Json::Value& seconds);

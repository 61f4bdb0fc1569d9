// Why requests are refused, for the counters.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/// In the order of the counters.
enum class RefusalKind : std::uint8_t {
  kMalformed,  ///< the request is wrong in itself
  kSender,     ///< this process or user may not send it
  kToken,      ///< the token is unknown, for another service, or another process's
  kPackage,    ///< the user has no package, or it has no grants
  kGrant,      ///< the package is not granted what is asked for
  kLimit,      ///< of a request, a token, a user or the store
  kFailure     ///< of this machine or of the daemon
};
constexpr std::size_t kRefusalKinds = static_cast<std::size_t>(RefusalKind::kFailure) + 1;

/// Their names, in the same order.
constexpr std::array<const char*, kRefusalKinds> kRefusalKindNames = {
    "malformed", "sender", "token", "package", "grant", "limit", "failure"};

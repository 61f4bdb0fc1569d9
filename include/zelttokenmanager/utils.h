// The client's calls to the token daemon, the peer's credential, and permitted lists.
#pragma once

#include <json/value.h>
#include <sys/socket.h>

#include <string>
#include <vector>

namespace ZELT::TokenManager {

// Each Send function makes one exchange with the daemon: connect, one request, one response, close.
// It tries "/tmp/zelttokenmgr.sock" first and then "/run/zelttokenmgr/socket". It accepts a process
// of root, of the caller's own user or of the user zelttokenmgr as the daemon, and sends nothing to
// processes of other users.
//
// The functions share no state. Any number of threads may call them, also in exit handlers and
// static destructors. They throw `std::runtime_error` when the daemon cannot be reached, when the
// request cannot be sent (a message is at most 1 MiB; the daemon refuses requests of more than 128
// KiB), and when no valid response arrives within 30 seconds. The reason for a refusal is only in
// the daemon's log.

/// Returns a new token of `service`, owned by this process. The service decides what `payload`
/// holds. Throws `std::runtime_error` when the daemon refuses.
[[gnu::visibility("default")]] std::string SendIssueRequest(const std::string& service,
                                                            const Json::Value& payload);

/// Returns whether `token` permits the operation in `payload`. Throws `std::runtime_error` when the
/// daemon cannot tell: an unknown token, another service's token, a malformed payload.
[[gnu::visibility("default")]] bool SendValidateRequest(const std::string& service,
                                                        const std::string& token,
                                                        const Json::Value& payload);

/// What a token says to an operation. It is no `bool`, and no optional one, because those that are
/// not permitted must not pass for true.
enum class Verdict {
  kNotPermitted,
  kPermitted,
  kMalformed,  ///< the daemon cannot judge the payload, for example because a member is missing
};

/// Returns what `token` permits of the operations in `payloads`, at most 256, in their order. One
/// request costs a fraction of as many calls of `SendValidateRequest`. Throws `std::runtime_error`
/// when the daemon refuses the whole request: an unknown token, another service's token, too many
/// payloads. A payload that cannot be judged does not affect the others.
[[gnu::visibility("default")]] std::vector<Verdict> SendValidateManyRequest(
    const std::string& service, const std::string& token, const std::vector<Json::Value>& payloads);

/// Deletes `token`, which this process must own. Returns false when the daemon refuses.
[[gnu::visibility("default")]] bool SendRevokeRequest(const std::string& service,
                                                      const std::string& token);

/// Transfers `token`, which this process must own, to the living process `pid`. Returns false when
/// the daemon refuses.
[[gnu::visibility("default")]] bool SendTransferRequest(const std::string& service,
                                                        const std::string& token, int pid);

/// Returns the credential that the peer of the connected local socket `fd` had when it connected
/// (`SO_PEERCRED`, unix(7)): process 0 and user -1 if it is not connected. Throws
/// `std::runtime_error` when `fd` is no socket.
[[gnu::visibility("default")]] ucred GetPeerCredential(int fd);

/// Returns whether `permitted` admits `identity`: a local user's name, or "@" and a group's name.
///
/// `permitted` is a string or an array of strings. The string "any" admits everybody; any other
/// string admits only the `requester`. An element of an array is the name of a user, or "@" and the
/// name of a group, whose members it admits. An array admits the requester only by name, and "any"
/// in it is an ordinary user's name.
///
/// Throws `std::runtime_error` for any other shape that the search encounters, and when `permitted`
/// is an array and the groups of the user `identity` cannot be looked up.
[[gnu::visibility("default")]] bool IsIdentityInPermittedList(const std::string& identity,
                                                              const Json::Value& permitted,
                                                              const std::string& requester);

}  // namespace ZELT::TokenManager

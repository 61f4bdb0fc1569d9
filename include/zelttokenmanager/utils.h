// The client's calls to the token daemon, the peer's credential, and permitted lists.
#pragma once

#include <json/value.h>
#include <sys/socket.h>

#include <string>

namespace ZELT::TokenManager {

// Each call below is one exchange with the daemon: connect, one request, one response, close. The
// daemon is reached at "/tmp/zelttokenmgr.sock" or, where that cannot be, at
// "/run/zelttokenmgr/socket". Nothing is sent to a process that is not root's, the caller's own
// user's or the user zelttokenmgr's: it does not count as the daemon.
//
// The calls share no state, so any number of threads may make them, and they may be made until the
// process has ended. They throw `std::runtime_error` when the daemon cannot be reached, the request
// cannot be written as JSON or not be sent (a message is at most 1 MiB), or no valid response
// arrives within 30 seconds of waiting. Why the daemon refused a request stands only in its log.

/// Returns a new token of `service`, owned by this process. What `payload` holds is the service's
/// matter. Throws `std::runtime_error` when the daemon refuses.
[[gnu::visibility("default")]] std::string SendIssueRequest(const std::string& service,
                                                            const Json::Value& payload);

/// Returns whether `token` permits what `payload` asks. Throws `std::runtime_error` when the daemon
/// cannot tell: an unknown token, another service's token, a malformed payload.
[[gnu::visibility("default")]] bool SendValidateRequest(const std::string& service,
                                                        const std::string& token,
                                                        const Json::Value& payload);

/// Deletes `token`, which this process must own. Returns false when the daemon refuses.
[[gnu::visibility("default")]] bool SendRevokeRequest(const std::string& service,
                                                      const std::string& token);

/// Hands `token`, which this process must own, to the living process `pid`. Returns false when the
/// daemon refuses.
[[gnu::visibility("default")]] bool SendTransferRequest(const std::string& service,
                                                        const std::string& token, int pid);

/// Returns the credential that the peer of the connected local socket `fd` had when it connected
/// (`SO_PEERCRED`, unix(7)). Throws `std::runtime_error` when the kernel refuses.
[[gnu::visibility("default")]] ucred GetPeerCredential(int fd);

/// Returns whether `permitted` admits `identity`: a local user's name, or "@" and a group's name.
///
/// `permitted` is either a string, where "any" admits everybody and every other text only the
/// `requester`; or an array of strings, each a user's name or "@" and the name of a group that
/// admits its members. An array does not admit the requester as such, and "any" is an ordinary
/// user's name in it.
///
/// Throws `std::runtime_error` for any other shape, as far as the search reaches, and when the
/// groups of the user `identity` cannot be looked up for an array.
[[gnu::visibility("default")]] bool IsIdentityInPermittedList(const std::string& identity,
                                                              const Json::Value& permitted,
                                                              const std::string& requester);

}  // namespace ZELT::TokenManager

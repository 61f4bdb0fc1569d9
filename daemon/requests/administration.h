// The administrators' requests: "list", "show", "drop" and "status".
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "board.h"
#include "peer.h"
#include "token_store.h"

/// Executes these requests one page at a time, so that none takes long. Throws `std::runtime_error`
/// with what is wrong if a request is malformed.
class Administration {
 public:
  Administration(TokenStore& looked_after, const Board& counters, const std::string& daemon_version)
      : store(looked_after), board(counters), version(daemon_version) {}

  /// Returns whether `peer` may send them. Root and the daemon's user may.
  static bool IsAdministrator(const Peer& peer);

  /// Request: "user", "service", "orphans" and "after", each optional. Response: "tokens", and
  /// "next" unless this is the last page.
  void List(const Json::Value& request, Json::Value& response);

  /// Request: "id". Response: "token", as in the response to List, with its "payload".
  void Show(const Json::Value& request, Json::Value& response);

  /// Request: as for List, and "ids"; without any condition, "all" must be true. Response:
  /// "dropped" and "next". Returns what was dropped. Part of a change of the store.
  std::vector<TokenRow> Drop(const Json::Value& request, Json::Value& response);

  /// Request: "after". Response: the counters of all workers, the size of the store, and "usage",
  /// which comes in pages.
  void Status(const Json::Value& request, Json::Value& response);

 private:
  TokenStore& store;
  const Board& board;
  std::string version;
};

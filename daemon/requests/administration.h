// The requests by which an administrator looks after tokens: "list", "drop" and "status".
#pragma once

#include <json/value.h>

#include <string>

#include "board.h"
#include "peer.h"
#include "token_store.h"

/// Carries them out, a page at a time, so that none is expensive. Each throws `std::runtime_error`
/// for a request of the wrong shape, and names what is wrong with it.
class Administration {
 public:
  Administration(TokenStore& looked_after, const Board& counters, const std::string& daemon_version)
      : store(looked_after), board(counters), version(daemon_version) {}

  /// Whether `peer` may send them: root and the daemon's own user may.
  static bool IsAdministrator(const Peer& peer);

  /// Request: "user", "service", "orphans" and "after", each optional. Response: "tokens", and
  /// "next" unless this is the last page.
  void List(const Json::Value& request, Json::Value& response);

  /// Request: as for List, and "ids"; without any condition "all" has to be true. Response:
  /// "dropped" and "next". Returns what was dropped, as rows of `TokenStore::List`.
  Json::Value Drop(const Json::Value& request, Json::Value& response);

  /// Request: "after". Response: what all workers have done, the store's room, and "usage", which
  /// is paged.
  void Status(const Json::Value& request, Json::Value& response);

 private:
  TokenStore& store;
  const Board& board;
  std::string version;
};

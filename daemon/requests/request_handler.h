// Answering requests.
#pragma once

#include <json/value.h>

#include <memory>
#include <string>
#include <vector>

#include "administration.h"
#include "board.h"
#include "peer.h"
#include "token_store.h"
#include "users_without_package.h"
#include "zelttokenmanager/token_manager.h"

struct RequestSettings {
  std::string installed_config;  ///< directory of the installed configurations
  std::string version;           ///< of the daemon
  bool audit = false;            ///< log each change of a token
};

/// Answers requests, one at a time, with its own token manager, which has all services.
///
/// Processes: each worker has its own object, store and slot.
class RequestHandler {
 public:
  /// `cache` may be null.
  RequestHandler(TokenStore& token_store, Board& shared_board, WorkerSlot& worker_slot,
                 RequestSettings request_settings,
                 std::shared_ptr<ZELT::TokenManager::CacheStorage> cache = nullptr);

  /// Returns the response to the request `text` of `peer`. Every text gets a response. The reason
  /// of a refusal is logged, but never a token. Records the current activity and the counters in
  /// the slot.
  std::string Answer(const Peer& peer, const std::string& text);

  /// Does periodic work, in the worker of the first slot.
  void EverySecond();

 private:
  std::string Handle(const Peer& peer, const std::string& text, Json::Value& request,
                     Json::Value& response);
  void Look(const Peer& peer, Json::Value& request, Json::Value& response);
  std::string Change(const Peer& peer, const Json::Value& request, Json::Value& response);
  std::vector<std::string> CarryOut(const Peer& peer, const Json::Value& request,
                                    Json::Value& response);
  std::string GrantsOf(const std::string& token) const;
  void Issue(const Peer& peer, const Json::Value& request, Json::Value& response);
  std::vector<std::string> AuditDrop(const Peer& peer, const std::vector<TokenRow>& dropped) const;

  void Refuse(const Peer& peer, const Json::Value& request, const std::exception& refusal);

  TokenStore& store;
  Board& board;
  WorkerSlot& slot;
  const RequestSettings settings;
  ZELT::TokenManager::TokenManager manager;
  Administration administration;
  UsersWithoutPackage without_package;
};

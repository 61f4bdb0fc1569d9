// From the text of a request to the text of its response.
#pragma once

#include <json/value.h>

#include <memory>
#include <string>

#include "administration.h"
#include "board.h"
#include "configuration.h"
#include "peer.h"
#include "token_store.h"
#include "zelttokenmanager/token_manager.h"

struct RequestSettings {
  std::string installed_config;  ///< directory of the installed configurations
  std::string version;           ///< of the daemon
  bool audit = false;            ///< log each change of a token
};

/// Answers requests, one at a time, by a token manager of its own that has all services.
///
/// Processes: each worker has its own object, over a store and a slot of its own.
class RequestHandler {
 public:
  /// `cache`, which may be empty, stands in front of the store.
  RequestHandler(TokenStore& token_store, Board& shared_board, WorkerSlot& worker_slot,
                 RequestSettings request_settings,
                 std::shared_ptr<ZELT::TokenManager::CacheStorage> cache = nullptr);

  /// Returns the response to the request `text` of `peer`. Whatever a client sends is answered; the
  /// reason of a refusal goes to the log, and a token never does. Notes on the slot what it is
  /// doing and counts what it has done.
  std::string Answer(const Peer& peer, const std::string& text);

  /// Does what has to be done from time to time, most of it if this is the first slot's worker. To
  /// be called about once a second.
  void OnIdle();

 private:
  struct Operation;
  static const Operation& Find(const Json::Value& request);

  void Handle(const Peer& peer, const std::string& text, Json::Value& request,
              Json::Value& response);
  // What operations do, as their table says.
  template <auto kMethod>
  void Ask(const Peer& peer, const Json::Value& request, Json::Value& response);
  template <auto kMethod>
  void Change(const Peer& peer, const Json::Value& request, Json::Value& response);
  template <auto kMethod>
  void Administer(const Peer& peer, const Json::Value& request, Json::Value& response);
  void Drop(const Peer& peer, const Json::Value& request, Json::Value& response);

  void Audit(const Peer& peer, const Json::Value& request) const;
  void Refuse(const Peer& peer, const Json::Value& request, const std::string& reason);

  TokenStore& store;
  Board& board;
  WorkerSlot& slot;
  const RequestSettings settings;
  ZELT::TokenManager::TokenManager manager;
  Administration administration;
  WriterWatch watch;
  unsigned int idle_turns = 0;
};

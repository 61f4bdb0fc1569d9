// From the text of a request to the text of its response.
#pragma once

#include <json/value.h>

#include <string>

#include "safe_store.h"
#include "shared_state.h"
#include "zelttokenmanager/token_manager.h"

/// Answers requests, one at a time.
///
/// Processes: each worker has its own object over one manager, one store, which is the manager's,
/// and one `SharedState`.
class RequestHandler {
 public:
  RequestHandler(ZELT::TokenManager::TokenManager& token_manager, SafeStore& store,
                 SharedState& shared_state);

  /// Returns the response to the request `text` that came over `connection`. Whatever a client
  /// sends is answered; the reason of a refusal goes to the log, and a token never does.
  std::string Answer(int connection, const std::string& text);

 private:
  struct Operation;

  void Handle(int connection, const Json::Value& request, Json::Value& response);
  void Run(const Operation& operation, const ucred& peer, const Json::Value& request,
           Json::Value& response);

  ZELT::TokenManager::TokenManager& manager;
  SafeStore& safe_store;
  SharedState& shared;
};

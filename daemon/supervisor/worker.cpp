#include "worker.h"

#include <syslog.h>

#include <chrono>
#include <exception>
#include <string>

#include "log.h"
#include "open_store.h"
#include "request_handler.h"
#include "server.h"

namespace {

// Whoever holds the store meanwhile is the one that hangs, not this worker.
void KeepHouse(RequestHandler& handler, WorkerSlot& slot) {
  slot.activity = Activity::kWaitingForStore;
  try {
    handler.OnIdle();
  } catch (const std::exception& error) {
    Log(LOG_WARNING, "cannot keep house: %s", error.what());
  }
  slot.seen = std::chrono::steady_clock::now().time_since_epoch().count();
  slot.activity = Activity::kIdle;
}

}  // namespace

void Work(const WorkerContext& context, WorkerSlot& slot) {
  const Options& options = context.options;
  const OpenedStore opened = OpenStore(options.store, context.store_lock, slot);
  RequestHandler handler(*opened.store, context.board, slot,
                         {.installed_config = options.installed_config,
                          .version = ZELT_VERSION,
                          .audit = options.audit},
                         opened.cache);
  Server server(context.listeners, options.limits, slot);
  server.OnIdle([&] { KeepHouse(handler, slot); });
  server.Serve([&handler](const Peer& peer, const std::string& request) {
    return handler.Answer(peer, request);
  });
}

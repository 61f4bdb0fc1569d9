#include "worker.h"

#include <grp.h>
#include <pwd.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <functional>
#include <string>

#include "log.h"
#include "open_store.h"
#include "request_handler.h"
#include "server.h"

namespace {

void ShowCache(ZELT::TokenManager::CacheStorage& cache, CacheCounts& counts) {
  const Json::Value statistics = cache.GetStatistics();
  counts.hit = statistics["hit"].asUInt64();
  counts.miss = statistics["miss"].asUInt64();
  counts.total = statistics["total"].asUInt64();
}

// Does what no client waits for.
void KeepHouse(WorkerSlot& slot, const std::function<void()>& work) {
  try {
    work();
  } catch (const std::exception& error) {
    Log(LOG_WARNING, "housekeeping failed: %s", error.what());
  }
  slot.activity = Activity::kIdle;
}

// Names this process as the client, because no client is to blame if it hangs.
void EverySecond(RequestHandler& handler, const OpenedStore& opened, WorkerSlot& slot) {
  slot.type = RequestType::kOther;
  slot.client_process = getpid();
  slot.client_user = geteuid();
  if (opened.cache) ShowCache(*opened.cache, slot.cache);
  handler.EverySecond();
}

// The first look-up loads what glibc needs for it, and crashes if there is no memory for that. Here
// it costs no request.
void LoadUserDatabase() {
  int groups = 0;
  getpwuid(geteuid());
  getgrgid(getegid());
  getgrouplist("root", 0, nullptr, &groups);
}

}  // namespace

void Work(const WorkerContext& context, WorkerSlot& slot) {
  LoadUserDatabase();
  const Options& options = context.options;
  const OpenedStore opened = OpenStore(options.store, context.store_lock, slot);
  RequestHandler handler(*opened.store, context.board, slot,
                         {.installed_config = options.installed_config,
                          .version = ZELT_VERSION,
                          .audit = options.audit},
                         opened.cache);
  const auto after_answer = [&] { KeepHouse(slot, [&] { opened.store->AfterAnswer(); }); };
  Server server(
      context.listeners, {}, slot, context.board.lines,
      [&](const Peer& peer, const std::string& text) { return handler.Answer(peer, text); },
      [&] {
        KeepHouse(slot, [&] { EverySecond(handler, opened, slot); });
        after_answer();  // a change may have failed here too
      },
      after_answer);
  slot.seen = std::chrono::steady_clock::now().time_since_epoch().count();
  slot.activity = Activity::kIdle;
  server.Serve();
}

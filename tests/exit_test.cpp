// Uses the library as late as a process can: in atexit handlers and in the destructor of an object
// that is older than what the library makes when it is first used.
#include "daemon_socket.h"
#include "support/fake_daemon.h"
#include "zelttokenmanager/storage/json_file_storage.h"
#include "zelttokenmanager/storage/lru_cache_storage.h"
#include "zelttokenmanager/utils.h"

namespace ZELT::TokenManager::ExitTests {

void Demand(bool holds) { holds ? void() : _exit(1); }

// `name` is that of a store that nobody else uses meanwhile.
void UseEverything(const std::string& name) {
  JsonFileStorage file("/tmp/" + name + "/tokens");
  LRUCacheStorage cache(65536);
  file.Insert("other", name);
  for (TokenStorage* storage : std::initializer_list<TokenStorage*>{&file, &cache}) {
    storage->Insert("t", 18446744073709551616.0);
    Demand(Text(storage->GetAssociatedData("t")) == "1.8446744073709552e+19");
    storage->Remove("t");
  }
  Demand(SendIssueRequest("s", name) == "t" && SendValidateRequest("s", "t", {}));
  Demand(SendRevokeRequest("s", "t") && SendTransferRequest("s", "t", 1));
}

// Made before anything that a first use of the library makes, and so destroyed after it.
struct Late {
  ~Late() { UseEverything("destructor"), WriteFile("/tmp/done", ""); }
} late;

// What a process does before it ends: some uses in the first one, none in the second.
int Live(bool uses) {
  std::atexit([] { UseEverything("atexit"); });
  if (!uses) return 0;
  UseEverything("main");
  for (const std::string round : {"a", "b"}) {
    const std::jthread first([&] { UseEverything(round + "1"); });
    const std::jthread second([&] { UseEverything(round + "2"); });
  }
  return Finish(Start([] { return UseEverything("fork"), 0; }));
}

}  // namespace ZELT::TokenManager::ExitTests

int main() {
  using namespace ZELT;
  using namespace ZELT::TokenManager::ExitTests;
  if (Outcome(EnterPrivateMachine) != "done") _exit(77);  // skipped
  const pid_t daemon = Start([] {
    const OwnedDescriptor listener = ListenAt(TokenManager::kSocketPath);
    while (true) AnswerOne(listener, R"({"success":true,"permitted":true,"token":"t"})");
    return 0;
  });
  Eventually([] { return fs::exists(TokenManager::kSocketPath); });
  for (const bool uses : {true, false}) {
    const pid_t process = fork();
    if (process == 0) return Live(uses);
    Demand(Finish(process) == 0 && fs::remove("/tmp/done"));
  }
  EndProcess(daemon);
  _exit(0);
}

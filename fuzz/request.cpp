// Requests through a whole worker: the handler, the token manager with all services, and the store.
// Each line of the input is a request; they come one after the other from a process of root that
// owns the first two tokens.
#include <set>
#include <sstream>

#include "indexed_store.h"
#include "log.h"
#include "open_store.h"
#include "request_handler.h"
#include "support/peers.h"
#include "support/testing.h"

namespace {

using namespace ZELT;
using namespace ZELT::TokenManager;

constexpr int kMaxRequests = 6;  // in an input, so that none takes long

// The names of the tokens that the corpus uses.
const std::string kApiToken = "fastapi-token-of-the-asking-process";
const std::string kTaskToken = "taskmanager-token-of-the-asking-process";
const std::string kForeignToken = "fastapi-token-of-some-other-process";

const StoreOptions kStore{.path = "/var/store/tokens.mdb"};

constexpr const char* kGrants =
    "{'fastapi':[{'api':'A','method':'m'},{'api':'A','method':'n','runner':['@root','x']}],"
    "'taskmanager':[{'prefix':'p-'},{'prefix':'q','owner':'any'},{'prefix':'r','owner':[1]}]}";

// Ends the process, so that the fuzzer keeps the input, unless `holds`.
void Expect(bool holds) {
  if (!holds) std::abort();
}

class Worker {
 public:
  // The same tokens for each input, so that none depends on those before it.
  void Reset() {
    while (Answer(R"({"type":"drop","all":true})").isMember("next")) continue;
    Insert(kApiToken, "fastapi", getpid());
    Insert(kTaskToken, "taskmanager", getpid());
    Insert(kForeignToken, "fastapi", getppid());
    tokens = {kApiToken, kTaskToken, kForeignToken};
  }

  void Ask(const std::string& text) {
    const Json::Value response = Answer(text);
    if (response["success"] != true) return;
    Json::Value request;
    Expect(fromString(text, request) && request.isObject());  // only an object succeeds
    if (request["type"] == "issue") tokens.insert(response["token"].asString());
  }

 private:
  Json::Value Answer(const std::string& request) {
    const std::string answer = handler.Answer(From(0), request);
    const std::string log = TakeLog();
    for (const std::string& token : tokens) {
      Expect(answer.find(token) == answer.npos);  // no token is answered but a new one
      Expect(log.find(token) == log.npos);        // no token is logged
    }
    Json::Value response;
    Expect(fromString(answer, response));                         // an answer is JSON
    Expect(response.isObject() && response["success"].isBool());  // an answer says "success"
    return response;
  }

  void Insert(const std::string& token, const std::string& service, pid_t owner) {
    Json::Value data = Value("{'requester':'root'}");
    data["service"] = service;
    data["pid"] = owner;
    data["payload"] = Value(kGrants)[service];
    const Peer peer = From(0, owner);
    store.Change(peer, [&] { store.Insert(token, data); });
  }

  Board board;
  IndexedStore store{kStore, board.slots[0]};
  RequestHandler handler{store, board, board.slots[0], {"/var/installed", "1.0", true}};
  std::set<std::string> tokens;
};

}  // namespace

void OpenLog(bool /*to_stderr*/) {}
std::uint64_t ReportLostLines() noexcept { return 0; }
void Log(int /*priority*/, const char* format, ...) noexcept {
  std::array<char, 2048> line{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  log_text.append(line.data()).append("\n");
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  EnterPrivateMachine();
  MountEmpty("/var", "mode=755");
  WriteFile("/etc/passwd", "root:x:0:0::/:/bin/sh\n");
  WriteFile("/var/packages/root", "");
  WriteFile("/var/installed/root", Requoted(kGrants));
  static const StoreLock lock(kStore);
  RebuildStore(kStore);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Worker worker;
  worker.Reset();
  std::istringstream lines(std::string(reinterpret_cast<const char*>(data), size));
  std::string line;
  for (int i = 0; i < kMaxRequests && std::getline(lines, line); ++i) worker.Ask(line);
  return 0;
}

// Requests through the daemon's request handler, over a manager with both services, a store and a
// small cache. Each line of the input is a request; they come one after the other from a process
// that owns the first two tokens.
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <set>
#include <utility>

#include "json_text.h"
#include "request_handler.h"
#include "support.h"
#include "workers_lock.h"
#include "zeltsystem/user.h"
#include "zelttokenmanager/service/fastapi.h"
#include "zelttokenmanager/service/taskmanager.h"
#include "zelttokenmanager/storage/lru_cache_storage.h"

namespace {

using namespace ZELT::Fuzz;
using namespace ZELT::TokenManager;

constexpr const char* kStore = "/var/store/tokens";
constexpr unsigned int kCacheBytes = 8192;  // a few records, so that some are evicted
constexpr int kMaxRequests = 6;             // in an input, so that none takes long

// The names of the tokens that the corpus uses.
const std::string kApiToken = "fastapi-token-of-the-asking-process";
const std::string kTaskToken = "taskmanager-token-of-the-asking-process";
const std::string kForeignToken = "fastapi-token-of-some-other-process";
const std::string kBadToken = "token-whose-record-is-not-an-object";

constexpr const char* kGrants =
    R"({"fastapi":[{"api":"A","method":"m"},{"api":"A","method":"n","runner":["@root","x"]}],)"
    R"("taskmanager":[{"prefix":"p-"},{"prefix":"q","owner":"any"},{"prefix":"r","owner":[1]}]})";

std::string Record(const std::string& token, const std::string& service, int owner) {
  Json::Value grants;
  Expect(fromString(kGrants, grants), "the grants are JSON");
  Json::Value data(Json::objectValue);
  data["service"] = service;
  data["requester"] = "root";
  data["pid"] = owner;
  data["created_at"] = 1;
  data["payload"] = grants[service];
  return token + " " + toString(data) + "\n";
}

const std::string& StoreText() {
  static const std::string text = Record(kApiToken, "fastapi", getpid()) + kBadToken + " [1]\n" +
                                  Record(kForeignToken, "fastapi", 1) +
                                  Record(kTaskToken, "taskmanager", getpid());
  return text;
}

// The end of a connection whose peer is this process.
int Connection() {
  static const int connection = [] {
    std::array<int, 2> ends{};
    Expect(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0, "socketpair");
    return ends[0];
  }();
  return connection;
}

std::uint32_t random_state = 0;

// A daemon's state, made anew for each input so that none depends on those before it.
class Daemon {
 public:
  Daemon() {
    random_state = 1;
    Overwrite(kStore, StoreText());
    manager.AddService(std::make_shared<FastAPI>());
    manager.AddService(std::make_shared<TaskManager>());
  }

  Json::Value Answer(const std::string& request) {
    Json::Value response;
    Expect(fromString(handler.Answer(Connection(), request), response), "an answer is JSON");
    Expect(response.isObject() && response["success"].isBool(), "an answer says \"success\"");
    Expect(!shared.changing, "a finished request leaves no change behind");
    return response;
  }

 private:
  static std::shared_ptr<SafeStore> Store() {
    static const auto store = std::make_shared<SafeStore>(kStore, shared);
    return store;
  }

  TokenManager manager{"/var/installed", Store(), std::make_shared<LRUCacheStorage>(kCacheBytes)};
  inline static SharedState shared;
  RequestHandler handler{manager, *Store(), shared};
};

void ExpectUnlogged(const std::set<std::string>& tokens) {
  const std::string log = TakeLog();
  for (const std::string& token : tokens) {
    Expect(log.find(token) == std::string::npos, "no token is logged");
  }
}

void ExpectGone(Daemon& daemon, const std::string& token) {
  for (const char* service : {"fastapi", "taskmanager"}) {
    Json::Value request;
    request["type"] = "validate";
    request["service"] = service;
    request["token"] = token;
    Expect(!daemon.Answer(toString(request))["success"].asBool(), "a revoked token is refused");
  }
}

void MakeVar() {
  EnterPrivateVar();
  for (const char* directory :
       {"/var/packages", "/var/packages/root", "/var/installed", "/var/store"}) {
    Expect(mkdir(directory, 0755) == 0, "mkdir");
  }
  Overwrite("/var/installed/root", kGrants);
}

}  // namespace

// The same tokens in every run. Hidden, it would not stand in for the C library's.
extern "C" [[gnu::visibility("default")]] ssize_t getrandom(void* buffer, std::size_t size,
                                                            unsigned int /*flags*/) {
  for (std::size_t i = 0; i < size; ++i) {
    random_state = random_state * 1664525U + 1013904223U;
    static_cast<std::uint8_t*>(buffer)[i] = static_cast<std::uint8_t>(random_state >> 24);
  }
  return static_cast<ssize_t>(size);
}

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  MakeVar();
  return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Daemon daemon;
  std::set<std::string> tokens = {kApiToken, kTaskToken, kForeignToken, kBadToken};
  std::set<std::string> revoked;
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  for (int i = 0; i < kMaxRequests && !rest.empty(); ++i) {
    const std::string text = CutLine(rest);
    const Json::Value response = daemon.Answer(text);
    ExpectUnlogged(tokens);
    if (!response["success"].asBool()) continue;

    Json::Value request;
    Expect(fromString(text, request) && request.isObject(), "only an object succeeds");
    if (request["type"] == "issue") tokens.insert(response["token"].asString());
    if (request["type"] == "revoke") revoked.insert(request["token"].asString());
  }
  for (const std::string& token : revoked) ExpectGone(daemon, token);
  TakeLog();
  return 0;
}

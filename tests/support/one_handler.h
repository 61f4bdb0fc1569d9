// Requests as one worker answers them.
#pragma once

#include "indexed_store.h"
#include "open_store.h"
#include "request_handler.h"
#include "support/peers.h"
#include "support/tables.h"

namespace ZELT::RequestsTests {

inline const std::string kInstalled = "/var/installed";
inline const std::string kProcess = std::to_string(getpid());
inline const StoreOptions kStore{.path = "/var/store/tokens.mdb"};
enum User : uid_t { kRoot = 0, kAlice = 4001, kBob, kAny, kCarol };
constexpr const char* kRefused = "{'success':false}";
constexpr const char* kDone = "{'success':true}";
constexpr const char* kPermitted = "{'permitted':true,'success':true}";

inline std::vector<Cells> Rows(const std::string& section) {
  return Section("requests.txt", section);
}
inline std::string Lines(const std::string& section) {
  return SectionText("requests.txt", section);
}

inline std::string With(const std::string& value, const std::string& name,
                        const std::string& text) {
  return std::regex_replace(text, std::regex(name), value);
}

struct Worker {
  explicit Worker(bool audit = false)
      : store(kStore, board.slots[0]),
        handler(store, board, board.slots[0], {kInstalled, "9.8", audit}) {}

  std::string Ask(uid_t user, const std::string& request, pid_t process = getpid()) {
    return Requoted(handler.Answer(From(user, process), Requoted(request)));
  }
  std::string AskFor(const std::string& type, const std::string& token,
                     const std::string& payload = "null", uid_t user = kAlice,
                     pid_t process = getpid()) {
    const std::string members = "','service':'fastapi','token':'" + token + "','payload':";
    return Ask(user, "{'type':'" + type + members + payload + "}", process);
  }
  std::string Issue(uid_t user = kAlice, pid_t process = getpid(), const std::string& more = "") {
    const std::string payload = "[{'api':'A','method':'m'}]" + more;
    const std::string answer = AskFor("issue", "", payload, user, process);
    issued.push_back(Value(answer)["token"].asString());
    return issued.back();
  }
  // The text with the ids of the tokens that were issued, for "ID1" and so on.
  std::string WithIds(std::string text) const {
    for (std::size_t i = issued.size(); i-- > 0;) {
      const std::string id = std::to_string(IdOf(KeyOf(issued[i])));
      text = With(id, "ID" + std::to_string(i + 1), text);
    }
    return text;
  }
  std::string Validate(const std::string& token, uid_t user = kAlice, pid_t process = getpid()) {
    return AskFor("validate", token, "{'api':'A','method':'m','runner':'x'}", user, process);
  }

  std::vector<std::string> issued;
  Board board;
  IndexedStore store;
  RequestHandler handler;
};

// On a machine whose packages "notes" of alice and "mail" of bob are granted the same, and "any"
// nothing.
struct WorkerTest : PrivateFiles {
  void SetUp() override {
    PrivateFiles::SetUp();
    if (IsSkipped()) return;
    for (const Cells& row : Rows("files of packages")) WriteFile(row.at(0), row.at(1));
    lock.emplace(kStore);
    RebuildStore(kStore);
  }
  std::optional<StoreLock> lock;
};

}  // namespace ZELT::RequestsTests

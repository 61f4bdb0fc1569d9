// A store as one worker uses it.
#pragma once

#include <gmock/gmock.h>

#include <numeric>
#include <set>

#include "open_store.h"
#include "support/peers.h"
#include "support/testing.h"

namespace ZELT::StoreTests {

using testing::HasSubstr;
using testing::StartsWith;

constexpr uid_t kAlice = 4001;
constexpr const char* kPath = "/tmp/store/tokens.mdb";
const StoreOptions kOptions{.path = kPath};

/// A daemon of one worker, with what a token manager does with its store.
struct Daemon {
  explicit Daemon(const StoreOptions& store_options = kOptions) : options(store_options) {
    if (options.format == StoreFormat::kIndexed) RebuildStore(options);
    lock.LockRebuilt();
    opened = OpenStore(options, lock, slot);
  }

  std::string InChange(const Peer& peer, const std::function<void(TokenStore&)>& use) const {
    return Outcome([&] { opened.store->Change(peer, [&] { use(*opened.store); }); });
  }

  std::string Issue(const std::string& token, const Peer& peer = From(kAlice),
                    const std::string& payload = "[]",
                    std::optional<std::chrono::seconds> lifetime = {}) const {
    names[IdOf(KeyOf(token))] = token;
    const std::string service = token == "A" ? "printing" : "fastapi";
    const std::string data = "{'requester':'alice','service':'" + service +
                             "','pid':" + std::to_string(peer.credential.pid) +
                             ",'payload':" + payload + "}";
    return InChange(peer, [&](TokenStore& store) {
      if (lifetime) store.ExpireAfter(*lifetime);
      store.Insert(token, Value(data));
    });
  }

  std::string Revoke(const std::string& token, const Peer& peer = From(kAlice),
                     std::optional<pid_t> heir = {}) const {
    return InChange(peer, [&](TokenStore& store) {
      Json::Value data = store.GetAssociatedData(token);
      store.Remove(token);
      data["pid"] = heir.value_or(0);
      if (heir) store.Insert(token, data);
    });
  }
  std::string Transfer(const std::string& token, pid_t heir) const {
    return Revoke(token, From(kAlice), heir);
  }

  std::string Pid(const std::string& token) const {
    return Outcome([&] { return opened.store->GetAssociatedData(token)["pid"]; });
  }

  // The names of the tokens in a list.
  std::string List(const TokenFilter& filter = {}) const {
    std::set<std::string> listed;
    for (const TokenRow& row : opened.store->List(filter, 0).rows) listed.insert(names[row.id]);
    return std::accumulate(listed.begin(), listed.end(), std::string());
  }

  static inline std::map<std::uint64_t, std::string> names;
  StoreOptions options;
  StoreLock lock{options};
  WorkerSlot slot;
  OpenedStore opened;
};

}  // namespace ZELT::StoreTests

#include "queues.h"

#include <sys/resource.h>
#include <syslog.h>

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "log.h"

namespace {

// Descriptors reserved for the handler's files and the rest of the process.
constexpr rlim_t kReservedDescriptors = 32;

unsigned int WaitingLimit(unsigned int wanted) {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  const rlim_t spare =
      std::max(descriptors.rlim_cur, kReservedDescriptors + 1) - kReservedDescriptors;
  return static_cast<unsigned int>(std::min<rlim_t>(wanted, spare));
}

}  // namespace

Queues::Queues(const ServerLimits& server_limits)
    : limits(server_limits), max_waiting(WaitingLimit(server_limits.waiting)) {}

void Queues::Add(std::list<Connection>& accepted) {
  Connection& added = accepted.front();
  User& user = users[added.peer.credential.uid];
  user.id = added.peer.credential.uid;
  user.turns = &turns;
  added.user = &user;
  added.place = accepted.begin();
  user.connections.splice(user.connections.end(), accepted);
  ++total;
  MakeReady(added);
  if (user.connections.size() > limits.waiting_per_user) return RemoveOldest(user, added);
  if (total > max_waiting) RemoveOldest(BusiestUser(), added);
}

void Queues::MakeReady(Connection& connection) noexcept {
  User& user = *connection.user;
  if (!connection.is_linked()) user.ready.push_back(connection);
  if (!user.is_linked()) user.turns->push_back(user);
}

Connection* Queues::Next() {
  if (turns.empty()) return nullptr;
  User& user = turns.front();
  turns.pop_front();
  Connection& next = user.ready.front();
  user.ready.pop_front();
  if (!user.ready.empty()) turns.push_back(user);
  return &next;
}

void Queues::Account(Connection& connection) {
  User& user = *connection.user;
  const std::size_t held = connection.Held();
  user.bytes += held - std::exchange(connection.accounted, held);
  while (user.bytes > limits.bytes_per_user && user.connections.size() > 1) {
    RemoveOldest(user, connection);
  }
}

void Queues::Remove(Connection& connection) {
  User& user = *connection.user;
  user.bytes -= connection.accounted;
  user.connections.erase(connection.place);
  --total;
  if (user.ready.empty()) user.unlink();
  if (user.connections.empty()) users.erase(user.id);
}

void Queues::RemoveIncomplete() {
  std::vector<Connection*> incomplete;
  for (auto& [id, user] : users) {
    for (Connection& each : user.connections) {
      if (each.answer.empty() && !each.is_linked()) incomplete.push_back(&each);
    }
  }
  for (Connection* each : incomplete) Remove(*each);
}

// The oldest connection is closed, because those of honest clients wait only for a moment.
void Queues::RemoveOldest(User& user, const Connection& spared) {
  if (!std::exchange(user.logged, true)) {
    Log(LOG_WARNING,
        "user %u has %zu of %zu waiting connections with %zu bytes: closing the oldest", user.id,
        user.connections.size(), total, user.bytes);
  }
  const auto oldest = user.connections.begin();
  Remove(&*oldest == &spared ? *std::next(oldest) : *oldest);
}

// Among users with equally many connections, returns the one who has waited longest.
User& Queues::BusiestUser() {
  return std::max_element(users.begin(), users.end(),
                          [](const auto& a, const auto& b) {
                            const std::list<Connection>& ours = a.second.connections;
                            const std::list<Connection>& theirs = b.second.connections;
                            if (ours.size() != theirs.size()) return ours.size() < theirs.size();
                            return ours.front().deadline > theirs.front().deadline;
                          })
      ->second;
}

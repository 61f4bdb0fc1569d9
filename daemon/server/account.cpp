#include "account.h"

#include <sys/resource.h>
#include <syslog.h>

#include <algorithm>
#include <string>

#include "log.h"

namespace {

// Descriptors for the store and the rest of the process.
constexpr rlim_t kReservedDescriptors = 32;

// Returns how many connections the limit on descriptors allows.
std::size_t RaiseDescriptorLimit() {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  const rlimit raised{.rlim_cur = descriptors.rlim_max, .rlim_max = descriptors.rlim_max};
  if (setrlimit(RLIMIT_NOFILE, &raised) == 0) descriptors = raised;
  return std::max(descriptors.rlim_cur, kReservedDescriptors + 1) - kReservedDescriptors;
}

std::string NameOf(const Account& account) {
  return account.person == kSomebody ? "unknown users" : "user " + std::to_string(account.person);
}

void LogSecond(Account& account) {
  if (const auto held_back = account.lines.Renew(); held_back != 0) {
    Log(LOG_NOTICE, "%u more refusals of %s were not logged", held_back, NameOf(account).c_str());
  }
  if (const auto given_up = std::exchange(account.given_up, 0); given_up != 0) {
    Log(LOG_WARNING, "closed %u connections of %s, which keeps %zu with %zu bytes waiting",
        given_up, NameOf(account).c_str(), account.waiting.size(), account.used.bytes);
  }
}

}  // namespace

void Turns::Join(Account& account) {
  if (account.is_linked()) return;
  if (!accounts.empty()) least = accounts.begin()->spent;
  account.spent = std::max(account.spent, least);
  accounts.insert(account);
}

Account& Turns::Take() {
  Account& next = *accounts.begin();
  accounts.erase(accounts.begin());
  return next;
}

void Turns::PutBack(Account& account, std::chrono::nanoseconds time) {
  account.spent += time;
  if (accounts.empty()) least = account.spent;
  if (!account.ready.empty()) accounts.insert(account);
}

Accounts::Accounts(const ServerLimits& server_limits, LineTotal& all_lines)
    : limits(server_limits),
      most_connections(std::min(limits.worker.connections, RaiseDescriptorLimit())),
      lines(all_lines) {}

void Accounts::Add(ClientSocket socket, Peer peer) {
  const uid_t person = people.PersonOf(peer.credential.uid);
  Account& account = accounts.try_emplace(person, person, lines, turns).first->second;
  peer.lines = &account.lines;
  account.ready.emplace_back(std::move(socket), peer, account, total);
  Connection& added = account.ready.back();
  added.place = std::prev(account.ready.end());
  turns.Join(account);
}

Connection& Accounts::Next() {
  served = &turns.Take();
  return served->ready.front();
}

void Accounts::EndTurn(std::chrono::nanoseconds time) { turns.PutBack(*served, time); }

void Accounts::AwaitClient(Connection& connection) {
  Account& account = connection.account;
  account.waiting.splice(account.waiting.end(), account.ready, connection.place);
  connection.waiting = true;
  const Usage& most = limits.account;
  while (account.waiting.size() > most.connections || account.used.bytes > most.bytes) {
    if (!GiveUpOldest(account)) break;
  }
  while (total.bytes > limits.worker.bytes && GiveUpOne(&Usage::bytes)) {
  }
}

void Accounts::Remove(Connection& connection) {
  Account& account = connection.account;
  (connection.waiting ? account.waiting : account.ready).erase(connection.place);
}

void Accounts::RemoveIncomplete() {
  for (auto& [person, account] : accounts) {
    account.waiting.remove_if([](const Connection& each) { return each.answer.empty(); });
  }
}

void Accounts::EverySecond() {
  people.EverySecond();
  for (auto& [person, account] : accounts) LogSecond(account);
  std::erase_if(accounts, [](const auto& each) { return each.second.used.connections == 0; });
}

std::size_t Accounts::Waiting() const {
  std::size_t waiting = 0;
  for (const auto& [person, account] : accounts) waiting += account.waiting.size();
  return waiting;
}

// Returns false if the account that holds the most has nothing to give up.
bool Accounts::GiveUpOne(std::size_t Usage::*what) {
  const auto most = std::max_element(
      accounts.begin(), accounts.end(),
      [what](const auto& a, const auto& b) { return a.second.used.*what < b.second.used.*what; });
  return GiveUpOldest(most->second);
}

bool Accounts::GiveUpOldest(Account& account) {
  if (account.waiting.empty()) return false;
  account.waiting.pop_front();
  ++account.given_up;
  return true;
}

#include "account.h"

#include <syslog.h>

#include <algorithm>
#include <string>

#include "log.h"

namespace {

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

bool GiveUpOldest(Account& account) {
  if (account.waiting.empty()) return false;
  account.waiting.pop_front();
  ++account.given_up;
  return true;
}

}  // namespace

Account& Accounts::Add(ClientSocket socket, Peer peer) {
  const uid_t person = people.PersonOf(peer.credential.uid);
  Account& account = accounts.try_emplace(person, person, lines, *this).first->second;
  peer.lines = &account.lines;
  Connection& added = account.ready.emplace_back(std::move(socket), peer, account);
  added.place = std::prev(account.ready.end());
  return account;
}

void Accounts::Charge(Account& account, std::chrono::nanoseconds time) {
  if (account.is_linked()) turns.erase(turns.iterator_to(account));
  account.spent = std::max(account.spent, least) + time;
  if (!account.ready.empty()) turns.insert(account);
  least = turns.empty() ? account.spent : turns.begin()->spent;
}

void Accounts::AwaitClient(Connection& connection) {
  Account& account = connection.account;
  account.waiting.splice(account.waiting.end(), account.ready, connection.place);
  connection.waiting = true;
  const Usage& most = limits.account;
  while (account.waiting.size() > most.connections || account.used.bytes > most.bytes) {
    if (!GiveUpOldest(account)) return;
  }
}

void Accounts::Remove(Connection& connection) {
  Account& account = connection.account;
  (connection.waiting ? account.waiting : account.ready).erase(connection.place);
}

std::size_t Accounts::EverySecond() {
  std::size_t waiting = 0;
  people.EverySecond();
  for (auto& [person, account] : accounts) {
    LogSecond(account);
    waiting += account.waiting.size();
  }
  lines.lost += ReportLostLines();
  std::erase_if(accounts, [](const auto& each) { return each.second.used.connections == 0; });
  return waiting;
}

bool Accounts::MakeRoom() {
  while (total.bytes > limits.worker.bytes && GiveUpOne(&Usage::bytes)) {
  }
  while (total.connections > limits.worker.connections && GiveUpOne(&Usage::connections)) {
  }
  return total.connections <= limits.worker.connections;
}

// Returns false if the account that holds the most has nothing to give up.
bool Accounts::GiveUpOne(std::size_t Usage::*what) {
  const auto most = std::max_element(
      accounts.begin(), accounts.end(),
      [what](const auto& a, const auto& b) { return a.second.used.*what < b.second.used.*what; });
  return GiveUpOldest(most->second);
}

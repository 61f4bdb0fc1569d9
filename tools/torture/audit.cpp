#include "audit.h"

#include <json/value.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "board.h"
#include "daemon.h"
#include "json_text.h"
#include "zelttokenmanager/token_storage.h"

namespace ZELT::Torture {
namespace {

constexpr std::size_t kShortestToken = 32;
constexpr const char* kTokenCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

struct Seen {
  State state;
  pid_t owner;
};

std::vector<Seen> LookAtBoard() {
  Board& board = TheBoard();
  std::vector<Seen> seen(board.record_count);
  for (std::size_t i = 0; i < seen.size(); ++i) {
    const Record& record = board.records[i];
    seen[i] = {record.state, record.owner};
  }
  return seen;
}

void CheckRecord(const Record& record, const Seen& before, const int* owner_in_store) {
  const bool live = before.state == State::kLive && record.state == State::kLive;
  const std::string number = std::to_string(&record - TheBoard().records.data());
  if (live && owner_in_store == nullptr) Wrong("a live token is not in the store: " + number);
  if (before.state == State::kDead && owner_in_store != nullptr) {
    Wrong("a revoked token is in the store: " + number);
  }
  if (!live || owner_in_store == nullptr || before.owner == kMoving) return;
  if (record.owner == before.owner && *owner_in_store != before.owner) {
    Wrong("a token has another owner in the store: " + number);
  }
}

}  // namespace

std::unordered_map<std::string, int> ReadStore() {
  std::ifstream file(kStore, std::ios::binary);
  std::unordered_map<std::string, int> owners;
  for (std::string line; std::getline(file, line);) {
    const std::size_t space = line.find(' ');
    Json::Value data;
    // Lines that are no records are passed over: torn ones, and those that the torture wrote.
    if (space == std::string::npos || !TokenManager::fromString(line.substr(space + 1), data) ||
        !data.isObject()) {
      continue;
    }
    if (!owners.emplace(line.substr(0, space), data["pid"].asInt()).second) {
      Wrong("a token has two records");
    }
  }
  return owners;
}

void Auditor::CheckStore() {
  const auto before = LookAtBoard();
  std::unordered_map<std::string, int> owners;
  {
    const TokenManager::FileLock between_changes(std::string(kStore) + ".workers", false);
    owners = ReadStore();
  }
  for (std::size_t i = 0; i < before.size(); ++i) {
    const Record& record = TheBoard().records[i];
    const auto found = owners.find(record.text.data());
    CheckRecord(record, before[i], found == owners.end() ? nullptr : &found->second);
  }
}

void Auditor::CheckAnswers(std::uint32_t count) {
  std::vector<std::uint32_t> live;
  std::vector<std::uint32_t> dead;
  const auto seen = LookAtBoard();
  for (std::uint32_t i = 0; i < seen.size(); ++i) {
    if (seen[i].state == State::kLive) live.push_back(i);
    if (seen[i].state == State::kDead) dead.push_back(i);
  }
  for (auto* chosen : {&live, &dead}) {
    std::shuffle(chosen->begin(), chosen->end(), Random());
    if (chosen->size() > count) chosen->resize(count);
    for (const std::uint32_t number : *chosen) Check(TheBoard().records[number]);
  }
}

void Auditor::Learn() {
  for (const std::uint32_t count = TheBoard().record_count; learnt < count; ++learnt) {
    numbers.emplace(TheBoard().records[learnt].text.data(), learnt);
  }
}

void Auditor::CheckLog() {
  std::ostringstream whole;
  whole << std::ifstream(kDaemonLog).rdbuf();
  const std::string log = whole.str();
  std::filesystem::resize_file(kDaemonLog, 0);
  Learn();
  for (std::size_t end = 0, begin = 0; begin < log.size(); begin = end) {
    begin = log.find_first_of(kTokenCharacters, end);
    if (begin == std::string::npos) return;
    end = std::min(log.find_first_not_of(kTokenCharacters, begin), log.size());
    if (end - begin < kShortestToken) continue;
    if (numbers.count(log.substr(begin, end - begin)) != 0) Wrong("a token stands in the log");
  }
}

unsigned int Auditor::ForgiveDamage() {
  const auto owners = ReadStore();
  unsigned int forgiven = 0;
  for (std::uint32_t i = 0; i < TheBoard().record_count; ++i) {
    Record& record = TheBoard().records[i];
    if (record.state != State::kLive || owners.count(record.text.data()) != 0) continue;
    record.state = State::kAsked;
    ++forgiven;
  }
  return forgiven;
}

}  // namespace ZELT::Torture

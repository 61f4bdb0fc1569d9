// Clients of the daemon that issue, validate, transfer and revoke tokens all the while, and note on
// a board in shared memory what they were told. Later answers must agree with it, whatever happens
// to the daemon.
#pragma once

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <random>

#include "support/programs.h"

namespace ZELT::Clients {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kClients = 12;
constexpr std::array<uid_t, 5> kUsers = {4001, 4002, 4003, 4004, 0};
constexpr std::uint32_t kSlots = 384, kManySlots = 60000;
constexpr unsigned int kPause = 2000;  // of a client between two requests, on average, in µs

// A token, and what was asked of it. Only its owner changes it.
enum class State { kUnknown, kLive, kDead };
struct Record {
  std::array<char, 80> token;
  std::atomic<State> state;
  std::atomic<pid_t> owner;
};

enum class Mode { kUsual, kHoard, kDrain };  // kHoard: mostly issue; kDrain: do not issue
enum Counter { kAnswered, kUnanswered, kLost, kHonoured, kTwoOwners, kWrong, kRevoked };

// What all processes see. Each phase begins with zeros.
struct Board {
  std::array<Record, 2U << 20> records;  // the first one is no token
  std::atomic<std::uint32_t> count;
  std::array<std::atomic<std::uint32_t>, kManySlots> slots;  // the records that clients work on
  std::atomic<std::uint32_t> slot_count;
  std::array<std::atomic<pid_t>, kClients> clients;
  std::atomic<Mode> mode;
  std::atomic<unsigned int> pause;
  std::atomic<bool> cut;  // the daemon lacks something: a refusal means nothing
  std::array<std::atomic<std::uint64_t>, kRevoked + 1> counts;
  std::atomic<Clock::rep> answered_at, gap;  // the longest time without any answer, in ns
};
inline Board* const board =
    static_cast<Board*>(mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE,
                             MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));

inline std::mt19937 random_numbers(std::random_device{}());

inline std::uint32_t Below(std::size_t limit) {
  return static_cast<std::uint32_t>(random_numbers() % limit);
}

inline void Pause(unsigned int microseconds) {
  std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

enum class Answer { kYes, kNo, kNone };

inline Answer Send(const char* type, const Record& record, const std::string& payload = "null",
                   std::string* answer = nullptr) {
  const bool cut = board->cut;
  const std::string text = Ask(type, record.token.data(), payload);
  if (text == "none") return ++board->counts[kUnanswered], Answer::kNone;
  ++board->counts[kAnswered];
  const Clock::rep now = Clock::now().time_since_epoch().count();
  const Clock::rep before = board->answered_at.exchange(now);
  if (before != 0 && now - before > board->gap) board->gap = now - before;
  if (answer != nullptr) *answer = text;
  if (text == kPermitted || text.starts_with("{'success':true")) return Answer::kYes;
  return cut || board->cut ? Answer::kNone : Answer::kNo;
}

// Validates a token, whose state may change meanwhile.
inline void CheckToken(const Record& record) {
  const State before = record.state;
  const Answer answer = Send("validate", record, kRun);
  if (answer == Answer::kNo && before == State::kLive && record.state == State::kLive) {
    ++board->counts[kLost];
  }
  if (answer == Answer::kYes && before == State::kDead) ++board->counts[kHonoured];
}

// A revocation that is not answered leaves a token that nobody owns and of which nothing is known.
inline void Revoke(Record& record) {
  record.state = State::kUnknown;
  const Answer answer = Send("revoke", record);
  if (answer != Answer::kNone) ++board->counts[answer == Answer::kYes ? kRevoked : kWrong];
  if (answer == Answer::kYes) record.state = State::kDead;
  if (answer != Answer::kYes) record.owner = 0;
  CheckToken(record);
}

// A transfer that is not answered leaves a token that is valid, whoever owns it.
inline void Transfer(Record& record, const std::atomic<pid_t>& client) {
  const bool must_work = board->mode == Mode::kUsual;
  const pid_t heir = client;
  const Answer answer = Send("transfer", record, std::to_string(heir));
  if (answer == Answer::kNo && must_work && heir != 0 && client == heir) ++board->counts[kWrong];
  const bool tries = answer == Answer::kYes && Below(4) == 0;  // what it may no longer do
  if (tries && Send("revoke", record) == Answer::kYes) ++board->counts[kTwoOwners];
  if (answer != Answer::kNo) record.owner = answer == Answer::kYes ? heir : 0;
}

// Returns the number of a new record, or 0.
inline std::uint32_t IssueNew() {
  std::string text;
  const Answer answer = Send("issue", board->records[0], kGet, &text);
  if (answer == Answer::kNo && board->mode == Mode::kUsual) ++board->counts[kWrong];
  if (answer != Answer::kYes) return 0;
  const std::uint32_t number = ++board->count;
  Record& record = board->records.at(number);
  Value(text)["token"].asString().copy(record.token.data(), record.token.size() - 1);
  record.owner = getpid();
  record.state = State::kLive;
  return number;
}

// Looks for a slot in which there is something to do for client `self`.
inline void Act(std::size_t self) {
  const auto& clients = board->clients;
  for (int tries = 0; tries < 8; ++tries) {
    std::atomic<std::uint32_t>& slot = board->slots.at(Below(board->slot_count));
    std::uint32_t number = slot;
    Record& record = board->records.at(number);
    const bool owned = std::count(clients.begin(), clients.end(), record.owner.load()) != 0;
    const bool free = number == 0 || record.state == State::kDead || !owned;
    if (free && board->mode != Mode::kDrain) {
      const std::uint32_t issued = IssueNew();
      const bool kept = issued == 0 || slot.compare_exchange_strong(number, issued);
      return kept ? void() : Revoke(board->records.at(issued));
    }
    if (free || record.owner != getpid()) continue;
    if (board->mode == Mode::kHoard && Below(16) != 0) continue;
    const std::size_t next = (self + 1 + Below(kClients - 1)) % kClients;
    return Below(5) < 2 ? Transfer(record, clients.at(next)) : Revoke(record);
  }
}

[[noreturn]] inline void Live(std::size_t self) {
  random_numbers.seed(std::random_device{}());  // not those of the process that forked this one
  for (board->clients.at(self) = getpid();; Pause(Below(2 * board->pause + 1))) {
    Act(self);
    CheckToken(board->records.at(Below(board->count + 1)));
  }
}

/// Empties the board, and grants the clients what they ask for.
inline void Prepare() {
  Check(madvise(board, sizeof(Board), MADV_REMOVE), "madvise");
  board->slot_count = kSlots;
  board->pause = kPause;
  for (const char* user : {"alice", "bob", "any", "carol", "root"}) {
    WriteFile(std::string("/var/packages/") + user, "");
    WriteFile(std::string("/etc/zelttokenmgr/installed/") + user,
              Requoted("{'fastapi':[{'api':'Demo.Item','method':'get','runner':'any'}]}"));
  }
}

inline void SignalClients(int signal) {
  for (const pid_t client : board->clients) client != 0 ? kill(client, signal) : 0;
}
inline void EndClients() {
  for (const pid_t client : board->clients) client != 0 ? EndProcess(client) : 0;
}
inline void StartClients() {
  for (std::size_t number = 0; number < kClients; ++number) {
    Start([number]() -> int { Live(number); }, kUsers.at(number % kUsers.size()));
    EXPECT_EVENTUALLY(board->clients.at(number) != 0);
  }
}

// Validates some of the tokens that clients work on, and the newest.
inline void Audit(std::uint32_t size) {
  const std::uint32_t count = board->count;
  for (std::uint32_t i = 0; i < size; ++i) {
    CheckToken(board->records.at(board->slots.at(Below(kSlots))));
    CheckToken(board->records.at(count - std::min(i, count)));
  }
}

}  // namespace ZELT::Clients

#include "client.h"

#include <json/value.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <exception>
#include <iostream>
#include <system_error>
#include <utility>
#include <vector>

#include "board.h"
#include "zelttokenmanager/utils.h"

namespace ZELT::Torture {
namespace {

constexpr uid_t kFirstUser = 4001;  // alice; bob and carol follow
constexpr uid_t kUsers = 3;
constexpr std::size_t kFewTokens = 4;
constexpr std::size_t kManyTokens = 20;
constexpr std::uint32_t kNewest = 64;

const char* ServiceOf(const Record& record) { return record.task ? "taskmanager" : "fastapi"; }

Json::Value WantedApi() {
  Json::Value payload;
  payload[0]["api"] = "files";
  payload[0]["method"] = "list";
  return payload;
}

Json::Value WantedTasks() {
  Json::Value payload;
  payload["action"] = "issue";
  payload["args"][0]["prefix"] = "backup-";
  return payload;
}

Answer Revoke(const Record& record) {
  return Ask(
      [&] { return TokenManager::SendRevokeRequest(ServiceOf(record), record.text.data()); });
}

// Returns a new token, or nothing.
std::string Issue(bool task) {
  static const Json::Value wanted_api = WantedApi();
  static const Json::Value wanted_tasks = WantedTasks();
  std::string token;
  const Answer answer = Ask([&] {
    token = task ? TokenManager::SendIssueRequest("taskmanager", wanted_tasks)
                 : TokenManager::SendIssueRequest("fastapi", wanted_api);
    return true;
  });
  if (answer == Answer::kNo && !TheBoard().refusals_allowed) Wrong("an issue was refused");
  return token;
}

class Client {
 public:
  explicit Client(std::size_t number) : seat_number(number), seat(TheBoard().seats[number]) {}

  void Live() {
    for (;;) {
      RestIfAsked(seat);
      TakeGifts();
      Act();
      Pause(Below(2 * TheBoard().pause_us));
    }
  }

 private:
  using Number = std::uint32_t;

  void TakeGifts() {
    Number number = 0;
    while (read(seat.gifts[0], &number, sizeof number) == sizeof number) {
      const Record& record = TheBoard().records[number];
      // Those that were meant for a client who sat here before stay without a living owner.
      if (record.owner == getpid()) owned.push_back(number);
      if (record.owner == kMoving) unsure.push_back(number);
    }
  }

  void Act() {
    const unsigned int dice = Below(100);
    if (!unsure.empty() && dice < 50) return Settle(TakeFrom(unsure));
    if (owned.size() < kFewTokens || (dice < 25 && owned.size() < kManyTokens)) return IssueOne();
    if (dice < 60) return Check(TheBoard().records[owned[Below(Size())]]);
    const Number number = TakeFrom(owned);
    if (TheBoard().records[number].state != State::kLive) return;  // cut out of the store
    dice < 80 ? RevokeOne(number) : TransferOne(number);
  }

  void IssueOne() {
    const bool task = Below(2) == 0;
    const std::string token = Issue(task);
    if (!token.empty()) owned.push_back(Enter(token, task, getpid()));
  }

  void RevokeOne(Number number) {
    Record& record = TheBoard().records[number];
    record.state = State::kAsked;
    if (Revoke(record) != Answer::kYes) return unsure.push_back(number);
    record.state = State::kDead;
    for (int i = 0; i < 3; ++i) Check(record);
  }

  void TransferOne(Number number) {
    Record& record = TheBoard().records[number];
    const std::size_t heir = (seat_number + 1 + Below(kSeats - 1)) % kSeats;
    const pid_t new_owner = TheBoard().seats[heir].pid;
    record.heir = static_cast<std::uint8_t>(heir);
    record.owner = kMoving;
    const Answer answer = Ask([&] {
      return TokenManager::SendTransferRequest(ServiceOf(record), record.text.data(), new_owner);
    });
    if (answer == Answer::kNone) return unsure.push_back(number);
    record.owner = answer == Answer::kYes ? new_owner : getpid();
    if (answer == Answer::kNo) return owned.push_back(number);
    // As for the old owner, from now on it is somebody else's.
    if (Below(4) == 0 && TheBoard().records[number].owner == new_owner && RevokesForeign(record)) {
      return;
    }
    Give(heir, number);
  }

  bool RevokesForeign(const Record& record) {
    if (Revoke(record) != Answer::kYes) return false;
    Wrong("a token had two owners");
    return true;
  }

  // Finds out who owns a token after a change of it was not answered or was refused.
  void Settle(Number number) {
    Record& record = TheBoard().records[number];
    record.state = State::kAsked;
    const Answer answer = Revoke(record);
    if (answer == Answer::kNone) return unsure.push_back(number);
    const Answer valid = answer == Answer::kYes ? Answer::kNo : Validate(record);
    if (valid == Answer::kNone) return unsure.push_back(number);
    if (valid == Answer::kNo) {
      record.state = State::kDead;
    } else if (TheBoard().refusals_allowed) {
      unsure.push_back(number);
    } else if (record.owner == kMoving && record.heir != seat_number) {
      Give(record.heir, number);
    } else {
      ReportForeign(record);
    }
  }

  // An heir who was killed leaves a token that nobody can revoke.
  void ReportForeign(const Record& record) {
    if (record.owner == getpid()) Wrong("a token's owner was refused");
  }

  void Give(std::size_t heir, Number number) {
    const ssize_t written = write(TheBoard().seats[heir].gifts[1], &number, sizeof number);
    if (written != sizeof number) std::cerr << "a gift was lost\n";
  }

  unsigned int Size() const { return static_cast<unsigned int>(owned.size()); }

  static Number TakeFrom(std::vector<Number>& numbers) {
    std::swap(numbers[Below(static_cast<unsigned int>(numbers.size()))], numbers.back());
    const Number taken = numbers.back();
    numbers.pop_back();
    return taken;
  }

  std::size_t seat_number;
  Seat& seat;
  std::vector<Number> owned;
  std::vector<Number> unsure;
};

// Validates tokens of all clients, mostly the newest ones, while their owners revoke them.
void Audit(Seat& seat) {
  Board& board = TheBoard();
  for (;;) {
    RestIfAsked(seat);
    const std::uint32_t count = board.record_count;
    const std::uint32_t reach = Below(2) == 0 ? std::min(count, kNewest) : count;
    Check(board.records[count - 1 - Below(reach)]);
    Pause(Below(2 * board.pause_us));
  }
}

// Validates one token of its own at a steady pace and notes how long each answer takes.
void Measure(Seat& seat) {
  Board& board = TheBoard();
  const Record& record = board.records[Enter(Issue(false), false, getpid())];
  for (;;) {
    RestIfAsked(seat);
    const auto begin = std::chrono::steady_clock::now();
    Check(record);
    const auto took = std::chrono::steady_clock::now() - begin;
    const std::uint32_t sample = board.sample_count++;
    board.samples_us[sample % kMaxSamples] = static_cast<std::uint32_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(took).count());
    Pause(2000);
  }
}

void Sit(std::size_t seat, const std::function<void()>& work) {
  const uid_t user = kFirstUser + static_cast<uid_t>(seat) % kUsers;
  TheBoard().seats[seat].resting = false;
  TheBoard().seats[seat].pid = Fork(user, work);
}

}  // namespace

pid_t Fork(uid_t uid, const std::function<void()>& work) {
  const pid_t pid = fork();
  if (pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (pid != 0) return pid;
  try {
    if (setgid(uid) != 0 || setuid(uid) != 0) throw std::runtime_error("cannot change the user");
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    work();
  } catch (const std::exception& error) {
    Wrong(error.what());
  }
  _exit(1);
}

void SeatClient(std::size_t seat) {
  Sit(seat, [seat] { Client(seat).Live(); });
}

void SeatWatchers() {
  for (std::size_t seat = kSeats + 1; seat < kSeats + kWatchers; ++seat) {
    Sit(seat, [seat] { Audit(TheBoard().seats[seat]); });
  }
  Sit(kSeats, [] { Measure(TheBoard().seats[kSeats]); });
}

}  // namespace ZELT::Torture

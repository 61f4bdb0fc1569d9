#include "board.h"

#include <json/value.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <system_error>

#include "zelttokenmanager/utils.h"

namespace ZELT::Torture {
namespace {

using Clock = std::chrono::steady_clock;

Json::Value ApiCall() {
  Json::Value payload;
  payload["api"] = "files";
  payload["method"] = "list";
  payload["runner"] = "whoever";
  return payload;
}

Json::Value TaskRead() {
  Json::Value payload;
  payload["action"] = "read";
  payload["args"]["task"] = "backup-1";
  payload["args"]["owner"] = "whoever";
  return payload;
}

void Raise(std::atomic<std::uint64_t>& highest, std::uint64_t value) {
  std::uint64_t seen = highest;
  while (seen < value && !highest.compare_exchange_weak(seen, value)) {
  }
}

// What the library throws says how far the exchange came.
Answer Classify(const std::string& error) {
  const bool refused = error.starts_with("utils.cpp:89 ") || error.starts_with("utils.cpp:108 ");
  if (refused) return Answer::kNo;
  ++(error.starts_with("utils.cpp:62 ") ? TheBoard().unreached : TheBoard().unanswered);
  return Answer::kNone;
}

}  // namespace

Board& TheBoard() {
  static Board* const board = [] {
    void* memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
    return static_cast<Board*>(memory);  // all zeros is where every member begins
  }();
  return *board;
}

void Wrong(const std::string& what) {
  ++TheBoard().wrong;
  std::cerr << "WRONG: " + what + "\n";
}

void ResetCounters() {
  Board& board = TheBoard();
  for (auto* counter : {&board.answered, &board.refused, &board.unanswered, &board.unreached,
                        &board.neighbours, &board.longest_us}) {
    *counter = 0;
  }
  board.sample_count = 0;
}

std::uint32_t Enter(const std::string& token, bool task, pid_t owner) {
  Board& board = TheBoard();
  const std::uint32_t number = board.record_count++;
  if (number >= kMaxRecords) throw std::runtime_error("too many tokens for the board");
  Record& record = board.records[number];
  token.copy(record.text.data(), record.text.size() - 1);
  record.task = task;
  record.owner = owner;
  record.state = State::kLive;
  return number;
}

Answer Ask(const std::function<bool()>& call) {
  Board& board = TheBoard();
  const auto begin = Clock::now();
  Answer answer{};
  try {
    answer = call() ? Answer::kYes : Answer::kNo;
  } catch (const std::runtime_error& error) {
    answer = Classify(error.what());
  }
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin);
  Raise(board.longest_us, static_cast<std::uint64_t>(took.count()));
  if (answer != Answer::kNone) ++board.answered;
  if (answer == Answer::kNo) ++board.refused;
  return answer;
}

Answer Validate(const Record& record) {
  static const Json::Value api_call = ApiCall();
  static const Json::Value task_read = TaskRead();
  return Ask([&] {
    return record.task
               ? TokenManager::SendValidateRequest("taskmanager", record.text.data(), task_read)
               : TokenManager::SendValidateRequest("fastapi", record.text.data(), api_call);
  });
}

void Check(const Record& record) {
  const State before = record.state;
  const Answer answer = Validate(record);
  if (answer == Answer::kNone) return;
  if (before == State::kDead && answer == Answer::kYes) Wrong("a revoked token was honoured");
  if (before == State::kLive && answer == Answer::kNo && record.state == State::kLive) {
    Wrong("a live token was refused: " + std::to_string(&record - TheBoard().records.data()));
  }
}

void RestIfAsked(Seat& seat) {
  while (TheBoard().rest) {
    seat.resting = true;
    Pause(500);
  }
  seat.resting = false;
}

Rest::Rest() {
  Board& board = TheBoard();
  for (Seat& seat : board.seats) seat.resting = false;  // of an earlier rest
  board.rest = true;
  for (const Seat& seat : board.seats) {
    while (!seat.resting && seat.pid != 0) Pause(500);
  }
}

Rest::~Rest() { TheBoard().rest = false; }

std::mt19937& Random() {
  // Forked processes must not all draw the same numbers.
  static std::mt19937 generator;
  static pid_t seeded = 0;
  if (seeded != getpid()) generator.seed(std::random_device{}());
  seeded = getpid();
  return generator;
}

unsigned int Below(unsigned int limit) {
  return std::uniform_int_distribution<unsigned int>(0, std::max(limit, 1U) - 1)(Random());
}

void Pause(unsigned int microseconds) {
  if (microseconds != 0) usleep(microseconds);
}

}  // namespace ZELT::Torture

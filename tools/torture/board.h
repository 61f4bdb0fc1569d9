// What all processes of the torture see: every token with what was asked of it, and the counters.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <random>
#include <string>

namespace ZELT::Torture {

constexpr std::uint32_t kMaxRecords = 4U << 20;
constexpr std::size_t kSeats = 12;    ///< of clients
constexpr std::size_t kWatchers = 3;  ///< who validate and own nothing that others see
constexpr std::uint32_t kMaxSamples = 1U << 20;
constexpr pid_t kMoving = -1;  ///< the owner of a token while a transfer of it is under way

enum class State : std::uint8_t {
  kUnused,
  kLive,   ///< its issue was answered: it validates
  kAsked,  ///< its revocation was asked and not answered, or the torture cut it out: no promise
  kDead,   ///< its revocation was answered: it never validates
};

/// A token that was answered. Only its owner's process changes it, save when all rest.
struct Record {
  std::array<char, 65> text;
  bool task;          ///< of the service taskmanager, not fastapi
  std::uint8_t heir;  ///< the seat to which it goes, or went last
  std::atomic<State> state;
  std::atomic<pid_t> owner;
};

/// The place of one process. When a client is killed, another takes the seat.
struct Seat {
  std::atomic<pid_t> pid;
  std::atomic<bool> resting;
  std::array<int, 2> gifts;  ///< a pipe of record numbers: tokens transferred to this client
};

struct Board {
  std::array<Record, kMaxRecords> records;
  std::atomic<std::uint32_t> record_count;
  std::array<Seat, kSeats + kWatchers> seats;  ///< of the clients, then of the watchers

  std::atomic<bool> rest;              ///< clients and auditors finish what they do, and wait
  std::atomic<bool> refusals_allowed;  ///< changes may be refused: the disk is full, say
  std::atomic<unsigned int> pause_us;  ///< between two requests of one client, on average

  std::atomic<std::uint64_t> answered, refused, unanswered, unreached, wrong, neighbours;
  std::atomic<std::uint64_t> longest_us;
  std::atomic<std::uint32_t> sample_count;
  std::array<std::atomic<std::uint32_t>, kMaxSamples> samples_us;  ///< of the honest client alone
};

/// In memory that all forked processes share.
Board& TheBoard();

/// Counts one breach of what is promised, and says which.
void Wrong(const std::string& what);

/// Empties the counters, the longest stall and the samples. `wrong` is kept.
void ResetCounters();

/// Enters a token as live and returns its number.
std::uint32_t Enter(const std::string& token, bool task, pid_t owner);

enum class Answer { kYes, kNo, kNone };

/// Runs a call of the client library, counts it and times it. A refusal is `kNo`; `kNone` is no
/// answer at all.
Answer Ask(const std::function<bool()>& call);

/// Asks whether a token permits what every token here does.
Answer Validate(const Record& record);

/// Validates a token and checks the answer against what was known all along.
void Check(const Record& record);

/// Waits while all are to rest. To be called by the process of the seat between two requests.
void RestIfAsked(Seat& seat);

/// Holds everybody back for its lifetime.
class Rest {
 public:
  Rest();
  ~Rest();
  Rest(const Rest&) = delete;
  Rest& operator=(const Rest&) = delete;
};

std::mt19937& Random();
unsigned int Below(unsigned int limit);
void Pause(unsigned int microseconds);

}  // namespace ZELT::Torture

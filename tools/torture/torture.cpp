// Tortures a real daemon and checks that it keeps its promises. To be run by scripts/torture, which
// makes the private file system, the users and the packages that are taken for granted here.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "attacks.h"
#include "board.h"
#include "client.h"
#include "neighbour.h"

namespace ZELT::Torture {
namespace {

constexpr unsigned int kFillers = 1000;     // records that make changes of the store take a while
constexpr unsigned int kThinkingUs = 2000;  // of a client between two requests
constexpr std::uint64_t kNoLimit = ~std::uint64_t{0};

struct Arguments {
  std::string daemon;
  double seconds = 600;
  unsigned int workers = 2;
  std::string only;  // the one phase to run
};

struct Phase {
  const char* name;
  double share;            // of all the time
  unsigned int limit;      // how often at most
  std::uint64_t silences;  // requests that may stay unanswered each time
  bool unreachable;        // the daemon may be away
  std::function<unsigned int(Seconds, unsigned int)> run;
};

Arguments ParseArguments(int argc, char** argv) {
  Arguments arguments;
  if (argc % 2 != 0) throw std::runtime_error("usage: zelttorture DAEMON [--OPTION VALUE]...");
  arguments.daemon = argv[1];
  for (int i = 2; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    if (option == "--seconds")
      arguments.seconds = std::stod(argv[i + 1]);
    else if (option == "--workers")
      arguments.workers = std::stoul(argv[i + 1]) & 0xff;
    else if (option == "--only")
      arguments.only = argv[i + 1];
    else
      throw std::runtime_error("unknown option " + option);
  }
  return arguments;
}

void FillStore() {
  std::ofstream store(kStore, std::ios::binary);
  for (unsigned int i = 0; i < kFillers; ++i) {
    std::string token = "a-token-from-long-ago-" + std::to_string(1000000000 + i);
    store << token
          << R"( {"service":"fastapi","requester":"alice","pid":1,"created_at":1,"payload":)"
          << R"([{"api":"files","method":"list","runner":"any"}]})" << '\n';
    Enter(token, false, 1);
  }
}

void StartLoad() {
  Board& board = TheBoard();
  board.pause_us = kThinkingUs;
  for (Seat& seat : board.seats) {
    if (pipe2(seat.gifts.data(), O_NONBLOCK | O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  }
  for (std::size_t seat = 0; seat < kSeats; ++seat) SeatClient(seat);
  SeatWatchers();
}

double Milliseconds(long microseconds) { return static_cast<double>(microseconds) / 1000; }

// The value below which `share` of them lie; 0 when there are none.
long Quantile(std::vector<long> values, double share) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const auto place = static_cast<std::size_t>(share * static_cast<double>(values.size()));
  return values[std::min(place, values.size() - 1)];
}

std::vector<long> Samples() {
  Board& board = TheBoard();
  const std::uint32_t count = std::min(board.sample_count.load(), kMaxSamples);
  return {board.samples_us.begin(), board.samples_us.begin() + count};
}

void PrintHead() {
  std::printf("%-34s %8s %9s %10s %9s %6s %9s %9s\n", "what was done", "times", "answered",
              "unanswered", "away", "wrong", "p99 ms", "worst ms");
}

void PrintRow(const char* name, std::uint64_t times, std::uint64_t wrong) {
  const Board& board = TheBoard();
  std::printf("%-34s %8lu %9lu %10lu %9lu %6lu %9.1f %9.1f\n", name, times, board.answered.load(),
              board.unanswered.load(), board.unreached.load(), wrong,
              Milliseconds(Quantile(Samples(), 0.99)),
              Milliseconds(static_cast<long>(board.longest_us.load())));
  std::fflush(stdout);
}

void Run(const Phase& phase, double seconds, Auditor& auditor) {
  Board& board = TheBoard();
  ResetCounters();
  const std::uint64_t wrong_before = board.wrong;
  const unsigned int times = phase.run(Seconds(seconds * phase.share), phase.limit);
  auditor.CheckAnswers(kFillers / 4);
  auditor.CheckLog();
  const std::uint64_t silences = phase.silences == kNoLimit ? kNoLimit : phase.silences * times;
  if (board.unanswered > silences) {
    Wrong(std::to_string(board.unanswered) + " requests stayed unanswered");
  }
  if (board.unreached != 0 && !phase.unreachable) Wrong("clients could not connect");
  PrintRow(phase.name, times, board.wrong - wrong_before);
}

std::vector<Phase> Phases(Attacks& attacks, unsigned int workers) {
  const auto deed = [&attacks](auto member) {
    return [&attacks, member](Seconds time, unsigned int limit) {
      return (attacks.*member)(time, limit);
    };
  };
  const auto bother = [&attacks](std::function<void()> work, unsigned int users) {
    return [&attacks, neighbours = Neighbours{std::move(work), users}](Seconds time, unsigned int) {
      return attacks.Bother(neighbours, time);
    };
  };
  constexpr unsigned int kOften = 1U << 30;
  return {
      {"all four operations at full speed", 0.25, 1000000, 0, false, deed(&Attacks::Soak)},
      {"validated while revoked", 0.05, kOften, 0, false, deed(&Attacks::Nothing)},
      {"a worker killed", 0.20, 500, workers, false, deed(&Attacks::KillWorkers)},
      {"the daemon killed", 0.12, 200, kNoLimit, true, deed(&Attacks::KillDaemon)},
      {"the daemon restarted", 0.03, 50, kNoLimit, true, deed(&Attacks::RestartDaemon)},
      {"a client killed", 0.03, 100, 0, false, deed(&Attacks::KillClients)},
      {"the disk full, then freed", 0.04, kOften, 0, false, deed(&Attacks::FillDisk)},
      {"the store cut", 0.02, kOften, 0, false, deed(&Attacks::CutStore)},
      {"the store of a stopped daemon cut", 0.02, kOften, 0, true,
       deed(&Attacks::CutStoreOfStopped)},
      {"foreign lines in the store", 0.03, kOften, kNoLimit, true, deed(&Attacks::AddForeignLines)},
      {"1,000 silent connections", 0.05, 1, 0, false, bother([] { Silent(1000); }, 1)},
      {"silent connections of 20 users", 0.03, 1, 0, false, bother([] { Silent(150); }, 20)},
      {"one byte at a time", 0.03, 1, 0, false, bother(Trickle, 20)},
      {"random bytes", 0.02, 1, 0, false, bother(Noise, 4)},
      {"too long, too deep", 0.03, 1, 0, false, bother(Giant, 4)},
      {"gone before the answer", 0.02, 1, 0, false, bother(Leave, 4)},
      {"messages of 90,000 values", 0.03, 1, 0, false, bother(Costly, 1)},
      {"descriptors down to 40", 0.04, 3, kNoLimit, false, deed(&Attacks::StarveOfDescriptors)},
  };
}

void PrintTimes(const char* name, const std::vector<long>& values) {
  if (values.empty()) return;
  std::printf("%s: median %.1f ms, p99 %.1f ms, worst %.1f ms\n", name,
              Milliseconds(Quantile(values, 0.5)), Milliseconds(Quantile(values, 0.99)),
              Milliseconds(Quantile(values, 1)));
}

int Torture(const Arguments& arguments) {
  Daemon daemon(arguments.daemon, arguments.workers);
  Auditor auditor;
  Attacks attacks(daemon, auditor);
  FillStore();
  daemon.Start();
  StartLoad();
  PrintHead();
  for (const Phase& phase : Phases(attacks, arguments.workers)) {
    if (arguments.only.empty() || arguments.only == phase.name) {
      Run(phase, arguments.seconds, auditor);
    }
  }
  PrintTimes("from a worker's death to full service", attacks.replaced_us);
  PrintTimes("from the daemon's death to full service", attacks.restarted_us);
  PrintTimes("from the end of a want of descriptors to an answer", attacks.recovered_us);
  std::printf("growth of resident memory after 10,000 requests: %ld KiB\n", attacks.soaked_kib);
  std::printf("starts refused because a killed daemon's socket was still served: %u\n",
              daemon.refused_starts);
  std::printf("tokens: %u, wrong: %lu\n", TheBoard().record_count.load(), TheBoard().wrong.load());
  return TheBoard().wrong == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace
}  // namespace ZELT::Torture

int main(int argc, char** argv) {
  try {
    return ZELT::Torture::Torture(ZELT::Torture::ParseArguments(argc, argv));
  } catch (const std::exception& error) {
    std::cerr << "torture: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
}

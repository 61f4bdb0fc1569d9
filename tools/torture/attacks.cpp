#include "attacks.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "board.h"
#include "client.h"
#include "neighbour.h"

namespace ZELT::Torture {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uid_t kMallory = 4666;
constexpr long kGrowthKib = 1024;
constexpr std::uint64_t kWarm = 10000;  // requests after which memory must not grow
constexpr std::uint32_t kSample = 8;    // tokens validated after each blow

unsigned int Repeat(Seconds duration, unsigned int limit, const std::function<void()>& blow) {
  const auto end = Clock::now() + duration;
  unsigned int count = 0;
  for (; count < limit && Clock::now() < end; ++count) blow();
  return count;
}

long Since(Clock::time_point begin) {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin).count();
}

void Sleep(Seconds duration) { Pause(static_cast<unsigned int>(duration.count() * 1e6)); }

std::string ReadText(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Takes all that is left of the store's file system.
class FullDisk {
 public:
  FullDisk() {
    std::ofstream ballast(path, std::ios::binary);
    while (ballast << std::string(4096, 'b') << std::flush) {
    }
  }
  ~FullDisk() { std::filesystem::remove(path); }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  const std::string path = std::string(kStore) + ".ballast";
};

// Cuts the store off within its last records.
void CutEnd() {
  const auto size = static_cast<unsigned int>(std::filesystem::file_size(kStore));
  std::filesystem::resize_file(kStore, size - Below(size / 50));
}

std::string ForeignLine() {
  static const std::vector<std::string> lines = {"",
                                                 " ",
                                                 "# a comment",
                                                 "{}",
                                                 std::string(1, '\0') + "\xff\xfe",
                                                 "token-without-data",
                                                 "token-with-bad-data {",
                                                 "\r",
                                                 std::string(300000, 'x'),
                                                 "x " + std::string(5000, '[')};
  return lines[Below(static_cast<unsigned int>(lines.size()))] + "\n";
}

void LimitDescriptors(pid_t process, rlim_t soft) {
  rlimit limit{};
  prlimit(process, RLIMIT_NOFILE, nullptr, &limit);
  limit.rlim_cur = std::min(soft, limit.rlim_max);
  prlimit(process, RLIMIT_NOFILE, &limit, nullptr);
}

void End(const std::vector<pid_t>& processes) {
  for (const pid_t process : processes) {
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
  }
}

std::vector<pid_t> ForkNeighbours(const Neighbours& neighbours) {
  std::vector<pid_t> processes;
  for (unsigned int i = 0; i < neighbours.users; ++i) {
    processes.push_back(Fork(kMallory + i, neighbours.work));
  }
  return processes;
}

}  // namespace

unsigned int Attacks::Nothing(Seconds duration, unsigned int limit) {
  return Repeat(duration, limit, [&] {
    Pause(200000);
    auditor.CheckStore();
  });
}

unsigned int Attacks::KillWorkers(Seconds duration, unsigned int limit) {
  return Repeat(duration, limit, [&] {
    Pause(Below(60000));
    const auto workers = daemon.Workers();
    const auto begin = Clock::now();
    kill(workers[Below(static_cast<unsigned int>(workers.size()))], SIGKILL);
    daemon.AwaitService(workers);
    replaced_us.push_back(Since(begin));
    auditor.CheckStore();
    auditor.CheckAnswers(kSample);
  });
}

unsigned int Attacks::KillDaemon(Seconds duration, unsigned int limit) {
  return Repeat(duration, limit, [&] {
    Pause(Below(60000));
    const auto begin = Clock::now();
    daemon.Kill();
    daemon.Start();
    daemon.AwaitService();
    restarted_us.push_back(Since(begin));
    auditor.CheckStore();
    auditor.CheckAnswers(kSample);
  });
}

unsigned int Attacks::RestartDaemon(Seconds duration, unsigned int limit) {
  return Repeat(duration, limit, [&] {
    Pause(Below(60000));
    daemon.Stop();
    daemon.Start();
    daemon.AwaitService();
    auditor.CheckStore();
  });
}

unsigned int Attacks::KillClients(Seconds duration, unsigned int limit) {
  return Repeat(duration, limit, [&] {
    Pause(Below(60000));
    const unsigned int seat = Below(kSeats);
    End({TheBoard().seats[seat].pid});
    SeatClient(seat);
    auditor.CheckStore();
  });
}

unsigned int Attacks::FillDisk(Seconds duration, unsigned int limit) {
  return Repeat(duration, limit, [&] {
    TheBoard().refusals_allowed = true;
    {
      const FullDisk full;
      Pause(300000);
      auditor.CheckStore();
      auditor.CheckAnswers(kSample);
    }
    { const Rest all_answered; }
    TheBoard().refusals_allowed = false;
    Pause(200000);
    auditor.CheckStore();
  });
}

unsigned int Attacks::CutStore(Seconds duration, unsigned int limit) {
  return Repeat(duration, limit, [&] {
    {
      const Rest rest;
      CutEnd();
      auditor.ForgiveDamage();
    }
    Pause(200000);
    auditor.CheckStore();
  });
}

unsigned int Attacks::CutStoreOfStopped(Seconds duration, unsigned int limit) {
  return Repeat(duration, limit, [&] {
    {
      const Rest rest;
      daemon.Stop();
      CutEnd();
      auditor.ForgiveDamage();
      daemon.Start();
    }
    Pause(200000);
    auditor.CheckStore();
  });
}

unsigned int Attacks::AddForeignLines(Seconds duration, unsigned int limit) {
  return Repeat(duration, limit, [&] {
    {
      const Rest rest;
      const std::string before = ReadText(kStore);
      std::string text = before;
      for (int i = 0; i < 3; ++i) {
        const std::size_t newline = text.find('\n', Below(static_cast<unsigned int>(text.size())));
        text.insert(newline == std::string::npos ? 0 : newline + 1, ForeignLine());
      }
      WriteText(kStore, text);
    }
    Pause(100000);
    auditor.CheckStore();
    auditor.CheckAnswers(kSample);
    if (std::filesystem::file_size(kStore) < 4U << 20) return;
    const Rest rest;  // drops the long lines again
    daemon.Stop();
    std::istringstream lines(ReadText(kStore));
    std::string kept;
    for (std::string line; std::getline(lines, line);) {
      if (line.size() < 4096) kept += line + "\n";
    }
    WriteText(kStore, kept);
    daemon.Start();
  });
}

std::vector<Attacks::Size> Attacks::Measure() const {
  auto processes = daemon.Workers();
  processes.push_back(daemon.Supervisor());
  std::vector<Size> sizes;
  for (const pid_t process : processes) {
    sizes.push_back({Descriptors(process), OwnMemory(process)});
  }
  return sizes;
}

// Waiting connections are closed at the daemon's deadline, so this may take some seconds.
void Attacks::ExpectSize(const std::vector<Size>& before) {
  const Rest rest;
  const auto same_descriptors = [](const Size& a, const Size& b) {
    return a.descriptors == b.descriptors;
  };
  const auto deadline = Clock::now() + std::chrono::seconds(15);
  auto now = Measure();
  for (; Clock::now() < deadline; now = Measure()) {
    if (std::equal(now.begin(), now.end(), before.begin(), before.end(), same_descriptors)) break;
    Pause(10000);
  }
  for (std::size_t i = 0; i < std::min(now.size(), before.size()); ++i) {
    if (now[i].descriptors != before[i].descriptors) Wrong("descriptors were not given back");
    if (now[i].memory_kib <= before[i].memory_kib + kGrowthKib) continue;
    Wrong("memory grew from " + std::to_string(before[i].memory_kib) + " KiB to " +
          std::to_string(now[i].memory_kib) + " KiB");
  }
}

// Workers that have just begun still take memory that they keep.
void Attacks::AwaitWarmth() {
  while (TheBoard().answered < kWarm) Pause(1000);
}

std::vector<Attacks::Size> Attacks::MeasureAtRest() const {
  const Rest rest;
  return Measure();
}

unsigned int Attacks::Soak(Seconds duration, unsigned int limit) {
  const unsigned int pause = TheBoard().pause_us.exchange(0);
  AwaitWarmth();
  const auto before = MeasureAtRest();
  const auto end = Clock::now() + duration;
  while (TheBoard().answered < limit && Clock::now() < end) Pause(10000);
  TheBoard().pause_us = pause;
  const auto after = MeasureAtRest();
  for (std::size_t i = 0; i < after.size(); ++i) {
    soaked_kib = std::max(soaked_kib, after[i].memory_kib - before[i].memory_kib);
  }
  ExpectSize(before);
  auditor.CheckStore();
  return static_cast<unsigned int>(TheBoard().answered);
}

unsigned int Attacks::StarveOfDescriptors(Seconds duration, unsigned int limit) {
  return Repeat(duration, limit, [&] {
    const auto silent = ForkNeighbours({[] { Silent(200); }, 2});
    TheBoard().refusals_allowed = true;
    for (const pid_t worker : daemon.Workers()) LimitDescriptors(worker, 40);
    Sleep(std::min(duration / 3, Seconds(3)));
    for (const pid_t worker : daemon.Workers()) LimitDescriptors(worker, RLIM_INFINITY);
    const auto begin = Clock::now();
    daemon.AwaitService();
    recovered_us.push_back(Since(begin));
    End(silent);
    { const Rest all_answered; }
    TheBoard().refusals_allowed = false;
    auditor.CheckStore();
    auditor.CheckAnswers(kSample);
  });
}

unsigned int Attacks::Bother(const Neighbours& neighbours, Seconds duration) {
  AwaitWarmth();
  const auto before = MeasureAtRest();
  const auto workers = daemon.Workers();
  const auto processes = ForkNeighbours(neighbours);
  Sleep(duration);
  End(processes);
  if (daemon.Workers() != workers) Wrong("neighbours ended a worker: " + LastWords());
  ExpectSize(before);
  auditor.CheckStore();
  return static_cast<unsigned int>(TheBoard().neighbours);
}

}  // namespace ZELT::Torture

// Benchmarks of the library, each beside its bare limit. To be run by scripts/bench, in
// a private file system: some need "/var/packages" and "/tmp" to themselves.
#include <benchmark/benchmark.h>
#include <syslog.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "bare_cache.h"
#include "bare_json.h"
#include "bare_store.h"
#include "json_text.h"
#include "zelttokenmanager/service/fastapi.h"
#include "zelttokenmanager/service/taskmanager.h"
#include "zelttokenmanager/storage/json_file_storage.h"
#include "zelttokenmanager/storage/lru_cache_storage.h"
#include "zelttokenmanager/token_manager.h"

// What the log costs is not the cache's: a full one says so at each eviction.
extern "C" void syslog(int /*priority*/, const char* /*format*/, ...) {}

namespace {

namespace fs = std::filesystem;
using namespace ZELT::TokenManager;

constexpr std::size_t kMaxRecords = 100000;
constexpr std::size_t kTokenLength = 48;  // the mean
constexpr unsigned int kLargeCache = 256U << 20;
constexpr unsigned int kSmallCache = 1U << 20;
constexpr std::size_t kRemovalsAtOnce = 10;

std::string MakeToken(std::uint64_t seed) {
  static const std::string pool =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string token;
  while (token.size() < kTokenLength) {
    seed = seed * 6364136223846793005U + 1442695040888963407U;
    token += pool[seed >> 58U];
  }
  return token;
}

const std::string& Token(std::size_t number) {
  static const std::vector<std::string> tokens = [] {
    std::vector<std::string> made;
    for (std::size_t i = 0; i < kMaxRecords; ++i) made.push_back(MakeToken(i));
    return made;
  }();
  return tokens[number];
}

// Visits all of `count` records evenly from the first step on: few steps suffice for the mean.
std::size_t Spread(std::size_t step, std::size_t count) {
  constexpr double kGoldenRatio = 0.6180339887498949;
  double whole = 0;
  return static_cast<std::size_t>(std::modf(static_cast<double>(step) * kGoldenRatio, &whole) *
                                  static_cast<double>(count));
}

Json::Value Json(const std::string& text) {
  return bare::Parse(text.data(), text.data() + text.size());
}

const Json::Value& Data() {
  static const Json::Value data =
      Json(R"({"created_at":81544117230815,"payload":[{"api":"Demo.Item","method":"get"}],)"
           R"("pid":1804,"requester":"root","service":"fastapi"})");
  return data;
}

std::string StoreText(std::size_t count) {
  const std::string record = ' ' + bare::Write(Data()) + '\n';
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += Token(i) + record;
  return text;
}

// A store file of its own, with its lock file.
class StoreFile {
 public:
  explicit StoreFile(std::size_t count) : text(StoreText(count)) {
    const JsonFileStorage makes_directory_and_lock_file(path);
    Restore();
  }
  ~StoreFile() { fs::remove_all(fs::path(path).parent_path()); }
  StoreFile(const StoreFile&) = delete;
  StoreFile& operator=(const StoreFile&) = delete;

  void Restore() const { std::ofstream(path) << text; }

  const std::string path = "/tmp/bench-store/tokens";

 private:
  std::string text;
};

using Benchmark = void (*)(benchmark::State&, TokenStorage&, std::size_t);

void Get(benchmark::State& state, TokenStorage& storage, std::size_t count) {
  std::size_t step = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(storage.GetAssociatedData(Token(Spread(step++, count))));
  }
}

void Insert(benchmark::State& state, TokenStorage& storage, std::size_t /*count*/) {
  static std::uint64_t next = kMaxRecords;
  for (auto _ : state) storage.Insert(MakeToken(next++), Data());
}

void Fill(TokenStorage& storage, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) storage.Insert(Token(i), Data());
}

template <typename Store>
void OnStore(benchmark::State& state, Benchmark run, std::size_t count) {
  const StoreFile file(count);
  Store store(file.path);
  run(state, store, count);
}

template <typename Store>
void Remove(benchmark::State& state, std::size_t count) {
  const StoreFile file(count);
  Store store(file.path);
  while (state.KeepRunningBatch(kRemovalsAtOnce)) {
    state.PauseTiming();
    file.Restore();
    state.ResumeTiming();
    for (std::size_t i = 0; i < kRemovalsAtOnce; ++i) store.Remove(Token(Spread(i, count)));
  }
}

template <typename Cache>
void CacheHit(benchmark::State& state, std::size_t count) {
  Cache cache(kLargeCache);
  Fill(cache, count);
  Get(state, cache, count);
}

template <typename Cache>
void CacheMiss(benchmark::State& state) {
  Cache cache(kLargeCache);
  Fill(cache, 1000);
  for (auto _ : state) {
    try {
      benchmark::DoNotOptimize(cache.GetAssociatedData(Token(kMaxRecords - 1)));
    } catch (const cache_miss&) {
      continue;
    }
    std::abort();
  }
}

template <typename Cache>
void CacheInsertFull(benchmark::State& state) {
  Cache cache(kSmallCache);
  Fill(cache, 10000);
  Insert(state, cache, 0);
}

void AddJson() {
  static const std::string text = bare::Write(Data());
  benchmark::RegisterBenchmark("parse/ours", [](benchmark::State& state) {
    Json::Value value;
    for (auto _ : state) benchmark::DoNotOptimize(fromString(text, value));
  });
  benchmark::RegisterBenchmark("parse/bare", [](benchmark::State& state) {
    Json::Value value;
    for (auto _ : state) value = bare::Parse(text.data(), text.data() + text.size());
  });
  benchmark::RegisterBenchmark("write/ours", [](benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(toString(Data()));
  });
  benchmark::RegisterBenchmark("write/bare", [](benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(bare::Write(Data()));
  });
}

template <typename... Arguments>
void Add(const std::string& name, std::size_t size, Arguments... arguments) {
  benchmark::RegisterBenchmark((name + '/' + std::to_string(size)).c_str(), arguments..., size);
}

void AddStore(std::size_t count) {
  Add("get/ours", count, OnStore<JsonFileStorage>, Get);
  Add("get/bare", count, OnStore<bare::Store>, Get);
  Add("insert/ours", count, OnStore<JsonFileStorage>, Insert);
  Add("insert/bare", count, OnStore<bare::Store>, Insert);
  Add("remove/ours", count, Remove<JsonFileStorage>);
  Add("remove/bare", count, Remove<bare::Store>);
}

void AddCache() {
  for (const std::size_t count : {1000U, 10000U, 100000U}) {
    Add("hit/ours", count, CacheHit<LRUCacheStorage>);
    Add("hit/bare", count, CacheHit<bare::Cache>);
  }
  benchmark::RegisterBenchmark("miss/ours", CacheMiss<LRUCacheStorage>);
  benchmark::RegisterBenchmark("miss/bare", CacheMiss<bare::Cache>);
  benchmark::RegisterBenchmark("evict/ours", CacheInsertFull<LRUCacheStorage>);
  benchmark::RegisterBenchmark("evict/bare", CacheInsertFull<bare::Cache>);
}

// A manager whose cache holds one token of `service`.
struct Validation {
  Validation(const std::string& service, const Json::Value& payload, const Json::Value& wanted) {
    Json::Value data = Data();
    data["service"] = service;
    data["payload"] = payload;
    cache->Insert(Token(0), data);
    manager.AddService(std::make_shared<FastAPI>());
    manager.AddService(std::make_shared<TaskManager>());
    request["service"] = service;
    request["token"] = Token(0);
    request["payload"] = wanted;
    checker = manager.GetService(service);
  }

  Json::Value request;
  std::shared_ptr<CacheStorage> cache = std::make_shared<LRUCacheStorage>(kSmallCache);
  TokenManager manager{"/none", nullptr, cache};
  std::shared_ptr<TokenService> checker;
};

void ValidateByManager(benchmark::State& state, const std::shared_ptr<Validation>& validation) {
  Json::Value response;
  for (auto _ : state) validation->manager.ValidateToken({}, validation->request, response);
  if (!response["permitted"].asBool()) std::abort();
}

void ValidateByParts(benchmark::State& state, const std::shared_ptr<Validation>& validation) {
  for (auto _ : state) {
    const Json::Value data = validation->cache->GetAssociatedData(Token(0));
    if (!validation->checker->Validate(validation->request, data)) std::abort();
  }
}

void AddValidate() {
  for (const std::string list : {R"("requester")", R"("any")", R"(["nobody","@root"])"}) {
    const std::string name = list == R"("any")" ? "any" : list[0] == '[' ? "group" : "requester";
    const auto api = std::make_shared<Validation>(
        "fastapi", Json(R"([{"api":"Demo.Item","method":"get","runner":)" + list + "}]"),
        Json(R"({"api":"Demo.Item","method":"get","runner":"root"})"));
    const auto task = std::make_shared<Validation>(
        "taskmanager", Json(R"([{"prefix":"backup_","owner":)" + list + "}]"),
        Json(R"({"action":"read","args":{"task":"backup_17","owner":"root"}})"));
    benchmark::RegisterBenchmark(("fastapi/manager/" + name).c_str(), ValidateByManager, api);
    benchmark::RegisterBenchmark(("fastapi/parts/" + name).c_str(), ValidateByParts, api);
    benchmark::RegisterBenchmark(("taskmanager/manager/" + name).c_str(), ValidateByManager, task);
    benchmark::RegisterBenchmark(("taskmanager/parts/" + name).c_str(), ValidateByParts, task);
  }
}

void WriteFile(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path) << text;
}

// Packages of which the last one that a search finds runs as root.
std::string MakePackages(std::size_t count) {
  const fs::path packages = "/var/packages";
  for (std::size_t i = 0; i < count; ++i) {
    WriteFile(packages / ("package" + std::to_string(i)) / "conf" / "privilege",
              R"({"username": "somebody"})");
  }
  fs::path last;
  for (const auto& entry : fs::directory_iterator(packages)) last = entry.path();
  WriteFile(last / "conf" / "privilege", R"({"username": "root"})");
  return last.filename();
}

void Issue(benchmark::State& state, std::size_t packages) {
  const std::string package = MakePackages(packages);
  WriteFile("/tmp/bench-installed/" + package,
            R"({"fastapi": [{"api": "Demo.Item", "method": "get"}]})");
  const StoreFile file(1);
  TokenManager manager("/tmp/bench-installed", std::make_shared<JsonFileStorage>(file.path),
                       std::make_shared<LRUCacheStorage>(kLargeCache));
  manager.AddService(std::make_shared<FastAPI>());
  const Json::Value request =
      Json(R"({"service":"fastapi","payload":[{"api":"Demo.Item","method":"get"}]})");
  for (auto _ : state) {
    Json::Value response;
    manager.IssueToken({.pid = 1, .uid = 0, .gid = 0}, request, response);
  }
  for (const auto& entry : fs::directory_iterator("/var/packages")) fs::remove_all(entry);
  fs::remove_all("/tmp/bench-installed");
}

}  // namespace

int main(int argc, char** argv) {
  if (getuid() != 0 || !fs::is_directory("/var/packages") || !fs::is_empty("/var/packages")) {
    std::cerr << "needs to be root, in a private file system: see scripts/bench\n";
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  AddJson();
  for (const std::size_t count : {100U, 1000U, 10000U, 100000U}) AddStore(count);
  AddCache();
  AddValidate();
  for (const std::size_t packages : {1U, 11U, 31U, 101U}) Add("issue", packages, Issue);
  benchmark::RunSpecifiedBenchmarks();
}

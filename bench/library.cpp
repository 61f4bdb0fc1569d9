// Benchmarks of the library, each beside its bare limit. To be run by scripts/bench, in
// a private file system: some need "/var/packages" and "/tmp" to themselves.
#include <benchmark/benchmark.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bare_json.h"
#include "bare_store.h"
#include "zelttokenmanager/service/fastapi.h"
#include "zelttokenmanager/storage/json_file_storage.h"
#include "zelttokenmanager/storage/lru_cache_storage.h"
#include "zelttokenmanager/token_manager.h"

namespace {

namespace fs = std::filesystem;
using namespace ZELT::TokenManager;

constexpr std::size_t kMaxRecords = 100000;
constexpr std::size_t kTokenLength = 48;  // the mean
constexpr unsigned int kCacheSize = 1U << 20;
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

// A manager whose cache holds one token.
struct Validation {
  Validation() {
    cache->Insert(Token(0), Data());
    manager.AddService(checker);
    request["service"] = checker->GetName();
    request["token"] = Token(0);
    request["payload"] = Json(R"({"api":"Demo.Item","method":"get","runner":"root"})");
  }

  Json::Value request;
  std::shared_ptr<CacheStorage> cache = std::make_shared<LRUCacheStorage>(kCacheSize);
  TokenManager manager{"/none", nullptr, cache};
  std::shared_ptr<TokenService> checker = std::make_shared<FastAPI>();
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
  const auto validation = std::make_shared<Validation>();
  benchmark::RegisterBenchmark("validate/manager", ValidateByManager, validation);
  benchmark::RegisterBenchmark("validate/parts", ValidateByParts, validation);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  for (const std::size_t count : {100U, 1000U, 10000U, 100000U}) AddStore(count);
  AddValidate();
  benchmark::RunSpecifiedBenchmarks();
}

#include "zelttokenmanager/storage/lru_cache_storage.h"

#include "support/tables.h"

namespace ZELT::TokenManager::LruCacheTests {

constexpr unsigned int kSize = 16384;  // bytes
const std::string kMiss = "~std::exception";

// What was logged, with "evicting COUNT of HELD" for what each eviction logs.
std::string Log() {
  static const std::regex evicting(
      "<4>storage/lru_cache_storage.cpp:182 (\\d+) records in cache, (\\d+) records are going to "
      "be evicted from cache, consider increasing cache size");
  return std::regex_replace(TakeLog(), evicting, "evicting $2 of $1");
}

struct LRUCacheTest : testing::Test {
  LRUCacheTest() { TakeLog(); }
  std::string Get(const std::string& token) {
    return Outcome([&] { return cache.GetAssociatedData(token); });
  }

  LRUCacheStorage cache{kSize};
};

TEST_F(LRUCacheTest, AdmitsOnceAndEvictsWhatWasUsedLongestAgo) {
  const auto call = [&](const Json::Value& words, const Json::Value& data) -> Json::Value {
    const std::string token = words[1].asString();
    if (words[0] == "get") return cache.GetAssociatedData(token);
    if (words[0] == "statistics") return cache.GetStatistics();
    if (words[0] == "insert") cache.Insert(token, data);
    if (words[0] == "remove") cache.Remove(token);
    if (words[0] == "evict") cache.Evict(data.asUInt());
    return Log();
  };
  CheckSection("lru_cache.txt", "a cache", call);
}

TEST_F(LRUCacheTest, DropsWhatIsTooLarge) {
  for (const unsigned int size : {kSize - 256, 2 * kSize}) {
    for (const char* token : {"a", "b"}) cache.Insert(token, 1);
    cache.Insert("large", std::string(size, 'x'));
    EXPECT_EQ(Log(),
              "evicting 1 of 2\nevicting 1 of 1\n"
              "<4>storage/lru_cache_storage.cpp:109 failed to insert record into cache\n");
  }
  const std::string token(2 * std::size_t{kSize}, 't');
  EXPECT_EQ(Outcome([&] { cache.Remove(token); }),
            "storage/lru_cache_storage.cpp:132 failed to remove record in cache");
  EXPECT_EQ(Get(token), kMiss);
  EXPECT_EQ(Log(),
            "evicting 1 of 0\nevicting 1 of 0\n"
            "<4>storage/lru_cache_storage.cpp:162 failed to find record in cache\n");
  EXPECT_EQ(Text(cache.GetStatistics()), "{'hit':0,'miss':0,'total':0}");
}

// Records of many sizes, so that each allocation of an insert is once the one that fails.
TEST_F(LRUCacheTest, StaysConsistentWhereverRoomRunsOut) {
  for (std::size_t size = 1; size < kSize; size += 7) {
    const std::string token = std::to_string(size);
    cache.Insert(token, std::string(size % (kSize / 4), 'x'));
    cache.Remove(std::to_string(size / 2));
    cache.Insert("huge", std::string(size, 'x'));
    const std::string value = Get(token);
    EXPECT_TRUE(value == kMiss || value.size() == size % (kSize / 4) + 2);
  }
  cache.Insert("largest", std::string(kSize - 1024, 'x'));
  EXPECT_EQ(Get("largest").size(), kSize - 1024 + 2) << "memory was lost";
}

// Three tokens, so that most calls meet another one at the same record.
TEST_F(LRUCacheTest, SerialisesThreadsOfForkedProcessesToo) {
  constexpr unsigned int kLookups = 3000;
  const auto work = [&] {
    for (unsigned int round = 0; round < kLookups; ++round) {
      cache.Insert(std::to_string(round % 3), std::string(300, 'x'));
      Get(std::to_string(round % 3));
      cache.Remove(std::to_string((round + 1) % 3));
    }
    return 0;
  };
  const pid_t process = Start(work);
  for (std::vector<std::jthread> threads; threads.size() < 3;) threads.emplace_back(work);
  EXPECT_EQ(Finish(process), 0);
  const Json::Value statistics = cache.GetStatistics();
  EXPECT_EQ(statistics["total"], 4 * kLookups);
  EXPECT_EQ(statistics["hit"].asUInt() + statistics["miss"].asUInt(), 4 * kLookups);
}

}  // namespace ZELT::TokenManager::LruCacheTests

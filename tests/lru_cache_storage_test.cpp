#include "zelttokenmanager/storage/lru_cache_storage.h"

#include <climits>

#include "support/testing.h"

namespace ZELT::TokenManager::LruCacheTests {

constexpr unsigned int kSize = 16384;  // bytes
const std::string kMiss = "~std::exception";
const std::string kNotInserted =
    "<4>storage/lru_cache_storage.cpp:109 failed to insert record into cache\n";

std::string Evicting(unsigned int held, unsigned int count) {
  return "<4>storage/lru_cache_storage.cpp:182 " + std::to_string(held) + " records in cache, " +
         std::to_string(count) +
         " records are going to be evicted from cache, consider increasing cache size\n";
}

struct LRUCacheTest : testing::Test {
  LRUCacheTest() { TakeLog(); }
  std::string Get(const std::string& token) {
    return Outcome([&] { return cache.GetAssociatedData(token); });
  }

  LRUCacheStorage cache{kSize};
};

TEST_F(LRUCacheTest, AdmitsATokenOnceAndCounts) {
  EXPECT_EQ(Get("a"), kMiss);
  cache.Insert("a", 1);
  cache.Insert("b", 2);
  cache.Insert("a", 3);
  cache.Remove("none");
  EXPECT_EQ(TakeLog(), "");
  cache.Evict(1);
  EXPECT_EQ(Get("a") + Get("b"), kMiss + "2") << "the second insert must not refresh the record";
  EXPECT_EQ(Text(cache.GetStatistics()), "{'hit':1,'miss':2,'total':3}");
  cache.Insert(std::string("a\0b", 3), 4);
  cache.Insert("a", 5);
  EXPECT_EQ(Get("a"), "4") << "a token counts up to its first NUL";
  EXPECT_EQ(Get("b"), "2");
  cache.Remove("a");
  cache.Evict(1);
  EXPECT_EQ(Get("a") + Get("b"), kMiss + kMiss) << "what was removed must not be left to evict";
}

TEST_F(LRUCacheTest, EvictsWhatWasUsedLongestAgo) {
  for (const char* token : {"a", "b", "c", "d"}) cache.Insert(token, token);
  EXPECT_EQ(Get("a"), "'a'");
  for (const unsigned int count : {0U, 2U}) cache.Evict(count);
  EXPECT_EQ(Get("a") + Get("b") + Get("c") + Get("d"), "'a'" + kMiss + kMiss + "'d'");
  for (const unsigned int count : {UINT_MAX, 3U}) cache.Evict(count);
  EXPECT_EQ(TakeLog(), Evicting(4, 0) + Evicting(4, 2) + Evicting(2, UINT_MAX) + Evicting(0, 3));
}

TEST_F(LRUCacheTest, DropsWhatIsTooLarge) {
  for (const unsigned int size : {kSize - 256, 2 * kSize}) {
    for (const char* token : {"a", "b"}) cache.Insert(token, 1);
    cache.Insert("large", std::string(size, 'x'));
    EXPECT_EQ(TakeLog(), Evicting(2, 1) + Evicting(1, 1) + kNotInserted);
  }
  const std::string token(2 * std::size_t{kSize}, 't');
  EXPECT_EQ(Outcome([&] { cache.Remove(token); }),
            "storage/lru_cache_storage.cpp:132 failed to remove record in cache");
  EXPECT_EQ(Get(token), kMiss);
  EXPECT_EQ(TakeLog(), Evicting(0, 1) + Evicting(0, 1) +
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
  cache.Evict(UINT_MAX);
  cache.Insert("largest", std::string(kSize - 1024, 'x'));
  EXPECT_EQ(Get("largest").size(), kSize - 1024 + 2) << "memory was lost";
}

TEST_F(LRUCacheTest, SerialisesThreadsOfForkedProcessesToo) {
  constexpr unsigned int kLookups = 500;
  const auto work = [&] {
    for (unsigned int round = 0; round < kLookups; ++round) {
      cache.Insert(std::to_string(round % 50), std::string(300, 'x'));
      Get(std::to_string(round % 50));
      cache.Remove(std::to_string(round % 7));
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

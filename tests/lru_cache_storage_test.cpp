#include "zelttokenmanager/storage/lru_cache_storage.h"

#include <boost/interprocess/exceptions.hpp>
#include <climits>
#include <thread>

#include "support/testing.h"

namespace ZELT::TokenManager {
namespace {

using namespace TestSupport;

constexpr unsigned int kSize = 16384;  // bytes
constexpr const char* kNotInserted =
    "<4>storage/lru_cache_storage.cpp:109 failed to insert record into cache\n";
constexpr const char* kNotFound =
    "<4>storage/lru_cache_storage.cpp:162 failed to find record in cache\n";

class LRUCacheTest : public testing::Test {
 protected:
  LRUCacheTest() { TakeLog(); }

  // The cached value as text, or "miss".
  std::string Get(const std::string& token) {
    try {
      return Text(cache.GetAssociatedData(token));
    } catch (const cache_miss&) {
      return "miss";
    }
  }

  // The number of records, which the warning of an eviction of none tells.
  unsigned int Held() {
    TakeLog();
    cache.Evict(0);
    const std::string log = TakeLog();
    return static_cast<unsigned int>(std::stoul(log.substr(log.find(' '))));
  }

  static std::string Evicting(unsigned int held, unsigned int count) {
    return "<4>storage/lru_cache_storage.cpp:182 " + std::to_string(held) + " records in cache, " +
           std::to_string(count) +
           " records are going to be evicted from cache, consider increasing cache size\n";
  }

  LRUCacheStorage cache{kSize};
};

TEST_F(LRUCacheTest, CountsHitsAndMisses) {
  EXPECT_EQ(Text(cache.GetStatistics()), "{'hit':0,'miss':0,'total':0}");
  EXPECT_EQ(Get("a"), "miss");
  cache.Insert("a", 1);
  cache.Remove("none");
  EXPECT_EQ(Get("a") + Get("a"), "11");
  EXPECT_EQ(Text(cache.GetStatistics()), "{'hit':2,'miss':1,'total':3}");
  EXPECT_EQ(TakeLog(), "");
}

TEST_F(LRUCacheTest, AdmitsATokenOnce) {
  cache.Insert("a", 1);
  cache.Insert("b", 2);
  cache.Insert("a", 3);
  cache.Evict(1);
  EXPECT_EQ(Get("a") + Get("b"), "miss2") << "the second insert must not refresh the record";
  cache.Insert("a", 4);
  cache.Insert("a", 5);
  EXPECT_EQ(Get("a"), "4");
  cache.Remove("a");
  EXPECT_EQ(Get("b"), "2");
  cache.Evict(1);
  EXPECT_EQ(Get("b"), "miss") << "what was removed must not be left to evict";
  cache.Insert(std::string("a\0b", 3), 6);
  EXPECT_EQ(Get("a"), "6") << "a token counts up to its first NUL";
}

TEST_F(LRUCacheTest, EvictsWhatWasUsedLongestAgo) {
  for (const char* token : {"a", "b", "c", "d"}) {
    cache.Insert(token, token);
  }
  EXPECT_EQ(Get("a"), "'a'");
  cache.Evict(0);
  cache.Evict(2);
  EXPECT_EQ(TakeLog(), Evicting(4, 0) + Evicting(4, 2));
  EXPECT_EQ(Get("a") + Get("b") + Get("c") + Get("d"), "'a'missmiss'd'");
  cache.Evict(UINT_MAX);
  cache.Evict(3);
  EXPECT_EQ(TakeLog(), Evicting(2, UINT_MAX) + Evicting(0, 3));
  EXPECT_EQ(Get("a"), "miss");
}

TEST_F(LRUCacheTest, WarnsOnceForEachRecordThatMakesRoom) {
  const std::string prefix(40, 't');
  const std::string data(100, 'x');
  for (int round = 0; round < 300; ++round) {
    unsigned int held = Held();
    cache.Insert(prefix + std::to_string(round), data);
    const std::string log = TakeLog();
    std::string warnings;
    for (const unsigned int kept = Held() - 1; held > kept; --held) {
      warnings += Evicting(held, 1);
    }
    EXPECT_EQ(log, warnings);
  }
  EXPECT_LT(Held(), 300U);
  cache.Evict(Held() - 1);
  EXPECT_EQ(Get(prefix + "299"), "'" + data + "'") << "the newest record is the first";
}

TEST_F(LRUCacheTest, DropsARecordThatIsTooLarge) {
  for (const unsigned int size : {kSize - 256, 2 * kSize, 100 * kSize}) {
    const std::string data(size, 'x');
    cache.Insert("large", data);
    EXPECT_EQ(TakeLog(), Evicting(0, 1) + kNotInserted);
    cache.Insert("a", 1);
    cache.Insert("b", 2);
    cache.Insert("large", data);
    EXPECT_EQ(TakeLog(), Evicting(2, 1) + Evicting(1, 1) + kNotInserted);
    EXPECT_EQ(Held(), 0U);
  }
}

TEST_F(LRUCacheTest, FailsForATokenThatIsTooLarge) {
  const std::string token(std::size_t{2} * kSize, 't');
  cache.Insert("a", 1);
  EXPECT_EQ(Outcome([&] { cache.Remove(token); }),
            "storage/lru_cache_storage.cpp:132 failed to remove record in cache");
  EXPECT_EQ(Get(token), "miss");
  EXPECT_EQ(TakeLog(), Evicting(1, 1) + Evicting(0, 1) + kNotFound);
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
    EXPECT_TRUE(value == "miss" || value.size() == size % (kSize / 4) + 2);
  }
  for (unsigned int left = Held(); left > 0; --left) {
    cache.Evict(1);
    EXPECT_EQ(Held(), left - 1);
  }
  cache.Insert("largest", std::string(kSize - 1024, 'x'));
  EXPECT_EQ(Get("largest").size(), kSize - 1024 + 2) << "memory was lost";
}

TEST_F(LRUCacheTest, NeedsRoomForItself) {
  std::string phases;
  for (unsigned int size = 0; size < 2048; ++size) {
    std::string phase = "works";
    try {
      LRUCacheStorage(size).Insert("a", 1);
    } catch (const boost::interprocess::interprocess_exception& error) {
      phase = error.what();
    }
    phases += phases.ends_with(phase + "\n") ? "" : phase + "\n";
  }
  EXPECT_EQ(phases,
            "Invalid argument\n"
            "Could not initialize buffer in basic_managed_external_buffer constructor\n"
            "boost::interprocess::bad_alloc\nworks\n");
}

class BrokenCache : public LRUCacheStorage {
 public:
  using LRUCacheStorage::LRUCacheStorage;
  void Admit(const std::string& /*token*/, const Json::Value& /*data*/) override { throw 5; }
};

TEST_F(LRUCacheTest, SwallowsWhateverAdmissionThrows) {
  BrokenCache broken(kSize);
  broken.Insert("a", 1);
  EXPECT_EQ(TakeLog(), kNotInserted);
  EXPECT_THROW(broken.GetAssociatedData("a"), cache_miss) << "the mutex is free again";
}

TEST_F(LRUCacheTest, SerialisesThreadsOfForkedProcessesToo) {
  constexpr unsigned int kLookups = 500;
  const auto work = [&] {
    for (unsigned int round = 0; round < kLookups; ++round) {
      const std::string token = std::to_string(round % 50);
      cache.Insert(token, std::string(300, 'x'));
      Get(token);
      cache.Remove(std::to_string(round % 7));
    }
    return 0;
  };
  const pid_t process = Start(work);
  std::vector<std::thread> threads(3);
  for (std::thread& thread : threads) {
    thread = std::thread(work);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(Finish(process), 0);
  const Json::Value statistics = cache.GetStatistics();
  EXPECT_EQ(statistics["total"], 4 * kLookups);
  EXPECT_EQ(statistics["hit"].asUInt() + statistics["miss"].asUInt(), 4 * kLookups);
}

}  // namespace
}  // namespace ZELT::TokenManager

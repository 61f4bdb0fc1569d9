// The cache in front of the store: shared memory that drops the least recently used records.
#pragma once

#include <json/value.h>

#include <boost/container/list.hpp>
#include <boost/container/map.hpp>
#include <boost/container/string.hpp>
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/indexes/iset_index.hpp>
#include <boost/interprocess/managed_external_buffer.hpp>
#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/mem_algo/rbtree_best_fit.hpp>
#include <boost/interprocess/offset_ptr.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/interprocess/sync/mutex_family.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "../token_storage.h"

namespace ZELT::TokenManager {

/// Counters in the shared block. When one overflows, all are reset to 0.
struct _ShmCacheStats {
  std::uint64_t hit = 0;    ///< lookups that found their token
  std::uint64_t miss = 0;   ///< lookups that did not
  std::uint64_t total = 0;  ///< all lookups: hit + miss
};

/// Keeps serialised records in anonymous shared memory of a fixed size. When an allocation in it
/// fails, the least recently used records are dropped, one at a time and each with a warning in
/// syslog, until it succeeds.
///
/// Processes: the cache is shared by the process that constructs it and those forked from it later;
/// other processes cannot access it. A mutex in the block serialises all their threads. It is not
/// robust: if a process is killed while it holds the mutex, the mutex stays locked forever.
///
/// Inserting a token that is already cached changes nothing. Only the part of a token before its
/// first NUL character is significant.
class [[gnu::visibility("default")]] LRUCacheStorage : public CacheStorage {
 public:
  /// Maps `size` bytes of shared memory. Throws `boost::interprocess::interprocess_exception` when
  /// that fails or `size` is too small for the block's own header, and
  /// `boost::interprocess::bad_alloc` when it is too small for the empty cache.
  explicit LRUCacheStorage(unsigned int size);

  /// Unmaps the block, which continues to exist while another process maps it.
  ~LRUCacheStorage() override;

  /// Admits the record, or logs that it could not. Throws only
  /// `boost::interprocess::lock_exception`.
  void Insert(const std::string& token, const Json::Value& data) override;

  /// Removes the record if there is one. Throws `boost::interprocess::lock_exception`, and
  /// `std::runtime_error` for any failure after locking.
  void Remove(const std::string& token) override;

  /// Returns the record and makes it the most recently used one. Throws `cache_miss`, and
  /// `boost::interprocess::lock_exception`.
  Json::Value GetAssociatedData(const std::string& token) override;

  /// Returns {"hit", "miss", "total"}, read without a lock: the report may be slightly stale.
  Json::Value GetStatistics() override;

  /// Drops up to `count` of the least recently used records. The caller holds the mutex.
  void Evict(unsigned int count) override;

  /// Adds a record as the most recently used one, unless its token is already there. Throws
  /// `boost::interprocess::bad_alloc` when even an empty cache has no room. The caller holds the
  /// mutex.
  void Admit(const std::string& token, const Json::Value& data) override;

 private:
  // The plain managed_external_buffer alias has a mutex family that locks nothing.
  using Segment = boost::interprocess::basic_managed_external_buffer<
      char, boost::interprocess::rbtree_best_fit<boost::interprocess::mutex_family>,
      boost::interprocess::iset_index>;
  template <typename T>
  using ShmAllocator = boost::interprocess::allocator<T, Segment::segment_manager>;
  using ShmString =
      boost::container::basic_string<char, std::char_traits<char>, ShmAllocator<char>>;
  using Record = std::pair<ShmString, ShmString>;  // the token and its data as text
  using RecencyList = boost::container::list<Record, ShmAllocator<Record>>;
  using Index =
      boost::container::map<ShmString, RecencyList::iterator, std::less<ShmString>,
                            ShmAllocator<std::pair<const ShmString, RecencyList::iterator>>>;

  template <typename Step>
  [[gnu::visibility("hidden")]] auto EvictUntilItFits(Step step);
  [[gnu::visibility("hidden")]] ShmString ToShm(const char* text, std::size_t length);
  [[gnu::visibility("hidden")]] ShmString Key(const std::string& token);
  [[gnu::visibility("hidden")]] Json::Value Use(const RecencyList::iterator& record);
  [[gnu::visibility("hidden")]] void Count(std::uint64_t & counter);

  boost::interprocess::mapped_region region;
  Segment segment;
  ShmAllocator<char> allocator;
  boost::interprocess::offset_ptr<boost::interprocess::interprocess_mutex> mutex;
  boost::interprocess::offset_ptr<Index> index;
  boost::interprocess::offset_ptr<RecencyList> records;
  boost::interprocess::offset_ptr<_ShmCacheStats> stats;
};

}  // namespace ZELT::TokenManager

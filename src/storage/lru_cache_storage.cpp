#include "zelttokenmanager/storage/lru_cache_storage.h"

#include <syslog.h>

#include <boost/interprocess/anonymous_shared_memory.hpp>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <stdexcept>

#include "json_text.h"

// What holds whenever the mutex is free:
// - The index and the recency list have the same number of elements. Each entry of the index maps
//   a token to its element in the list. No token occurs twice.
// - The most recently used record is at the front of the list, the least recently used at its back.
// - A value is the text that toString returned for the data.

namespace ZELT::TokenManager {
namespace {

namespace ipc = boost::interprocess;
using Lock = ipc::scoped_lock<ipc::interprocess_mutex>;

constexpr const char* kSource = "storage/lru_cache_storage.cpp";

}  // namespace

LRUCacheStorage::LRUCacheStorage(unsigned int size)
    : region(ipc::anonymous_shared_memory(size)),
      segment(ipc::create_only, region.get_address(), region.get_size()),
      allocator(segment.get_segment_manager()),
      mutex(segment.construct<ipc::interprocess_mutex>(ipc::anonymous_instance)()),
      index(segment.construct<Index>(ipc::anonymous_instance)(allocator)),
      records(segment.construct<RecencyList>(ipc::anonymous_instance)(allocator)),
      stats(segment.construct<_ShmCacheStats>(ipc::anonymous_instance)()) {}

LRUCacheStorage::~LRUCacheStorage() = default;

// Runs a step that allocates in the segment, evicting one record after each allocation that fails.
template <typename Step>
auto LRUCacheStorage::EvictUntilItFits(Step step) {
  for (;;) {
    try {
      return step();
    } catch (const ipc::bad_alloc&) {
      Evict(1);
      if (index->empty()) throw ipc::bad_alloc();
    }
  }
}

void LRUCacheStorage::Insert(const std::string& token, const Json::Value& data) {
  Lock lock(*mutex);
  try {
    Admit(token, data);
  } catch (...) {
    lock.unlock();
    syslog(LOG_WARNING, "%s:%d failed to insert record into cache", kSource, 109);
  }
}

void LRUCacheStorage::Remove(const std::string& token) {
  const Lock lock(*mutex);
  try {
    const auto found = EvictUntilItFits([&] { return index->find(Key(token)); });
    if (found == index->end()) return;
    records->erase(found->second);
    index->erase(found);
  } catch (...) {
    throw std::runtime_error("storage/lru_cache_storage.cpp:132 failed to remove record in cache");
  }
}

Json::Value LRUCacheStorage::GetAssociatedData(const std::string& token) {
  Lock lock(*mutex);
  try {
    const auto found = EvictUntilItFits([&] { return index->find(Key(token)); });
    if (found != index->end()) return Use(found->second);
  } catch (...) {
    lock.unlock();
    syslog(LOG_WARNING, "%s:%d failed to find record in cache", kSource, 162);
    throw cache_miss();
  }
  Count(stats->miss);
  throw cache_miss();
}

Json::Value LRUCacheStorage::GetStatistics() {
  Json::Value counters(Json::objectValue);
  counters["hit"] = Json::UInt64{stats->hit};
  counters["miss"] = Json::UInt64{stats->miss};
  counters["total"] = Json::UInt64{stats->total};
  return counters;
}

void LRUCacheStorage::Evict(unsigned int count) {
  syslog(LOG_WARNING,
         "%s:%d %zu records in cache, %u records are going to be evicted from cache, consider "
         "increasing cache size",
         kSource, 182, static_cast<std::size_t>(index->size()), count);
  for (; count != 0 && !index->empty(); --count) {
    index->erase(records->back().first);
    records->pop_back();
  }
}

void LRUCacheStorage::Admit(const std::string& token, const Json::Value& data) {
  ShmString key = EvictUntilItFits([&] { return Key(token); });
  if (index->find(key) != index->end()) return;

  const std::string serialised = toString(data);
  ShmString text = EvictUntilItFits([&] { return ToShm(serialised.data(), serialised.size()); });
  EvictUntilItFits([&] { records->emplace_front(std::move(key), std::move(text)); });
  try {
    EvictUntilItFits([&] { index->emplace(records->front().first, records->begin()); });
  } catch (const ipc::bad_alloc&) {
    records->pop_front();
    throw;
  }
}

LRUCacheStorage::ShmString LRUCacheStorage::ToShm(const char* text, std::size_t length) {
  // For a text longer than the whole segment, the string would throw length_error, not bad_alloc.
  if (length >= segment.get_size()) throw ipc::bad_alloc();
  return {text, length, allocator};
}

LRUCacheStorage::ShmString LRUCacheStorage::Key(const std::string& token) {
  return ToShm(token.c_str(), std::char_traits<char>::length(token.c_str()));
}

Json::Value LRUCacheStorage::Use(const RecencyList::iterator& record) {
  Json::Value data;
  // The text is valid, but a stream inside of jsoncpp takes a failed allocation for a wrong number.
  if (!fromString({record->second.data(), record->second.size()}, data)) throw std::bad_alloc();
  records->splice(records->begin(), *records, record);
  Count(stats->hit);
  return data;
}

void LRUCacheStorage::Count(std::uint64_t& counter) {
  if (++counter == 0 || ++stats->total == 0) *stats = _ShmCacheStats();
}

}  // namespace ZELT::TokenManager

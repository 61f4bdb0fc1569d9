// The bare limit of the cache: the same list and map in the same segment behind the same mutex,
// without statistics, and without anything that guards a step against failing.
#pragma once

#include <boost/container/list.hpp>
#include <boost/container/map.hpp>
#include <boost/container/string.hpp>
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/anonymous_shared_memory.hpp>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/indexes/iset_index.hpp>
#include <boost/interprocess/managed_external_buffer.hpp>
#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/mem_algo/rbtree_best_fit.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/interprocess/sync/mutex_family.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <string>
#include <utility>

#include "bare_json.h"
#include "zelttokenmanager/token_storage.h"

namespace bare {

namespace ipc = boost::interprocess;

class Cache : public ZELT::TokenManager::TokenStorage {
 public:
  explicit Cache(unsigned int size)
      : region(ipc::anonymous_shared_memory(size)),
        segment(ipc::create_only, region.get_address(), region.get_size()),
        allocator(segment.get_segment_manager()),
        mutex(*segment.construct<ipc::interprocess_mutex>(ipc::anonymous_instance)()),
        records(*segment.construct<List>(ipc::anonymous_instance)(allocator)),
        index(*segment.construct<Map>(ipc::anonymous_instance)(allocator)) {}

  void Insert(const std::string& token, const Json::Value& data) override {
    const Guard guard(mutex);
    const std::string text = Write(data);
    while (!TryInsert(token, text)) DropLast();
  }

  void Remove(const std::string& token) override {
    const Guard guard(mutex);
    const auto found = index.find(Key(token));
    records.erase(found->second);
    index.erase(found);
  }

  Json::Value GetAssociatedData(const std::string& token) override {
    const Guard guard(mutex);
    const auto found = index.find(Key(token));
    if (found == index.end()) throw ZELT::TokenManager::cache_miss();
    const String& text = found->second->second;
    Json::Value data = Parse(text.data(), text.data() + text.size());
    records.splice(records.begin(), records, found->second);
    return data;
  }

 private:
  using Guard = ipc::scoped_lock<ipc::interprocess_mutex>;
  using Segment = ipc::basic_managed_external_buffer<char, ipc::rbtree_best_fit<ipc::mutex_family>,
                                                     ipc::iset_index>;
  template <typename T>
  using Allocator = ipc::allocator<T, Segment::segment_manager>;
  using String = boost::container::basic_string<char, std::char_traits<char>, Allocator<char>>;
  using Record = std::pair<String, String>;
  using List = boost::container::list<Record, Allocator<Record>>;
  using Map = boost::container::map<String, List::iterator, std::less<String>,
                                    Allocator<std::pair<const String, List::iterator>>>;

  String Key(const std::string& token) { return {token.data(), token.size(), allocator}; }

  void DropLast() {
    index.erase(records.back().first);
    records.pop_back();
  }

  bool TryInsert(const std::string& token, const std::string& text) {
    const std::size_t before = records.size();
    try {
      records.emplace_front(Key(token), String(text.data(), text.size(), allocator));
      index.emplace(records.front().first, records.begin());
      return true;
    } catch (const ipc::bad_alloc&) {
      if (records.size() > before) records.pop_front();
      return false;
    }
  }

  ipc::mapped_region region;
  Segment segment;
  Allocator<char> allocator;
  ipc::interprocess_mutex& mutex;
  List& records;
  Map& index;
};

}  // namespace bare

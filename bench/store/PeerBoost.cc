// SPDX-License-Identifier: Apache-2.0
//
// Boost.Interprocess: an unordered_map in a mapped file that several processes may share, under a
// sharable mutex beside it. A lookup copies the record while it holds the mutex.
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/managed_mapped_file.hpp>
#include <boost/interprocess/sync/interprocess_sharable_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/interprocess/sync/sharable_lock.hpp>
#include <boost/unordered_map.hpp>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "bench/store/Contestant.h"

namespace StoreBench {
namespace {

namespace ip = boost::interprocess;

struct Hash {
  std::size_t operator()(const IntfId& key) const noexcept { return key.hash(); }
};

class BoostTable {
  using Entry = std::pair<const IntfId, Record>;
  using Allocator = ip::allocator<Entry, ip::managed_mapped_file::segment_manager>;
  using Map = boost::unordered_map<IntfId, Record, Hash, std::equal_to<IntfId>, Allocator>;
  using Mutex = ip::interprocess_sharable_mutex;

 public:
  explicit BoostTable(std::size_t count)
      : file_(ip::create_only, name_.c_str(), 65'536 + 128 * count),
        mutex_(*file_.construct<Mutex>("mutex")()),
        map_(*file_.construct<Map>("map")(count, Hash(), std::equal_to<IntfId>(),
                                          Allocator(file_.get_segment_manager()))) {}
  BoostTable(const BoostTable&) = delete;
  BoostTable& operator=(const BoostTable&) = delete;
  ~BoostTable() { std::filesystem::remove(name_); }

  void insert(std::uint32_t place, const IntfId& key) {
    const ip::scoped_lock<Mutex> lock(mutex_);
    map_.emplace(key, Record{key, place, 0, 0});
  }
  const Record* lookup(std::uint32_t, const IntfId& key) {
    const ip::sharable_lock<Mutex> lock(mutex_);
    const auto found = map_.find(key);
    if (found == map_.end()) return nullptr;
    copy_ = found->second;
    return &copy_;
  }
  void update(std::uint32_t, const IntfId& key, std::uint32_t value) {
    const ip::scoped_lock<Mutex> lock(mutex_);
    map_[key] = {key, value, value, value};
  }
  void remove(std::uint32_t, const IntfId& key) {
    const ip::scoped_lock<Mutex> lock(mutex_);
    map_.erase(key);
  }
  template <class Visit>
  void iterate(const Visit& visit) {
    const ip::sharable_lock<Mutex> lock(mutex_);
    for (const auto& [key, record] : map_) visit(record);
  }
  std::size_t bytes() const { return file_.get_size() - file_.get_free_memory(); }

 private:
  const std::string name_ = tableRoot() + "/boost";
  ip::managed_mapped_file file_;
  Mutex& mutex_;
  Map& map_;
  Record copy_;
};

const bool registered = registerTable<BoostTable>("boost");

}  // namespace
}  // namespace StoreBench

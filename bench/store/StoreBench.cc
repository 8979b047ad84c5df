// SPDX-License-Identifier: Apache-2.0
//
// The table store beside what else keeps records under keys: the operations of Contestant.h on the
// store, on the limits of Arrays.h, on std::unordered_map, and on the libraries of the files
// Peer*.cc, as far as they are installed. One process, one thread; SharedBench.cc has what needs
// several. scripts/bench-store runs both and prints the table of ratios.
#include <memory>
#include <unordered_map>

#include "bench/store/Arrays.h"
#include "bench/store/Contestant.h"
#include "bench/store/QuillTable.h"

namespace StoreBench {
namespace {

class StandardMap {
 public:
  explicit StandardMap(std::size_t count) { records_.reserve(count); }
  void insert(std::uint32_t place, const IntfId& key) {
    records_.emplace(key, Record{key, place, 0, 0});
  }
  const Record* lookup(std::uint32_t, const IntfId& key) const {
    const auto found = records_.find(key);
    return found == records_.end() ? nullptr : &found->second;
  }
  void update(std::uint32_t, const IntfId& key, std::uint32_t value) {
    records_[key] = {key, value, value, value};
  }
  void remove(std::uint32_t, const IntfId& key) { records_.erase(key); }
  template <class Visit>
  void iterate(const Visit& visit) const {
    for (const auto& [key, record] : records_) visit(record);
  }

 private:
  std::unordered_map<IntfId, Record> records_;
};

const bool registered = registerTable<FlatByPlace>("flat_by_place") &&
                        registerTable<FlatByKey>("flat_by_key") &&
                        registerTable<QuillTable>("store") && registerTable<StandardMap>("map");

}  // namespace
}  // namespace StoreBench

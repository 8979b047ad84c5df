// SPDX-License-Identifier: Apache-2.0
//
// The table store beside what one would take inside one process: an unsynchronised flat array, in
// which a record's place is known, and std::unordered_map. The same records and the same orders for
// all: 20 bytes under an 8-byte key, 100 to 1,000,000 of them, visited in a shuffled order with a
// fixed seed. Times are per record.
//
//   Hit, Miss   one lookup; the store's as a reader of the mapped files
//   Update      one write of a key that is there; the store's with its notification
//   Insert      into an empty table of that size, growth included
//   Remove      of all records
//   Iterate     over all records
//
// The files lie in memory (/dev/shm) where there is such a place.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "quill/QuillReader.h"
#include "quill/QuillWriter.h"
#include "runtime/portus/IntfId.h"
#include "runtime/vex/EpollActivityManager.h"

namespace {

using Portus::IntfId;

struct Record {
  IntfId key;
  std::uint32_t tx = 0;
  std::uint32_t rx = 0;
  std::uint32_t rxOther = 0;

  friend bool operator==(const Record&, const Record&) = default;
};

// The keys of `count` records, all different, and as many that are not there; and the order of
// visits.
struct Keys {
  explicit Keys(std::size_t count) : order(count) {
    std::mt19937_64 random(20261121);
    for (std::size_t i = 0; i < count; ++i) {
      present.push_back(IntfId::fromValue(random() << 1));
      absent.push_back(IntfId::fromValue(random() | 1));
    }
    std::sort(present.begin(), present.end());
    present.erase(std::unique(present.begin(), present.end()), present.end());
    order.resize(present.size());
    std::iota(order.begin(), order.end(), 0U);
    std::shuffle(order.begin(), order.end(), random);
  }
  std::vector<IntfId> present;
  std::vector<IntfId> absent;
  std::vector<std::uint32_t> order;
};

const Keys& keysOf(std::size_t count) {
  static std::unordered_map<std::size_t, std::unique_ptr<Keys>> all;
  std::unique_ptr<Keys>& keys = all[count];
  if (keys == nullptr) keys = std::make_unique<Keys>(count);
  return *keys;
}

// --- what is compared; each finds a record by its key or, the array, by its place

class FlatArray {
 public:
  explicit FlatArray(std::size_t count) : records_(count) {}
  void insert(std::uint32_t place, const IntfId& key) { records_[place] = {key, place, 0, 0}; }
  const Record* lookup(std::uint32_t place, const IntfId&) const { return &records_[place]; }
  void update(std::uint32_t place, const IntfId& key, std::uint32_t value) {
    records_[place] = {key, value, value, value};
  }
  void remove(std::uint32_t place, const IntfId&) { records_[place] = {}; }
  template <class Visit>
  void iterate(const Visit& visit) const {
    for (const Record& record : records_) visit(record);
  }

 private:
  std::vector<Record> records_;
};

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

// A root directory in memory, removed at the end of the program.
const std::string& tableRoot() {
  static const struct Root {
    Root() {
      const char* const shm = "/dev/shm";
      std::string pattern =
          (std::filesystem::exists(shm) ? std::string(shm)
                                        : std::filesystem::temp_directory_path().string()) +
          "/quill-bench-XXXXXX";
      path = mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
    }
    ~Root() {
      std::error_code ignored;
      if (!path.empty()) std::filesystem::remove_all(path, ignored);
    }
    std::string path;
  } root;
  return root.path;
}

// The writer changes, a reader of the same files looks up and iterates.
class Store {
 public:
  explicit Store(std::size_t count)
      : current_(loop_),
        writer_(handler_, name_.c_str(), static_cast<unsigned>(count), false, "bench"),
        reader_(handler_, name_.c_str()) {
    writer_.initialize();
    reader_.initialize();
  }
  ~Store() {
    reader_.detach();
    writer_.detach();
    writer_.cleanup();
  }
  void insert(std::uint32_t place, const IntfId& key) { writer_.write({key, place, 0, 0}, true); }
  const Record* lookup(std::uint32_t, const IntfId& key) const {
    bool found = false;
    const Record& record = reader_.lookup(key, found);
    return found ? &record : nullptr;
  }
  void update(std::uint32_t, const IntfId& key, std::uint32_t value) {
    writer_.write({key, value, value, value}, true);
  }
  void remove(std::uint32_t, const IntfId& key) {
    Record old;
    writer_.remove(key, old);
  }
  template <class Visit>
  void iterate(const Visit& visit) const {
    Record record;
    Quill::IterHint hint;
    for (bool more = reader_.first(record, hint); more;) {
      visit(record);
      more = reader_.next(record.key, record, hint);
    }
  }

 private:
  Vex::EpollActivityManager loop_;
  Vex::CurrentActivityManager current_;
  Sable::Platform::DebugHandler handler_{"bench"};
  std::string name_ = Quill::tablePath(tableRoot(), "bench");
  Quill::QuillWriter<IntfId, Record> writer_;
  Quill::QuillReader<IntfId, Record> reader_;
};

template <class Table>
void fill(Table& table, const Keys& keys) {
  for (const std::uint32_t place : keys.order) table.insert(place, keys.present[place]);
}

void perRecord(benchmark::State& state, std::size_t records) {
  state.counters["ns/record"] = benchmark::Counter(
      static_cast<double>(records) / 1e9,
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

template <class Table>
void hit(benchmark::State& state) {
  const Keys& keys = keysOf(static_cast<std::size_t>(state.range(0)));
  Table table(keys.present.size());
  fill(table, keys);
  for (auto _ : state) {
    std::uint64_t sum = 0;
    for (const std::uint32_t place : keys.order) {
      sum += table.lookup(place, keys.present[place])->tx;
    }
    const std::uint64_t count = keys.present.size();
    if (sum != count * (count - 1) / 2) state.SkipWithError("a lookup gave a wrong record");
  }
  perRecord(state, keys.order.size());
}

template <class Table>
void miss(benchmark::State& state) {
  const Keys& keys = keysOf(static_cast<std::size_t>(state.range(0)));
  Table table(keys.present.size());
  fill(table, keys);
  for (auto _ : state) {
    for (const std::uint32_t place : keys.order) {
      if (table.lookup(place, keys.absent[place]) != nullptr) state.SkipWithError("found");
    }
  }
  perRecord(state, keys.order.size());
}

template <class Table>
void update(benchmark::State& state) {
  const Keys& keys = keysOf(static_cast<std::size_t>(state.range(0)));
  Table table(keys.present.size());
  fill(table, keys);
  std::uint32_t value = 0;
  for (auto _ : state) {
    ++value;
    for (const std::uint32_t place : keys.order) table.update(place, keys.present[place], value);
    benchmark::ClobberMemory();
  }
  perRecord(state, keys.order.size());
}

template <class Table>
void insert(benchmark::State& state) {
  const Keys& keys = keysOf(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    auto table = std::make_unique<Table>(keys.present.size());
    state.ResumeTiming();
    fill(*table, keys);
    state.PauseTiming();
    table.reset();
    state.ResumeTiming();
  }
  perRecord(state, keys.order.size());
}

template <class Table>
void remove(benchmark::State& state) {
  const Keys& keys = keysOf(static_cast<std::size_t>(state.range(0)));
  Table table(keys.present.size());
  for (auto _ : state) {
    state.PauseTiming();
    fill(table, keys);
    state.ResumeTiming();
    for (const std::uint32_t place : keys.order) table.remove(place, keys.present[place]);
  }
  perRecord(state, keys.order.size());
}

template <class Table>
void iterate(benchmark::State& state) {
  const Keys& keys = keysOf(static_cast<std::size_t>(state.range(0)));
  Table table(keys.present.size());
  fill(table, keys);
  for (auto _ : state) {
    std::size_t seen = 0;
    std::uint64_t sum = 0;
    table.iterate([&](const Record& record) {
      ++seen;
      sum += record.tx;
    });
    benchmark::DoNotOptimize(sum);
    if (seen != keys.present.size()) state.SkipWithError("not every record was visited");
  }
  perRecord(state, keys.order.size());
}

#define STORE_BENCH(operation)                                              \
  BENCHMARK(operation<FlatArray>)->Arg(100)->Arg(65'536)->Arg(1'000'000);   \
  BENCHMARK(operation<StandardMap>)->Arg(100)->Arg(65'536)->Arg(1'000'000); \
  BENCHMARK(operation<Store>)->Arg(100)->Arg(65'536)->Arg(1'000'000)

STORE_BENCH(hit);
STORE_BENCH(update);
STORE_BENCH(insert);
STORE_BENCH(remove);
STORE_BENCH(iterate);
BENCHMARK(miss<StandardMap>)->Arg(100)->Arg(65'536)->Arg(1'000'000);
BENCHMARK(miss<Store>)->Arg(100)->Arg(65'536)->Arg(1'000'000);

}  // namespace

// SPDX-License-Identifier: Apache-2.0
//
// A reader of the table store beside a writer process that stands still, and beside one that
// updates at full speed on the other processor; and a flat array in one process:
//
//   hit/store_idle, hit/store_busy   lookups one after the other
//   latency/store_idle, _busy        the times of single lookups
//
// FollowBench.cc has writers that are followed, WakeBench.cc wake-ups. Names are
// <operation>/<contestant>/<records>.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bench/store/Arrays.h"
#include "bench/store/Contestant.h"
#include "bench/store/QuillTable.h"
#include "bench/store/Shared.h"

namespace StoreBench {
namespace {

// A reader of the table of a writer process that is idle or busy.
class BesideWriter {
 public:
  BesideWriter(const Keys& keys, bool busy)
      : writer_([this, &keys] { writeForever(*page_, name_, keys); }),
        reader_(handler_, name_.c_str()) {
    processorIs(0);
    if (!await([this] { return page_->ready.load(); }, sched_yield) || !reader_.initialize()) {
      error_ = "there is no table";
      return;
    }
    page_->go = busy;
    if (busy && !await([this] { return page_->work != 0; }, sched_yield)) {
      error_ = "the writer does not work";
    }
  }
  BesideWriter(const BesideWriter&) = delete;
  BesideWriter& operator=(const BesideWriter&) = delete;
  ~BesideWriter() {
    reader_.detach();
    std::error_code ignored;
    std::filesystem::remove_all(name_, ignored);
  }
  // Whether the record is there and whole.
  bool found(const IntfId& key) const {
    bool found = false;
    const Record& record = reader_.lookup(key, found);
    return found && record.key == key && record.tx == record.rx && record.rx == record.rxOther;
  }
  std::uint64_t work() const { return page_->work; }
  const char* error() const { return error_; }

 private:
  std::string name_ = Quill::tablePath(tableRoot(), "beside");
  std::unique_ptr<SharedPage, void (*)(SharedPage*)> page_ = newSharedPage();
  Helper writer_;
  Sable::Platform::DebugHandler handler_{"bench"};
  QuillReader reader_;
  const char* error_ = nullptr;
};

template <bool busy>
void hitBeside(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  const BesideWriter table(keys, busy);
  if (table.error() != nullptr) return state.SkipWithError(table.error());
  const std::uint64_t before = table.work();
  for (auto _ : state) {
    std::size_t found = 0;
    for (const IntfId& key : keys.present) found += table.found(key) ? 1U : 0U;
    if (found != keys.count()) state.SkipWithError("a wrong record");
  }
  perRecord(state, keys.count());
  // Updates for each lookup: that there was a writer at work.
  state.counters["updates"] =
      static_cast<double>(table.work() - before) /
      (static_cast<double>(state.iterations()) * static_cast<double>(keys.count()));
}

// A counter that ticks at a constant rate and is read after what stands before it has been done.
std::uint64_t ticks() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_lfence();
  const std::uint64_t now = __builtin_ia32_rdtsc();
  __builtin_ia32_lfence();
  return now;
#else
  return nanoseconds();
#endif
}

double quantile(const std::vector<std::uint64_t>& sorted, double share) {
  const auto index = static_cast<std::size_t>(share * static_cast<double>(sorted.size()));
  return static_cast<double>(sorted[std::min(index, sorted.size() - 1)]);
}

// The cost of the clock, the median of as many pairs of readings, is subtracted, and reported.
template <bool busy>
void latency(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  const BesideWriter table(keys, busy);
  if (table.error() != nullptr) return state.SkipWithError(table.error());
  std::vector<std::uint64_t> times(std::max<std::size_t>(keys.count(), 100'000));
  for (auto _ : state) {
    const std::uint64_t wallBegin = nanoseconds();
    const std::uint64_t ticksBegin = ticks();
    for (std::uint64_t& time : times) {
      const std::uint64_t begin = ticks();
      time = ticks() - begin;
    }
    std::sort(times.begin(), times.end());
    const std::uint64_t clock = times[times.size() / 2];
    bool right = true;
    for (std::size_t i = 0; i < times.size(); ++i) {
      const IntfId& key = keys.present[i % keys.count()];
      const std::uint64_t begin = ticks();
      const bool found = table.found(key);
      const std::uint64_t time = ticks() - begin;
      times[i] = time > clock ? time - clock : 0;
      right = right && found;
    }
    const double scale =
        static_cast<double>(nanoseconds() - wallBegin) / static_cast<double>(ticks() - ticksBegin);
    if (!right) state.SkipWithError("a wrong record");
    std::sort(times.begin(), times.end());
    state.counters["p50"] = scale * quantile(times, 0.5);
    state.counters["p99"] = scale * quantile(times, 0.99);
    state.counters["p999"] = scale * quantile(times, 0.999);
    const auto slow =
        std::lower_bound(times.begin(), times.end(), static_cast<std::uint64_t>(400.0 / scale));
    state.counters["below400"] =
        100.0 * static_cast<double>(slow - times.begin()) / static_cast<double>(times.size());
    state.counters["clock"] = scale * static_cast<double>(clock);
  }
}

const bool registered = [] {
  const auto any = maxRecordsOf<FlatByKey>();
  registerSizes("hit/flat_by_key", hit<FlatByKey>, any);
  registerSizes("hit/store_idle", hitBeside<false>, any);
  registerSizes("hit/store_busy", hitBeside<true>, any);
  for (const std::int64_t size : kSizes) {
    for (const bool busy : {false, true}) {
      benchmark::RegisterBenchmark(busy ? "latency/store_busy" : "latency/store_idle",
                                   busy ? latency<true> : latency<false>)
          ->Arg(size)
          ->UseRealTime()
          ->Iterations(1);
    }
  }
  return true;
}();

}  // namespace
}  // namespace StoreBench

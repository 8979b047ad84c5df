// SPDX-License-Identifier: Apache-2.0
//
// A writer of the table store that shadows follow in processes of their own, and what it costs to
// begin with a table that is there:
//
//   update/store_<n>, insert/store_<n>   a writer that n shadows follow, all of them on the other
//                                        processor; beside a flat array in one process
//   attach                               a writer takes over a kept table, validation included
//   shadow                               a shadow's first copy
//   resync                               a shadow goes over the table and nothing has changed
//
// A writer's time is that of its processor: it waits for nobody, and where eight shadows work for
// it others may press onto its processor. Names are <operation>/<contestant>/<records>.
#include <cstdint>
#include <memory>
#include <string>

#include "bench/store/Arrays.h"
#include "bench/store/Contestant.h"
#include "bench/store/QuillTable.h"
#include "bench/store/Shared.h"
#include "quill/QuillShadow.h"

namespace StoreBench {
namespace {

// --- a writer that is followed

// How many changes a writer makes between two turns of its loop.
constexpr std::size_t kTurn = 1'024;

template <unsigned shadows>
void followedUpdate(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  FollowedTable table(keys.count(), shadows);
  if (table.error() != nullptr) return state.SkipWithError(table.error());
  for (const IntfId& key : keys.byPlace) table.writer().write({key, 0, 0, 0}, true);
  if (!table.settle()) return state.SkipWithError("a shadow does not follow");
  std::uint32_t value = 0;
  for (auto _ : state) {
    ++value;
    state.SetIterationTime(secondsOf(keys.count(), false, [&] {
      for (std::size_t i = 0; i < keys.count(); ++i) {
        if (i % kTurn == 0) table.turn();
        table.writer().write({keys.present[i], value, value, value}, true);
      }
    }));
  }
  if (!table.settle()) return state.SkipWithError("a shadow does not follow");
  perRecord(state, keys.count());
}

template <unsigned shadows>
void followedInsert(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  for (auto _ : state) {
    FollowedTable table(keys.count(), shadows);
    if (table.error() != nullptr) return state.SkipWithError(table.error());
    state.SetIterationTime(secondsOf(keys.count(), false, [&] {
      for (std::uint32_t place = 0; place < keys.count(); ++place) {
        if (place % kTurn == 0) table.turn();
        table.writer().write({keys.byPlace[place], place, 0, 0}, true);
      }
    }));
    if (!table.settle()) return state.SkipWithError("a shadow does not follow");
  }
  perRecord(state, keys.count());
}

// --- attaching and copying

struct CountingNotifier {
  void notify(const IntfId&) { ++count; }
  std::size_t count = 0;
};

struct CountingMap {
  CountingNotifier* notifier() { return &counting; }
  void corruptionDetected(const std::string&) { damaged = true; }
  void handleDisconnect() {}
  CountingNotifier counting;
  bool damaged = false;
};

// A table, kept when its writer detaches.
class KeptTable {
 public:
  explicit KeptTable(const Keys& keys) : current_(loop_), keys_(keys) {
    attach();
    for (std::uint32_t place = 0; place < keys.count(); ++place) {
      writer_->write({keys.byPlace[place], place, 0, 0}, true);
    }
  }
  KeptTable(const KeptTable&) = delete;
  KeptTable& operator=(const KeptTable&) = delete;
  ~KeptTable() {
    writer_->detach();
    writer_->cleanup();
  }
  void attach() {
    writer_ = std::make_unique<QuillWriter>(handler_, name_.c_str(),
                                            static_cast<unsigned>(keys_.count()), false, "bench");
    writer_->initialize();
  }
  void detach() { writer_->detach(); }
  unsigned members() const { return writer_->members(); }
  std::unique_ptr<Quill::QuillShadow<IntfId, Record, CountingMap>> newShadow(CountingMap& map) {
    return std::make_unique<Quill::QuillShadow<IntfId, Record, CountingMap>>(
        handler_, name_.c_str(), &map, 0U);
  }

 private:
  Vex::EpollActivityManager loop_;
  Vex::CurrentActivityManager current_;
  const Keys& keys_;
  Sable::Platform::DebugHandler handler_{"bench"};
  std::string name_ = Quill::tablePath(tableRoot(), "kept");
  std::unique_ptr<QuillWriter> writer_;
};

void attach(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  KeptTable table(keys);
  for (auto _ : state) {
    table.detach();
    state.SetIterationTime(secondsOf(keys.count(), false, [&] { table.attach(); }));
    if (table.members() != keys.count()) state.SkipWithError("the table was given up");
  }
  perRecord(state, keys.count());
}

void firstCopy(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  KeptTable table(keys);
  for (auto _ : state) {
    CountingMap map;
    const auto shadow = table.newShadow(map);
    state.SetIterationTime(secondsOf(keys.count(), false, [&] { shadow->initialize(); }));
    if (map.counting.count != keys.count()) state.SkipWithError("not every key was notified");
    shadow->detach();
  }
  perRecord(state, keys.count());
}

void resync(benchmark::State& state) {
  const Keys& keys = keysOf(state);
  KeptTable table(keys);
  CountingMap map;
  const auto shadow = table.newShadow(map);
  shadow->initialize();
  shadow->yieldTimeIs(0);  // in one go
  map.counting.count = 0;
  for (auto _ : state) {
    state.SetIterationTime(secondsOf(keys.count(), false, [&] { shadow->resync(); }));
  }
  if (map.counting.count != 0) state.SkipWithError("what had not changed was notified");
  if (shadow->readerCounters().resyncs != state.iterations()) state.SkipWithError("no resync");
  shadow->detach();
  perRecord(state, keys.count());
}

// Ten times as often with 100 records, once with the most: eight shadows have to follow it all.
void registerPrepared(const char* name, void (*function)(benchmark::State&), unsigned iterations) {
  for (const std::int64_t size : kSizes) {
    benchmark::RegisterBenchmark(name, function)
        ->Arg(size)
        ->UseManualTime()
        ->Iterations(size == 100         ? 10 * iterations
                     : size == 1'000'000 ? 1
                                         : iterations);
  }
}

const bool registered = [] {
  const auto any = maxRecordsOf<FlatByKey>();
  registerSizes("update/flat_by_key", update<FlatByKey>, any);
  registerPrepared("update/store_0", followedUpdate<0>, 5);
  registerPrepared("update/store_1", followedUpdate<1>, 5);
  registerPrepared("update/store_8", followedUpdate<8>, 5);
  registerSizes("insert/flat_by_key", insert<FlatByKey>, any, false, true);
  registerPrepared("insert/store_0", followedInsert<0>, 1);
  registerPrepared("insert/store_1", followedInsert<1>, 1);
  registerPrepared("insert/store_8", followedInsert<8>, 1);
  registerPrepared("attach/store", attach, 3);
  registerPrepared("shadow/store", firstCopy, 3);
  registerPrepared("resync/store", resync, 3);
  return true;
}();

}  // namespace
}  // namespace StoreBench

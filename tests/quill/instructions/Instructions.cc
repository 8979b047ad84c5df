// SPDX-License-Identifier: Apache-2.0
//
// The store's operations, one kind after the other, each a known number of times between two signs
// to valgrind's callgrind, which counts the instructions; scripts/check-instructions runs it and
// divides. For every kind it prints "<times> <name>".
//
// What is counted are the instructions of this process, the loops here included and the kernel's
// not. They say nothing of caches; bench/store has the times. Keys, their order and the virtual
// clock are fixed, so that two runs of one binary differ by nothing.
//
// Exits with 1 if an operation has not done what was counted.
#include <stdlib.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "quill/QuillReader.h"
#include "quill/QuillShadow.h"
#include "quill/QuillWriter.h"
#include "runtime/portus/IntfId.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace {

using Portus::IntfId;

struct Record {
  IntfId key;
  std::uint32_t tx = 0;
  std::uint32_t rx = 0;
  std::uint32_t rxOther = 0;

  friend bool operator==(const Record&, const Record&) = default;
};

struct Notifier {
  void notify(const IntfId&) { ++count; }
  std::uint32_t count = 0;
};

struct Map {
  Notifier* notifier() { return &counting; }
  void corruptionDetected(const std::string&) {}
  void handleDisconnect() {}
  Notifier counting;
};

constexpr std::uint32_t kRecords = 65'536;
constexpr unsigned kBatch = 64;

// `work` does the operation `times` times and answers how many of them did what they should.
template <class Work>
void counted(const char* name, std::uint32_t times, const Work& work) {
  CALLGRIND_TOGGLE_COLLECT;
  const std::uint32_t done = work();
  CALLGRIND_TOGGLE_COLLECT;
  CALLGRIND_DUMP_STATS_AT(name);
  if (done != times) {
    std::fprintf(stderr, "%s: %u of %u did what they should\n", name, done, times);
    std::exit(1);
  }
  std::printf("%u %s\n", times, name);
}

class Counting {
 public:
  explicit Counting(const std::string& root)
      : current_(loop_),
        name_(Quill::tablePath(root, "counted")),
        writer_(handler_, name_.c_str(), kRecords, false, "counted"),
        reader_(handler_, name_.c_str()) {
    std::mt19937_64 random(20261121);
    for (std::uint32_t i = 0; i < kRecords; ++i) {
      present_.push_back(IntfId::fromValue(random() << 17 | i));
      absent_.push_back(IntfId::fromValue(random() << 17 | 1U << 16 | i));
    }
    writer_.initialize();
    reader_.initialize();
  }

  void run() {
    counted("insert", kRecords, [this] { return write(0); });
    // Inserts and lookups have different orders, as they do in life.
    std::shuffle(present_.begin(), present_.end(), std::mt19937_64(1));
    counted("update with its notification", kRecords, [this] { return write(1); });
    counted("lookup, hit", kRecords, [this] { return lookups(reader_, present_); });
    counted("lookup, miss", kRecords, [this] { return kRecords - lookups(reader_, absent_); });
    counted("lookup in bulk, a record", kRecords, [this] { return bulk(); });
    counted("iteration, a step", kRecords, [this] { return iterate(reader_); });
    shadow();
    counted("remove", kRecords, [this] {
      std::uint32_t done = 0;
      Record old;
      for (const IntfId& key : present_) done += writer_.remove(key, old) ? 1U : 0U;
      return done;
    });
    reader_.detach();
    writer_.detach();
    writer_.cleanup();
  }

 private:
  using Shadow = Quill::QuillShadow<IntfId, Record, Map>;
  using Queue = Quill::ConquerReader<IntfId, Record, Map>;

  std::uint32_t write(std::uint32_t value) {
    std::uint32_t done = 0;
    for (const IntfId& key : present_) {
      done += writer_.write({key, value, value, value}, true) != nullptr ? 1U : 0U;
    }
    return done;
  }
  template <class Table>
  std::uint32_t lookups(const Table& table, const std::vector<IntfId>& keys) const {
    std::uint32_t done = 0;
    for (const IntfId& key : keys) {
      bool found = false;
      const Record& record = table.lookup(key, found);
      done += found && record.tx == 1 ? 1U : 0U;
    }
    return done;
  }
  std::uint32_t bulk() const {
    std::array<Record, kBatch> values;
    std::array<bool, kBatch> found{};
    std::uint32_t done = 0;
    for (std::uint32_t i = 0; i < kRecords; i += kBatch) {
      done += reader_.lookupMany(&present_[i], kBatch, values.data(), found.data());
    }
    return done;
  }
  template <class Table>
  std::uint32_t iterate(const Table& table) const {
    std::uint32_t done = 0;
    Record record;
    Quill::IterHint hint;
    for (bool more = table.first(record, hint); more; ++done) {
      more = table.next(record.key, record, hint);
    }
    return done;
  }
  void shadow() {
    Map map;
    Shadow shadow(handler_, name_.c_str(), &map, 0);
    counted("first copy of a shadow, a record", kRecords, [&] {
      shadow.initialize();
      return map.counting.count;
    });
    counted("lookup in a shadow", kRecords, [&] { return lookups(shadow, present_); });
    counted("iteration of a shadow, a step", kRecords, [&] { return iterate(shadow); });

    // The shadow's own batches cannot be called from here: another reader of the same queue, which
    // stands at its end.
    Quill::RootPath root(handler_, name_.c_str(), true);
    Quill::Reader::Counters counters;
    Queue queue(handler_, root, counters, shadow);
    queue.initialize();
    counters.lastConsumedSequence = writer_.sequence();
    queue.enabledIs(true);
    queue.handleEnabled();
    constexpr std::uint32_t kPolls = 1'000;
    counted("poll of an empty queue", kPolls, [&] {
      const std::uint32_t before = counters.queueEndVisits;
      for (std::uint32_t i = 0; i < kPolls; ++i) static_cast<void>(queue.conquer());
      return counters.queueEndVisits - before;
    });
    queue.doCloseWriterConnection(true);
    queue.detachConquer();
    shadow.detach();
  }

  Vex::VirtualActivityManager loop_;
  Vex::CurrentActivityManager current_;
  Sable::Platform::DebugHandler handler_{"counted"};
  std::string name_;
  Quill::QuillWriter<IntfId, Record> writer_;
  Quill::QuillReader<IntfId, Record> reader_;
  std::vector<IntfId> present_;
  std::vector<IntfId> absent_;
};

}  // namespace

int main() {
  std::string root = (std::filesystem::temp_directory_path() / "quill-counted-XXXXXX").string();
  if (mkdtemp(root.data()) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  Counting(root).run();
  std::error_code ignored;
  std::filesystem::remove_all(root, ignored);
  return 0;
}

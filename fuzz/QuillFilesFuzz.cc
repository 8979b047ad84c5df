// SPDX-License-Identifier: Apache-2.0
//
// A sound table whose files are spoilt at any time between operations, under a writer, a reader, a
// shadow and a key shadow of one process. Whatever the files hold: nothing but the documented
// exceptions, work that ends, and a next writer that attaches has a table in which everything is
// right. As long as nothing was spoilt, everybody reads what was written.
//
// The input: the shape of the table, then operations and edits, at most kSteps of them.
//
// Not shown: edits in the middle of an operation, which tests/quill/history does with processes;
// tables of other types and sizes.
#include <memory>
#include <string>

#include "fuzz/Input.h"
#include "fuzz/QuillTable.h"
#include "fuzz/TableRun.h"
#include "quill/QuillMap.h"
#include "runtime/sable/Exceptions.h"

namespace {

using Fuzz::Input;
using Fuzz::QuillTable;
using Fuzz::require;
using Fuzz::TableContent;
using Fuzz::TableKey;
using Fuzz::tableKey;
using Fuzz::TableRecord;
using Fuzz::tableRecord;
using Quill::QuillType;

constexpr unsigned kSteps = 64;
// Entries of an iteration: above what the longest file that an edit makes has room for.
constexpr unsigned kMaxEntries = 4'000;
constexpr std::uint32_t kMaxRetries = 100;

struct Listener {
  void notify(const TableKey&) noexcept {}
};

using Writer = Quill::QuillWriter<TableKey, TableRecord>;
using Reader = Quill::QuillReader<TableKey, TableRecord>;
using Map = Quill::QuillMap<TableKey, TableRecord, Listener>;

// What the store may raise about its files; anything else ends the process.
template <class Action>
bool done(const Action& action) {
  static const bool kTell =
      getenv("QUILL_FUZZ_TELL") != nullptr;  // for whoever looks into a finding
  const auto raised = [](const Sable::Exception& exception) {
    if (kTell) std::fprintf(stderr, "%s: %s\n", exception.name(), exception.msg().c_str());
    return false;
  };
  try {
    action();
    return true;
  } catch (const Quill::CorruptionDetectedException& exception) {
    return raised(exception);
  } catch (const Quill::TableFullException& exception) {
    return raised(exception);
  } catch (const Sable::InvalidInitializeException& exception) {
    return raised(exception);
  } catch (const Sable::MemoryResourceException& exception) {
    return raised(exception);
  } catch (const Sable::RuntimeException& exception) {
    return raised(exception);
  } catch (const Sable::NoPermissionException& exception) {
    return raised(exception);
  }
}

// Everything that an iteration gives.
template <class Table>
TableContent contentOf(const Table& table) {
  TableContent content;
  TableRecord record;
  Quill::IterHint hint;
  unsigned count = 0;
  for (bool more = table.first(record, hint); more;) {
    content[record.key.number] = record;
    require(++count <= kMaxEntries);
    more = table.next(TableKey(record.key), record, hint);
  }
  return content;
}

class Run : private Fuzz::TableRun {
 public:
  Run(const QuillTable& table, Input& input) : TableRun(table, input) {
    const QuillTable::Shape& shape = shapePut();
    content_ = shape.content;
    takenOver_ = shape.takenOver;
  }

  void steps() {
    for (unsigned i = 0; i < kSteps && !input_.empty(); ++i) step();
    settle();
    for (auto& map : maps_) map.reset();
    settle();
    recover();
  }

 private:
  // By QuillType.
  static constexpr std::size_t kWriter = 0;
  static constexpr std::size_t kActors = 4;

  Map* map(std::size_t actor) { return maps_[actor].get(); }

  void step() {
    switch (input_.below(12)) {
      case 0:
      case 1:
      case 2:
        table_.edit(input_);
        edited_ = true;
        return;
      case 3:
      case 4:
        return comeOrGo(input_.below(kActors));
      case 5:
        return change();
      case 6:
        return burst(input_.byte());
      case 7:
      case 8:
        return read(input_.below(kActors));
      case 9:
        return settle();
      case 10:
        // The limits of the store's own timers, and behind the longest.
        static constexpr std::array<double, 5> kTimes = {0.0, 0.5, 1.5, 61.0, 100.0};
        loop_.runFor(kTimes[input_.below(5)]);
        return;
      default:
        return ask(input_.below(kActors));
    }
  }

  void comeOrGo(std::size_t actor) {
    if (maps_[actor] != nullptr) {
      if (input_.flag()) static_cast<void>(done([&] { map(actor)->controlDetach(); }));
      maps_[actor].reset();
      return;
    }
    auto made = std::make_unique<Map>(table_.path(), "t");
    made->notifierIs(&listener_);
    const auto mode = static_cast<QuillType>(actor);
    const bool came = done([&] { made->init(mode, false, Fuzz::kTableSize); });
    if (actor == kWriter) {
      require(came || edited_);
      if (!came) return;
      if (!takenOver_) content_.clear();
      takenOver_ = true;
      if (!edited_) require(contentOf(*made) == content_);
    }
    maps_[actor] = std::move(made);
  }

  std::uint32_t someKey() { return tableKey(static_cast<std::uint32_t>(input_.below(160))); }

  void write(std::uint32_t key, std::uint32_t number) {
    const TableRecord record = tableRecord(key, number);
    const bool was = done([&] { map(kWriter)->safeWrite(record); });
    require(was || edited_);
    if (was) content_[record.key.number] = record;
  }

  void change() {
    if (map(kWriter) == nullptr) return;
    const TableKey key{someKey()};
    switch (input_.below(4)) {
      case 0:
        static_cast<void>(done([&] { map(kWriter)->safeRemove(key); }));
        content_.erase(key.number);
        return;
      case 1: {
        const TableRecord record = tableRecord(key.number, 7);
        const bool was = done([&] {
          const Quill::DirectTarget target = map(kWriter)->directWrite(key);
          Mem::Atomics::copyIn(target.address, &record, sizeof record);
          map(kWriter)->directCommit();
        });
        require(was || edited_);
        content_[key.number] = record;
        return;
      }
      default:
        return write(key.number, input_.byte());
    }
  }

  // A reader that lags across two moves of the queue may miss a change (quill/README.md), so the
  // loop gets its turn well before.
  void burst(std::uint8_t kind) {
    if (map(kWriter) == nullptr) return;
    const unsigned entries = 1 + kind % 150U;
    for (unsigned i = 0; i < 2U * (kind & 0xC0U); ++i) {
      write(tableKey(i % entries), i);
      if (i % 64 == 63) settle();
    }
  }

  void read(std::size_t actor) {
    if (map(actor) == nullptr) return;
    const Map& table = *map(actor);
    // An entry that the walk met is found by its key as well.
    TableContent content;
    const bool was = done([&] { content = contentOf(table); });
    require(was || edited_);
    static_cast<void>(done([&] {
      bool found = false;
      static_cast<void>(table.lookup({someKey()}, found));
    }));
    static_cast<void>(done([&] {
      bool found = false;
      static_cast<void>(table.safeLookup({input_.number<std::uint32_t>()}, found));
      static_cast<void>(table.directLookup({someKey()}, found));
    }));
    if (edited_) return;
    const bool shadow = actor == std::size_t{1} || actor == std::size_t{3};
    if (!shadow && (actor == kWriter || table.mountStatus() == 1)) require(content == content_);
    if (shadow && table.mountStatus() == 2) {
      settle();
      if (table.mountStatus() == 2) require(contentOf(table) == content_);
    }
  }

  void ask(std::size_t actor) {
    if (map(actor) == nullptr) return;
    Map& table = *map(actor);
    static_cast<void>(done([&] {
      switch (input_.below(6)) {
        case 0:
          return table.notifying(input_.flag());
        case 1:
          return table.notifying(true);
        case 2:
          return static_cast<void>(table.resize());
        case 3:
          return static_cast<void>(table.validate());
        case 4:
          return static_cast<void>(table.validateFiles());
        default:
          static_cast<void>(table.owner());
          return static_cast<void>(table.members() + table.maxSize() + table.capacity());
      }
    }));
    if (actor != kWriter) require(table.readerCounters().readRetries < kMaxRetries);
  }

  // A writer that comes afterwards: either it says why it cannot, or all is well.
  void recover() {
    Writer writer(handler_, table_.path().c_str(), Fuzz::kTableSize, false, "Fuzz");
    const bool came = done([&] { writer.initialize(); });
    require(came || edited_);
    if (!came) return;
    require(writer.validate());
    const TableContent before = contentOf(writer);
    if (!edited_) require(before == (takenOver_ ? content_ : TableContent()));
    // Iterations pass over what stands in a chain that does not ascend, which no check looks for.
    const bool ascending = before.size() == writer.members();
    if (ascending) write(writer, tableRecord(tableKey(3) + 900, 11));
    Reader reader(handler_, table_.path().c_str());
    // The number of buckets in a kept file is the reader's, and the writer's comes from its size.
    if (!done([&] { require(reader.initialize() || edited_); }) || reader.mountStatus() == 0)
      return;
    TableContent seen;
    const bool read = done([&] { seen = contentOf(reader); });
    require(read || edited_);
    if (ascending && read && sameBuckets()) require(seen == contentOf(writer));
  }

  static void write(Writer& writer, const TableRecord& fresh) {
    require(done([&] { writer.write(fresh, true); }));
    bool found = false;
    const TableRecord stored = writer.lookup(fresh.key, found);
    require(found && stored == fresh);
  }

  bool sameBuckets() const {
    return table_.u32(1, 16) == Quill::BucketTable::bucketsFor(Fuzz::kTableSize, Mem::pageSize_);
  }

  Listener listener_;
  TableContent content_;
  bool takenOver_ = true;
  bool edited_ = false;
  std::array<std::unique_ptr<Map>, kActors> maps_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const QuillTable table;
  Input input({data, size});
  Run(table, input).steps();
  return 0;
}

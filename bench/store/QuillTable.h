// SPDX-License-Identifier: Apache-2.0
//
// The store as a contestant: a writer that changes the files of one table in the memory file
// system, and a reader that maps the same files and looks up, iterates and asks in bulk. Both in
// this process, on one thread and one loop, which costs the same as in two as long as only one of
// them works.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <type_traits>

#include "bench/store/Operations.h"
#include "bench/store/Records.h"
#include "quill/QuillReader.h"
#include "quill/QuillWriter.h"
#include "runtime/vex/EpollActivityManager.h"

namespace StoreBench {

using QuillWriter = Quill::QuillWriter<IntfId, Record>;
using QuillReader = Quill::QuillReader<IntfId, Record>;

// All files of a table, its queue included.
std::size_t tableBytes(const std::string& path);

// A reader's lookup of several keys at once, where this version of the store has it.
template <class Reader>
concept BulkReader = requires(const Reader& reader, const IntfId* keys, Record* values,
                              bool* found) {
  reader.lookupMany(keys, 1U, values, found);
};

class QuillTable {
 public:
  explicit QuillTable(std::size_t count)
      : current_(loop_),
        writer_(handler_, name_.c_str(), static_cast<unsigned>(count), false, "bench"),
        reader_(handler_, name_.c_str()) {
    writer_.initialize();
    reader_.initialize();
  }
  QuillTable(const QuillTable&) = delete;
  QuillTable& operator=(const QuillTable&) = delete;
  ~QuillTable() {
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
  template <class Reader = QuillReader>
  std::uint64_t lookupMany(const IntfId* keys, unsigned count) const requires BulkReader<Reader> {
    std::array<Record, kBatch> values;
    std::array<bool, kBatch> found{};
    const Reader& reader = reader_;
    reader.lookupMany(keys, count, values.data(), found.data());
    std::uint64_t sum = 0;
    for (unsigned i = 0; i < count; ++i) sum += found[i] ? values[i].tx : ~0U;
    return sum;
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
  std::size_t bytes() const { return tableBytes(name_); }

 private:
  Vex::EpollActivityManager loop_;
  Vex::CurrentActivityManager current_;
  Sable::Platform::DebugHandler handler_{"bench"};
  std::string name_ = Quill::tablePath(tableRoot(), "bench");
  QuillWriter writer_;
  QuillReader reader_;
};

}  // namespace StoreBench

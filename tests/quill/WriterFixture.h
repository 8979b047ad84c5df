// SPDX-License-Identifier: Apache-2.0
//
// A shared table with its writer, and its files as somebody else sees them.
#pragma once

#include <memory>
#include <string>

#include "quill/FenixFile.h"
#include "quill/QuillWriter.h"
#include "tests/quill/RawFile.h"
#include "tests/quill/Records.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

using IntfWriter = Quill::QuillWriter<Portus::IntfId, IntfRecord>;
using NumberWriter = Quill::QuillWriter<Number, NumberRecord>;

// One table "t" of NumberRecords: 8 bytes of value, 24 of slot, 200 of header.
class WriterTest : public TableTest {
 protected:
  static constexpr std::uint32_t kSlot = 24;
  static constexpr std::uint32_t kHeader = 200;

  std::unique_ptr<NumberWriter> newWriter(unsigned maxSlots = 100, bool local = false) {
    return std::make_unique<NumberWriter>(handler_, name_.c_str(), maxSlots, local, "Test");
  }
  // A writer that is initialized.
  std::unique_ptr<NumberWriter> writer(unsigned maxSlots = 100) {
    auto made = newWriter(maxSlots);
    EXPECT_TRUE(made->initialize());
    return made;
  }
  static void put(NumberWriter& table, std::uint32_t key, std::uint32_t data) {
    table.write({{key}, data}, true);
  }
  static std::string get(const NumberWriter& table, std::uint32_t key) {
    bool found = false;
    const NumberRecord& record = table.lookup({key}, found);
    return found ? std::to_string(record.data) : "none";
  }
  static bool del(NumberWriter& table, std::uint32_t key) {
    NumberRecord old;
    return table.remove({key}, old);
  }
  // Every key in the order of the iteration.
  static std::string keys(const NumberWriter& table) {
    std::string text;
    NumberRecord record;
    Quill::IterHint hint;
    unsigned bound = table.capacity() + 1;
    for (bool more = table.first(record, hint); more && bound-- > 0;) {
      text += std::to_string(record.key.value) + " ";
      more = table.next(record.key, record, hint);
    }
    return text;
  }

  RawFile file(const char* name) const { return RawFile(name_ + "/" + name); }
  std::uint64_t slotAt(std::uint32_t index) const { return kHeader + kSlot * index; }
  std::uint32_t flagsOf(std::uint32_t index) const { return file("slots").u32(slotAt(index) + 12); }
  std::uint32_t conquerSlotOf(std::uint32_t index) const {
    return file("slots").u32(slotAt(index) + 8);
  }
  std::string allFiles() const {
    return file("slots").all() + file("buckets").all() + file("conquer.1").all() +
           file("conquer.2").all();
  }

  std::string name_ = root_.table("t");
};

}  // namespace QuillTest

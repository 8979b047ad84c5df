// SPDX-License-Identifier: Apache-2.0
//
// A reader on a table of four entries that the test changes by hand.
#pragma once

#include <string>
#include <vector>

#include "quill/QuillReader.h"
#include "quill/Util.h"
#include "tests/quill/HandTable.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

class QuillReader : public TableTest {
 protected:
  using Sut = Quill::QuillReader<HookKey, HookValue>;

  QuillReader() {
    table_.insert(0, hookValue(110, 1));
    table_.insert(1, hookValue(120, 2));
    table_.insert(2, hookValue(130, 3));
    table_.insert(3, hookValue(300, 4));
  }
  ~QuillReader() override { HookKey::onCompare = nullptr; }

  bool find(std::uint32_t key) {
    bool found = false;
    value_ = sut.lookup({key}, found);
    return found;
  }
  // The keys of an iteration that is cut off after 100 entries.
  std::vector<std::uint32_t> keys() {
    std::vector<std::uint32_t> all;
    Quill::IterHint hint;
    for (bool more = sut.first(value_, hint); more && all.size() < 100;
         more = sut.next(value_.key, value_, hint)) {
      all.push_back(value_.key.number);
    }
    return all;
  }
  Quill::Reader::Counters counters() const { return sut.readerCounters(); }
  std::string report() const { return Quill::Util::fileRead(handler(), reportPath(), false); }
  std::string reportPath() const { return root_.table("t") + "/corruption-detected"; }
  Sable::Platform::DebugHandler& handler() const {
    return const_cast<Sable::Platform::DebugHandler&>(handler_);
  }

  HandTable table_{handler_, root_.table("t")};
  Sut sut{handler_, root_.table("t").c_str()};
  HookValue value_;
  Quill::IterHint hint_;
};

}  // namespace QuillTest

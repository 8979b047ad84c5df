// SPDX-License-Identifier: Apache-2.0
//
// What the tests of a handle share: handles on one table of interface records.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "quill/QuillMap.h"
#include "tests/quill/RawFile.h"
#include "tests/quill/Records.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

// Notes the keys that it is told of.
struct KeyList {
  void notify(const Portus::IntfId& key) { keys.push_back(key.name()); }
  std::vector<std::string> keys;
};

using IntfMap = Quill::QuillMap<Portus::IntfId, IntfRecord, KeyList>;

class MapTest : public TableTest {
 protected:
  std::unique_ptr<IntfMap> newMap() { return std::make_unique<IntfMap>(path_, "counterIntf"); }
  std::unique_ptr<IntfMap> newWriter(unsigned size = 100) {
    auto map = newMap();
    map->init(Quill::QuillType::writer, false, size);
    return map;
  }
  std::unique_ptr<IntfMap> newReader(Quill::QuillType mode = Quill::QuillType::reader) {
    auto map = newMap();
    map->notifierIs(&keys_);
    map->init(mode, false, 0);
    return map;
  }
  // What is due now, events of directories and sockets included; the clock stands where it stood.
  void settle() { loop_.runFor(0.0); }

  // The value, a default one if the key is not there.
  static IntfRecord at(const IntfMap& map, std::string_view name) {
    bool found = false;
    return map.lookup(Portus::IntfId::fromName(name), found);
  }
  // Where the flags of a slot stand in the file.
  static std::uint64_t flagsAt(std::uint32_t slot) { return 216 + 40 * std::uint64_t{slot} + 12; }
  // The slot of the only entry.
  static std::uint32_t slotOfFirst(const IntfMap& map) {
    IntfRecord value;
    Quill::IterHint hint;
    EXPECT_TRUE(map.first(value, hint));
    return hint.slot;
  }

  const std::string path_ = root_.table("counterIntf");
  const RawFile slots_{path_ + "/slots"};
  KeyList keys_;
};

}  // namespace QuillTest

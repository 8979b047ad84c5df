// SPDX-License-Identifier: Apache-2.0
//
// What the fault tests let happen to a table: a scenario prepares it, does something with it while
// calls fail, and has to find everything right afterwards. judge() runs one with one fault.
//
// One thread. Everything is in a directory of its own and in virtual time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "quill/FenixFile.h"
#include "quill/QuillWriter.h"
#include "runtime/vex/LogService.h"
#include "tests/quill/RawFile.h"
#include "tests/quill/TestTable.h"
#include "tests/quill/faults/Calls.h"
#include "tests/quill/faults/Subject.h"

namespace QuillTest {

using Content = std::map<std::uint32_t, std::uint32_t>;
using NumberWriter = Quill::QuillWriter<Number, NumberRecord>;

// Everything that an iteration gives. Bounded.
template <class Table>
Content contentOf(const Table& table) {
  Content content;
  NumberRecord record;
  Quill::IterHint hint;
  unsigned bound = 100'000;
  for (bool more = table.first(record, hint); more && bound-- > 0;) {
    content[record.key.value] = record.data;
    more = table.next(Number(record.key), record, hint);
  }
  return content;
}

// The table and its handles, as a scenario finds and leaves them.
class Stage {
 public:
  Stage();

  // Handles of this process on the table "t".
  NumberMap& map(Quill::QuillType mode);
  void init(Quill::QuillType mode);
  bool has(Quill::QuillType mode) const { return maps_[static_cast<std::size_t>(mode)] != nullptr; }
  void drop(Quill::QuillType mode) { maps_[static_cast<std::size_t>(mode)].reset(); }
  void dropAll();

  // Changes through the writer's handle; what the table holds before and after is kept.
  void put(std::uint32_t key, std::uint32_t data);
  void del(std::uint32_t key);
  // Lets everybody go on, and on for `seconds`.
  void settle(double seconds = 0.0);
  // Does something that may raise what the store may raise, and keeps the text.
  bool attempt(const std::function<void()>& action);

  const std::string& path() const noexcept { return path_; }
  // What was raised, logged and traced.
  std::string told() const;

  Content before;
  Content after;
  std::vector<std::string> raised;

 private:
  friend class Judge;
  TemporaryRoot root_;
  Vex::VirtualActivityManager loop_;
  Vex::CurrentActivityManager current_{loop_};
  Sable::Platform::DebugHandler handler_{"test"};
  Vex::MemorySink log_;
  NumberListener listener_;
  std::string path_ = root_.table("t");
  std::unique_ptr<NumberMap> maps_[4];
};

struct Scenario {
  const char* name;
  void (*prepare)(Stage&);
  void (*act)(Stage&);
  bool watched = false;  // needs to be told of changes of the directory
};
std::ostream& operator<<(std::ostream& out, const Scenario& scenario);

const std::vector<Scenario>& scenarios();

// Calls of this kind that the scenario makes when nothing fails.
unsigned countOf(const Scenario& scenario, Faults::Kind kind);
// The rule that was broken, empty if none was.
std::string judge(const Scenario& scenario, const Faults::Fault& fault);

}  // namespace QuillTest

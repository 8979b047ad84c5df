// SPDX-License-Identifier: Apache-2.0
//
// A table with a real writer and a shadow that follows it, in one process and on one loop in
// virtual time; and a listener that keeps what it learns.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "quill/QuillShadow.h"
#include "quill/QuillWriter.h"
#include "tests/quill/RawFile.h"
#include "tests/quill/ShadowFixture.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

// A key whose hash spreads.
inline TestRecord entry(std::uint32_t number, std::uint32_t tx) {
  return record(number, tx, number * 2654435761U);
}

class ShadowTableTest : public TableTest {
 protected:
  using Writer = Quill::QuillWriter<TestKey, TestRecord>;
  using Shadow = Quill::QuillShadow<TestKey, TestRecord, FakeMap>;

  ShadowTableTest() {
    newWriter();
    map_.onCorruption = [this] { shadow_->detach(); };
  }

  void newWriter() {
    writer_.reset();
    writer_ = std::make_unique<Writer>(handler_, name_.c_str(), 100, false, "TestRecord");
    ASSERT_TRUE(writer_->initialize());
  }
  void newShadow(bool keyOnly = false) {
    shadow_.reset();
    shadow_ = std::make_unique<Shadow>(handler_, name_.c_str(), &map_, keyOnly ? 1 : 0);
  }
  void attach(bool keyOnly = false) {
    newShadow(keyOnly);
    ASSERT_TRUE(shadow_->initialize());
  }
  // Everything that there is to do at this instant.
  void settle() { loop_.runFor(0.0); }

  void write(std::uint32_t number, std::uint32_t tx) { writer_->write(entry(number, tx), true); }
  void remove(std::uint32_t number) {
    TestRecord old;
    writer_->remove(entry(number, 0).key, old);
  }
  // As if the writer listened, or did not.
  void hideSocket() { std::filesystem::rename(name_ + "/kick", name_ + "/away"); }
  void showSocket() { std::filesystem::rename(name_ + "/away", name_ + "/kick"); }

  Keys notified() { return map_.notifier_.taken(); }
  std::string valueIn(std::uint32_t number) const {
    bool found = false;
    const TestRecord& value = shadow_->lookup(entry(number, 0).key, found);
    return found ? Quill::textOf(value) : "none";
  }
  // Every entry in the order of an iteration.
  template <class Table>
  static std::vector<TestRecord> contentOf(const Table& table) {
    std::vector<TestRecord> all;
    TestRecord value;
    Quill::IterHint hint;
    for (bool more = table.first(value, hint); more && all.size() < 10'000;
         more = table.next(value.key, value, hint)) {
      all.push_back(value);
    }
    return all;
  }
  Quill::Reader::Counters counters() const { return shadow_->readerCounters(); }

  // Listens and looks each key up; `seen_` is then what a listener knows.
  void follow() {
    map_.notifier_.onNotify = [this](const TestKey& key) {
      bool found = false;
      const TestRecord& value = shadow_->lookup(key, found);
      if (found) {
        seen_[key.number] = value;
      } else {
        seen_.erase(key.number);
      }
    };
  }

  const std::string name_ = root_.table("t");
  std::unique_ptr<Writer> writer_;
  FakeMap map_;
  std::unique_ptr<Shadow> shadow_;
  std::map<std::uint32_t, TestRecord> seen_;
};

}  // namespace QuillTest

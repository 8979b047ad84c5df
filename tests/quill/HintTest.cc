// SPDX-License-Identifier: Apache-2.0
//
// A hint says where an iteration stands, and may be anything: whatever it is, the entry after a key
// is the same, for the writer, for a reader on the files and for both kinds of shadow.
#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "quill/QuillMap.h"
#include "tests/quill/WriterFixture.h"

namespace QuillTest {

class Hints : public WriterTest {
 protected:
  struct Nobody {
    void notify(const Number&) {}
  };
  using Map = Quill::QuillMap<Number, NumberRecord, Nobody>;

  // Three chains, one of them with three entries.
  static constexpr std::uint32_t kKeys[] = {3, 1001, 1005, 1009, 2002};

  Hints() {
    writer_ = writer();
    for (const std::uint32_t key : kKeys) put(*writer_, key, key);
  }

  template <class Table>
  void expectNextWhateverTheHint(const Table& table) {
    for (std::uint32_t after = 0; after < 2010; after += after % 1000 < 12 ? 1 : 988) {
      std::optional<std::uint32_t> wanted;
      for (const std::uint32_t key : kKeys) {
        if (key > after && !wanted) wanted = key;
      }
      for (std::uint32_t slot = 0; slot < 7; ++slot) {
        for (std::uint32_t bucket = 0; bucket < 5; ++bucket) {
          Quill::IterHint hint{slot, bucket};
          NumberRecord record;
          const bool found = table.next({after}, record, hint);
          ASSERT_EQ(found, wanted.has_value()) << after << " " << slot << " " << bucket;
          if (found) {
            ASSERT_EQ(record.key.value, *wanted) << after << " " << slot << " " << bucket;
          }
        }
      }
    }
  }

  void expectOf(Quill::QuillType type) {
    Nobody nobody;
    Map map(name_, "t");
    map.notifierIs(&nobody);
    map.init(type, false, 0);
    ASSERT_EQ(map.members(), 5U);
    expectNextWhateverTheHint(map);
  }

  std::unique_ptr<NumberWriter> writer_;
};

TEST_F(Hints, OfTheWriterMayBeAnything) { expectNextWhateverTheHint(*writer_); }
TEST_F(Hints, OfAReaderMayBeAnything) { expectOf(Quill::QuillType::reader); }
TEST_F(Hints, OfAShadowMayBeAnything) { expectOf(Quill::QuillType::shadow); }
TEST_F(Hints, OfAKeyShadowMayBeAnything) { expectOf(Quill::QuillType::keyshadow); }

}  // namespace QuillTest

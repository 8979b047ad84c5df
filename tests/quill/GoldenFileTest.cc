// SPDX-License-Identifier: Apache-2.0
//
// The files of a table after a fixed history, byte for byte as a second program makes them from the
// description of the format alone (tests/quill/checker/make_golden.py writes tests/quill/golden).
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "tests/quill/WriterFixture.h"

namespace QuillTest {

class GoldenFile : public WriterTest {
 protected:
  template <class Key, class Record>
  void expectFiles(const std::string& golden, const std::function<Key(unsigned)>& key) {
    std::filesystem::create_directories(name_);
    Quill::FenixFile::write(handler_, name_, 0x04D20000);
    Quill::QuillWriter<Key, Record> writer(handler_, name_.c_str(), 100, false, "Golden");
    ASSERT_TRUE(writer.initialize());
    const auto put = [&](unsigned number, std::uint32_t tx, std::uint32_t rx, std::uint32_t other) {
      Record record;
      record.key = key(number);
      record.tx = tx;
      record.rx = rx;
      record.rxOther = other;
      writer.write(record, true);
    };
    Record old;
    for (unsigned i = 0; i < 130; ++i) put(i * 7 % 130 + 1, i, i + 1, i + 2);
    for (unsigned i = 0; i < 130; i += 3) ASSERT_TRUE(writer.remove(key(i + 1), old));
    for (unsigned i = 0; i < 500; ++i) put(i * 11 % 130 + 1, i, 0, 0xFFFFFFFF);
    for (unsigned i = 0; i < 130; i += 5) ASSERT_TRUE(writer.remove(key(i + 1), old));
    // The one field that no history fixes: who formatted the file.
    file("buckets").u32Is(20, 1234);
    for (const char* const name : {"slots", "buckets", "conquer.1", "conquer.2"}) {
      std::ifstream in(std::string(QUILL_GOLDEN_DIR) + "/" + golden + "/" + name, std::ios::binary);
      const std::string wanted((std::istreambuf_iterator<char>(in)), {});
      ASSERT_FALSE(wanted.empty()) << golden << "/" << name;
      const std::string made = file(name).all();
      ASSERT_EQ(made.size(), wanted.size()) << golden << "/" << name;
      const auto [at, other] = std::mismatch(made.begin(), made.end(), wanted.begin());
      EXPECT_TRUE(at == made.end()) << golden << "/" << name << " differs at " << at - made.begin();
    }
  }
};

TEST_F(GoldenFile, OfInterfacesIsMadeByteForByte) {
  expectFiles<Portus::IntfId, IntfRecord>(
      "intf", [](unsigned number) { return Portus::IntfId::fromValue(number); });
}

TEST_F(GoldenFile, OfVlansIsMadeByteForByte) {
  expectFiles<Bridging::VlanIdOrNone, VlanRecord>(
      "vlan", [](unsigned number) { return Bridging::VlanIdOrNone(number); });
}

}  // namespace QuillTest

// SPDX-License-Identifier: Apache-2.0
//
// Tables that quillctl makes, read by a program that shares no code with the store
// (tests/quill/checker): the numbers that the files must have.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/cli/quillctl/Tool.h"

namespace QuillctlTest {
namespace {

class Checker : public testing::Test {
 protected:
  // What the checker finds in table "t", which must be sound.
  nlohmann::json facts() const {
    const std::string command =
        std::string("python3 -B ") + RINGWARD_TABLE_CHECK + " --json " + root_.table("t");
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
    std::string text;
    std::array<char, 4096> part{};
    while (const std::size_t got = fread(part.data(), 1, part.size(), pipe.get())) {
      text.append(part.data(), got);
    }
    auto facts = nlohmann::json::parse(text, nullptr, false);
    EXPECT_TRUE(facts.is_object() && facts["sound"] == true) << text;
    return facts;
  }
  void create(const char* type, const char* size) const {
    root_.done({"create", "t", "--type", type, "--size", size});
  }

  Root root_;
};

TEST_F(Checker, ATableOf97HasOnePageOfSlotsAndTwoQueuesOf336) {
  create("counterIntf", "97");
  const nlohmann::json found = facts();
  EXPECT_EQ(found["numSlots"], 97);
  EXPECT_EQ(found["fileSize"]["slots"], 4096);
  EXPECT_EQ(found["headerSize"], 216);
  EXPECT_EQ(found["slotSize"], 40);
  EXPECT_EQ(found["maxSlots"], 97);
  EXPECT_EQ(found["freeListLength"], 97);
  EXPECT_EQ(found["notifications"], nlohmann::json({336, 336}));
  EXPECT_EQ(found["fileSize"]["conquer.1"], 4088);
  EXPECT_EQ(found["fileSize"]["conquer.2"], 4088);
}

TEST_F(Checker, ATableOf1024Has2557Buckets) {
  create("counterIntf", "1024");
  const nlohmann::json found = facts();
  EXPECT_EQ(found["numBuckets"], 2557);
  EXPECT_EQ(found["fileSize"]["buckets"], 20480);
  EXPECT_EQ(found["numSlots"], 97) << "slots come as they are needed";
}

TEST_F(Checker, ATableOfVlansHasTheSizesOfItsOwnRecord) {
  create("counterVlan", "97");
  const nlohmann::json found = facts();
  EXPECT_EQ(found["valueSize"], 16);
  EXPECT_EQ(found["slotSize"], 32);
  EXPECT_EQ(found["headerSize"], 208);
  EXPECT_EQ(found["numSlots"], 121);
}

TEST_F(Checker, The98thKeyOf97GrowsByATenthAndFillsThePage) {
  create("counterIntf", "97");
  root_.done({"fill", "t", "97"});
  EXPECT_EQ(facts()["numSlots"], 97);
  root_.done({"fill", "t", "98"});
  const nlohmann::json found = facts();
  EXPECT_EQ(found["occupied"], 98);
  EXPECT_EQ(found["numSlots"], 199);
  EXPECT_EQ(found["fileSize"]["slots"], 8176);
}

TEST_F(Checker, BelowItsSizeATableDoubles) {
  create("counterIntf", "1000");
  root_.done({"fill", "t", "98"});
  EXPECT_EQ(facts()["numSlots"], 199);
  root_.done({"fill", "t", "200"});
  EXPECT_EQ(facts()["numSlots"], 404);
}

TEST_F(Checker, The337thKeyMovesTheQueueAndCarriesOneEntryOver) {
  create("counterIntf", "1000");
  root_.done({"fill", "t", "336"});
  EXPECT_EQ(facts()["generation"], 0);
  root_.done({"clear", "t"});
  root_.done({"remove", "t"});
  create("counterIntf", "1000");
  root_.done({"fill", "t", "337"});
  const nlohmann::json found = facts();
  EXPECT_EQ(found["generation"], 1);
  EXPECT_EQ(found["currentTable"], 1);
  EXPECT_EQ(found["minSeq"], 336);
  EXPECT_EQ(found["currentPos"], 2);
  EXPECT_EQ(found["lastSequence"], 337);
}

TEST_F(Checker, OneKeyWritten337TimesLeavesTwoEntries) {
  create("counterIntf", "97");
  std::string lines;
  for (int i = 0; i < 337; ++i) lines += "put eth1 " + std::to_string(i) + " 0 0\n";
  root_.done({"batch", "t"}, lines);
  const nlohmann::json found = facts();
  EXPECT_EQ(found["currentPos"], 2);
  EXPECT_EQ(found["tombstones"], 1);
  EXPECT_EQ(found["occupied"], 1);
}

}  // namespace
}  // namespace QuillctlTest

// SPDX-License-Identifier: Apache-2.0
//
// What quillctl says of damaged tables, and that it gives up nothing by itself.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/cli/quillctl/Tool.h"

namespace QuillctlTest {
namespace {

std::string contents(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}

class QuillctlDamage : public testing::Test {
 protected:
  QuillctlDamage() {
    root_.done({"create", "v", "--type", "counterVlan", "--size", "50"});
    root_.done({"batch", "v"}, "put 1 1 1 1\nput 2 2 2 2\n");
  }

  void expectFinding(const std::string& finding) const {
    const Outcome text = root_.run({"verify", "v"});
    EXPECT_EQ(text.status, 4);
    EXPECT_EQ(text.out, "table v: damaged, 2 entries\nfinding: " + finding + "\n");
    EXPECT_EQ(text.err, "quillctl: table \"v\" is damaged: " + finding + "\n");
  }

  // Every change is refused with the finding, and not a byte of the table is another.
  void expectNothingGivenUp(const std::string& finding) const {
    const std::vector<std::vector<std::string>> commands{
        {"put", "v", "2", "1", "1", "1"},
        {"del", "v", "1"},
        {"fill", "v", "2"},
        {"batch", "v"},
        {"clear", "v"},
        {"create", "v", "--type", "counterVlan", "--size", "50"}};
    for (const auto& command : commands) {
      const std::string slots = contents(root_.file("v", "slots"));
      const std::string queue = contents(root_.file("v", "conquer.1"));
      const Outcome outcome = root_.run(command);
      EXPECT_EQ(outcome.status, 4) << command.front();
      EXPECT_EQ(outcome.err, "quillctl: table \"v\" is damaged: " + finding +
                                 "; a writer would give up its entries: --force does\n");
      EXPECT_EQ(contents(root_.file("v", "slots")), slots) << command.front();
      EXPECT_EQ(contents(root_.file("v", "conquer.1")), queue) << command.front();
    }
  }

  Root root_;
};

constexpr std::uint64_t kOccupiedSlots = 160;
constexpr std::uint64_t kFirstFlags = 176 + 32 + 12;

TEST_F(QuillctlDamage, AWrongCountIsFoundAndNothingGivenUp) {
  root_.spoil("v", "slots", kOccupiedSlots, 3);
  const Outcome json = root_.run({"verify", "v", "--json"});
  EXPECT_EQ(json.status, 4);
  EXPECT_EQ(json.out,
            "{\"table\":\"v\",\"sound\":false,\"check\":\"locked\",\"entries\":3,\"findings\":["
            "\"Validator::walkOccupiedSlots() mismatch header->occupiedSlots:3 count:2\"]}\n");
  expectNothingGivenUp("Validator::walkOccupiedSlots() mismatch header->occupiedSlots:3 count:2");
}

TEST_F(QuillctlDamage, AWriterThatDiedInTheMiddleOfAWriteIsFound) {
  root_.spoil("v", "slots", kFirstFlags, 7);
  expectFinding("Validator::markOccupied() stuck LOOKASIDE bit: 0x7");
  expectNothingGivenUp("Validator::markOccupied() stuck LOOKASIDE bit: 0x7");
}

TEST_F(QuillctlDamage, AnUnknownGenerationIsFound) {
  std::filesystem::remove(root_.file("v", "fenix"));
  expectFinding("the file fenix names no generation");
  expectNothingGivenUp("the file fenix names no generation");
}

TEST_F(QuillctlDamage, AFileOfAnotherGenerationIsFound) {
  root_.spoil("v", "buckets", 12, 77);
  const std::string finding =
      "the file buckets belongs to another generation than the file fenix says";
  expectFinding(finding);
  expectNothingGivenUp(finding);
}

TEST_F(QuillctlDamage, AFileThatIsTooShortIsFound) {
  std::filesystem::resize_file(root_.file("v", "buckets"), 30);
  const Outcome outcome = root_.run({"verify", "v"});
  EXPECT_EQ(outcome.status, 4);
  EXPECT_NE(outcome.out.find("BucketTable::validate() bad shmem size:30 wanted:"),
            std::string::npos)
      << outcome.out;
  EXPECT_EQ(root_.run({"dump", "v"}).status, 4);
}

TEST_F(QuillctlDamage, AHeaderThatCannotBeBelievedIsFound) {
  root_.spoil("v", "slots", 0, 0x4c4c4c4c);
  EXPECT_EQ(root_.run({"verify", "v"}).status, 4);
  for (const char* const command : {"dump", "counters", "clear"}) {
    const Outcome outcome = root_.run({command, "v"});
    EXPECT_EQ(outcome.status, 4);
    EXPECT_EQ(
        outcome.err,
        "quillctl: table \"v\": the file slots: its header is damaged; see quillctl verify\n");
  }
  EXPECT_EQ(root_.run({"clear", "v", "--force"}).status, 4);
}

TEST_F(QuillctlDamage, ForceGivesTheEntriesUpAndSaysSo) {
  root_.spoil("v", "slots", kOccupiedSlots, 3);
  const Outcome outcome = root_.run({"put", "v", "9", "1", "1", "1", "--force"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "1 written, 1 entries in table v\n");
  EXPECT_EQ(outcome.err,
            "quillctl: table \"v\" was damaged: Validator::walkOccupiedSlots() mismatch "
            "header->occupiedSlots:3 count:2; its entries are given up\n");
  EXPECT_EQ(root_.done({"verify", "v"}), "table v: sound, 1 entries\n");
  EXPECT_NE(root_.done({"stat", "v"}).find("made for 50,"), std::string::npos);
}

TEST_F(QuillctlDamage, AReaderFindsAChainThatRunsInACircle) {
  const std::string slots = contents(root_.file("v", "slots"));
  root_.spoil("v", "slots", 176 + 32 + 4, 0);  // slot 0 follows itself
  EXPECT_EQ(root_.run({"verify", "v"}).status, 4);
  EXPECT_EQ(root_.run({"dump", "v"}).status, 4);
  EXPECT_EQ(root_.run({"counters", "v"}).status, 4);
}

TEST_F(QuillctlDamage, BesideALivingWriterAMisplacedKeyIsFound) {
  Running writer(root_, {"batch", "v"});
  writer.say("put 3 3 3 3\n");
  while (root_.run({"get", "v", "3"}).status != 0) {
  }
  root_.spoil("v", "slots", 176 + 32 + 16, 900);  // the key of slot 0, on the chain of key 1
  const Outcome outcome = root_.run({"verify", "v"});
  EXPECT_EQ(outcome.status, 4) << outcome.out;
  EXPECT_NE(outcome.out.find("table v: damaged, "), std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find("in use by quillctl (process "), std::string::npos) << outcome.out;
}

TEST_F(QuillctlDamage, VerifyChangesNoFile) {
  const std::vector<const char*> files{"slots", "buckets",    "conquer.1", "conquer.2",
                                       "fenix", "last-owner", "lock"};
  std::vector<std::string> before;
  for (const char* const file : files) before.push_back(contents(root_.file("v", file)));
  root_.done({"verify", "v"});
  for (std::size_t i = 0; i < files.size(); ++i) {
    EXPECT_EQ(contents(root_.file("v", files[i])), before[i]) << files[i];
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root_.table("v")), {}), 7);
}

TEST_F(QuillctlDamage, ADamagedTableCanBeRemoved) {
  root_.spoil("v", "slots", 0, 0x4c4c4c4c);
  EXPECT_EQ(root_.done({"remove", "v"}), "removed table v\n");
  EXPECT_TRUE(std::filesystem::is_empty(root_.path()));
}

}  // namespace
}  // namespace QuillctlTest

// SPDX-License-Identifier: Apache-2.0
//
// The commands that look, as a user runs them.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "tests/cli/quillctl/Tool.h"

namespace QuillctlTest {
namespace {

class QuillctlRead : public testing::Test {
 protected:
  // A table of VLANs with two records.
  void makeVlans() const {
    root_.done({"create", "v", "--type", "counterVlan", "--size", "50"});
    root_.done({"batch", "v"}, "put 20 4 5 6\nput 3 1 2 4294967295\n");
  }

  Root root_;
};

TEST_F(QuillctlRead, GetShowsOneRecord) {
  makeVlans();
  EXPECT_EQ(root_.done({"get", "v", "3"}), "3: tx 1, rx 2, rxOther 4294967295\n");
  EXPECT_EQ(root_.done({"--json", "get", "v", "3"}),
            "{\"key\":3,\"tx\":1,\"rx\":2,\"rxOther\":4294967295}\n");
}

TEST_F(QuillctlRead, AKeyThatIsNotThereIsNamedWithTheNearestOne) {
  makeVlans();
  const Outcome outcome = root_.run({"get", "v", "21"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "quillctl: no key \"21\" in table \"v\"; the nearest is \"20\"\n");
}

TEST_F(QuillctlRead, AKeyOfAnEmptyTableHasNoNearestOne) {
  root_.done({"create", "v", "--type", "counterVlan", "--size", "50"});
  const Outcome outcome = root_.run({"get", "v", "21"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.err, "quillctl: no key \"21\" in table \"v\"; the table is empty\n");
}

TEST_F(QuillctlRead, ATableThatIsNotThereIsNamedWithTheNearestOne) {
  makeVlans();
  root_.done({"create", "ringward/counterIntf", "--type", "counterIntf", "--size", "5"});
  for (const char* const command : {"dump", "stat", "verify", "counters", "clear", "remove"}) {
    const Outcome outcome = root_.run({command, "ringward/counterInt"});
    EXPECT_EQ(outcome.status, 3) << command;
    EXPECT_EQ(outcome.err,
              "quillctl: no table \"ringward/counterInt\"; the nearest is "
              "\"ringward/counterIntf\"\n");
  }
}

TEST_F(QuillctlRead, AWrongKeyIsAnErrorThatNamesTheRange) {
  makeVlans();
  EXPECT_EQ(root_.run({"get", "v", "eth1"}).status, 1);
  EXPECT_EQ(root_.run({"get", "v", ""}).err, "quillctl: key \"\": is empty\n");
  const Outcome outcome = root_.run({"get", "v", "4095"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "quillctl: key \"4095\": VlanIdOrNone::value > 4094 not allowed\n");
}

TEST_F(QuillctlRead, CountersAreSortedByKeyWithTheirTotals) {
  makeVlans();
  EXPECT_EQ(root_.done({"counters", "v"}),
            "key             tx           rx      rxOther\n"
            "3                1            2   4294967295\n"
            "20               4            5            6\n"
            "total            5            7   4294967301\n");
  EXPECT_EQ(root_.done({"counters", "v", "--json"}),
            "{\"table\":\"v\",\"type\":\"Ringward::Status::CounterVlan\",\"entries\":["
            "{\"key\":3,\"tx\":1,\"rx\":2,\"rxOther\":4294967295},"
            "{\"key\":20,\"tx\":4,\"rx\":5,\"rxOther\":6}],"
            "\"total\":{\"tx\":5,\"rx\":7,\"rxOther\":4294967301}}\n");
}

TEST_F(QuillctlRead, DumpShowsEveryRecordInTheTablesOrder) {
  makeVlans();
  EXPECT_EQ(root_.done({"dump", "v"}),
            "3: tx 1, rx 2, rxOther 4294967295\n20: tx 4, rx 5, rxOther 6\n");
  EXPECT_EQ(root_.done({"dump", "v", "--json"}),
            "{\"table\":\"v\",\"type\":\"Ringward::Status::CounterVlan\",\"entries\":["
            "{\"key\":3,\"tx\":1,\"rx\":2,\"rxOther\":4294967295},"
            "{\"key\":20,\"tx\":4,\"rx\":5,\"rxOther\":6}]}\n");
}

TEST_F(QuillctlRead, AListIsAnArrayAlsoWhenItIsEmpty) {
  EXPECT_EQ(root_.done({"list", "--json"}),
            "{\"root\":\"" + root_.path() + "\",\"tables\":[],\"ignored\":[]}\n");
  root_.done({"create", "v", "--type", "counterVlan", "--size", "50"});
  EXPECT_EQ(root_.done({"dump", "v", "--json"}),
            "{\"table\":\"v\",\"type\":\"Ringward::Status::CounterVlan\",\"entries\":[]}\n");
  EXPECT_EQ(
      root_.done({"verify", "v", "--json"}),
      "{\"table\":\"v\",\"sound\":true,\"check\":\"locked\",\"entries\":0,\"findings\":[]}\n");
}

TEST_F(QuillctlRead, ListShowsTablesAndIsNotStoppedByJunk) {
  makeVlans();
  root_.done({"create", "a/b c", "--type", "counterIntf", "--size", "7"});
  std::ofstream(root_.path() + "/file") << "junk";
  std::filesystem::create_directory(root_.path() + "/empty");
  std::filesystem::create_directory(root_.path() + "/%zz");
  std::filesystem::create_directory_symlink("/", root_.path() + "/link");
  std::filesystem::create_directories(root_.path() + "/odd/slots");  // a directory for a file
  const std::string out = root_.done({"list"});
  EXPECT_NE(out.find("a/b c  counterIntf        0        7  quillctl (process "), std::string::npos)
      << out;
  EXPECT_NE(out.find("v      counterVlan        2       50  quillctl (process "), std::string::npos)
      << out;
  EXPECT_NE(out.find("odd    unreadable         0        0  nobody known, gone\n"),
            std::string::npos)
      << out;
  for (const char* const junk : {"%zz", "empty", "file", "link"}) {
    EXPECT_NE(out.find(std::string("# no table: ") + junk + "\n"), std::string::npos) << out;
  }
}

TEST_F(QuillctlRead, ARootThatIsNotThereIsMissing) {
  const Outcome outcome = root_.run({"--root", root_.path() + "/none", "list"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.err, "quillctl: cannot read the root " + root_.path() +
                             "/none: No such file or directory\n");
}

TEST_F(QuillctlRead, StatShowsTheHeadersOfAllFourFiles) {
  makeVlans();
  const std::string out = root_.done({"stat", "v"});
  for (const char* const part :
       {"table      v\n", ", gone\n", "2 entries in ", "made for 50, ", "checksum sound\n",
        "QUILLSLT version 4", "QUILLBKT version 1", "QUILLCQR version 6",
        "values Ringward::Status::CounterVlan of 16 bytes, slots of 32 bytes",
        "class Ringward::Status::PacketCounter", "last sequence 2, current\n",
        "pruned up to sequence 0, 0 readers\n"}) {
    EXPECT_NE(out.find(part), std::string::npos) << part << " in\n" << out;
  }
  const std::string json = root_.done({"stat", "v", "--json"});
  for (const char* const part :
       {"{\"table\":\"v\",\"path\":\"", "\"alive\":false", "\"maxSlots\":50", "\"currentPos\":2",
        "\"checksumSound\":true", "\"conquer2\":{\"present\":true,"}) {
    EXPECT_NE(json.find(part), std::string::npos) << part << " in\n" << json;
  }
}

TEST_F(QuillctlRead, RecordsOfAnotherTypeAreShownAsBytes) {
  makeVlans();
  // Another name of the type, with the checksum that the change needs.
  const std::string slots = root_.file("v", "slots");
  std::string bytes(176, '\0');
  std::ifstream(slots, std::ios::binary).read(bytes.data(), 176);
  const auto hashOf = [](std::string_view text) {
    std::uint32_t h = 0x811c9dc5U;
    for (const char c : text) h = (h ^ static_cast<unsigned char>(c)) * 0x01000193U;
    h = (h ^ (h >> 16)) * 0x85ebca6bU;
    h = (h ^ (h >> 13)) * 0xc2b2ae35U;
    return h ^ (h >> 16);
  };
  std::string other = bytes.substr(16, 64);
  other[0] = 'X';
  root_.spoil("v", "slots", 16, 0x676e6958U);  // "Xing"
  std::uint32_t sum = 0;
  std::memcpy(&sum, bytes.data() + 156, 4);
  root_.spoil("v", "slots", 156,
              sum - hashOf(std::string_view(bytes).substr(16, 64)) + hashOf(other));
  EXPECT_EQ(
      root_.done({"dump", "v"}),
      "# Xingward::Status::CounterVlan, 16 bytes each; class Ringward::Status::PacketCounter\n"
      "slot 0: 14000000040000000500000006000000\n"
      "slot 1: 030000000100000002000000ffffffff\n");
  EXPECT_EQ(root_.done({"--json", "dump", "v"}),
            "{\"table\":\"v\",\"type\":\"Xingward::Status::CounterVlan\",\"slots\":["
            "{\"slot\":0,\"bytes\":\"14000000040000000500000006000000\"},"
            "{\"slot\":1,\"bytes\":\"030000000100000002000000ffffffff\"}]}\n");
  const Outcome outcome = root_.run({"get", "v", "3"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err,
            "quillctl: table \"v\" has records of the type \"Xingward::Status::CounterVlan\"; get "
            "knows only Ringward::Status::CounterIntf and Ringward::Status::CounterVlan\n");
  EXPECT_EQ(root_.done({"verify", "v", "--json"}),
            "{\"table\":\"v\",\"sound\":true,\"check\":\"headers only\",\"entries\":2,"
            "\"findings\":[]}\n");
}

}  // namespace
}  // namespace QuillctlTest

// SPDX-License-Identifier: Apache-2.0
#include "agent/HeldFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace Agent {
namespace {

using Platform::Linux::ErrdisableAction;

const std::vector<HeldPort> kPorts{{"eth1", 7, ErrdisableAction::bridgePort, 12.5, 42.5},
                                   {"swp\"2\"", 8, ErrdisableAction::adminDown, 13, 0},
                                   {"eth3", 9, ErrdisableAction::protoDown, 14, 20}};

// A directory of its own that goes with the test.
class HeldFileTest : public testing::Test {
 protected:
  HeldFileTest() {
    std::string name = std::filesystem::temp_directory_path() / "ringward-held-XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    directory = name;
  }
  ~HeldFileTest() override { std::filesystem::remove_all(directory); }

  std::filesystem::path directory;
  std::string error;
};

TEST_F(HeldFileTest, WhatOneRunWritesTheNextOneReads) {
  const std::string path = directory / "new" / "held.json";  // in a directory that is not there
  HeldFile sut(path);
  ASSERT_EQ(sut.write(kPorts), std::error_code());
  EXPECT_EQ(HeldFile(path).read(error), kPorts);
  EXPECT_EQ(error, "");
  EXPECT_FALSE(std::filesystem::exists(path + ".new"));
  ASSERT_EQ(sut.write({}), std::error_code());
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_TRUE(HeldFile(path).read(error).empty());
  EXPECT_EQ(error, "");
}

TEST_F(HeldFileTest, WithoutAPathNothingIsRememberedAndNothingFails) {
  HeldFile sut("");
  EXPECT_EQ(sut.write(kPorts), std::error_code());
  EXPECT_TRUE(sut.read(error).empty());
  EXPECT_EQ(error, "");
}

TEST_F(HeldFileTest, AnEqualListIsNotWrittenAgain) {
  const std::string path = directory / "held.json";
  HeldFile sut(path);
  ASSERT_EQ(sut.write(kPorts), std::error_code());
  std::filesystem::remove(path);
  ASSERT_EQ(sut.write(kPorts), std::error_code());
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(HeldFileTest, AFailedWriteLeavesTheOldListAndIsTriedAgain) {
  const std::string path = directory / "held.json";
  HeldFile sut(path);
  ASSERT_EQ(sut.write(kPorts), std::error_code());
  std::filesystem::create_directory(path + ".new");  // in the way
  const std::vector<HeldPort> fewer{kPorts[0]};
  EXPECT_TRUE(sut.write(fewer));
  EXPECT_EQ(HeldFile(path).read(error), kPorts);
  std::filesystem::remove(path + ".new");
  EXPECT_EQ(sut.write(fewer), std::error_code());
  EXPECT_EQ(HeldFile(path).read(error), fewer);
}

// Nothing of it is opened: a FIFO without a reader would hold the agent up for ever.
TEST_F(HeldFileTest, WhatIsNoFileInTheWayIsReplacedAndNotWrittenTo) {
  const std::string path = directory / "held.json";
  const std::string beside = path + ".new";
  ASSERT_EQ(mkfifo(beside.c_str(), 0600), 0);
  const int reader = open(beside.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_EQ(HeldFile(path).write(kPorts), std::error_code());
  EXPECT_TRUE(std::filesystem::is_regular_file(path));
  close(reader);
  ASSERT_FALSE(HasFailure()) << "without a reader it would wait";
  ASSERT_EQ(mkfifo(beside.c_str(), 0600), 0);
  EXPECT_EQ(HeldFile(path).write({kPorts[0]}), std::error_code());
  EXPECT_EQ(HeldFile(path).read(error), std::vector<HeldPort>{kPorts[0]});
  std::ofstream(directory / "precious") << "precious";
  std::filesystem::create_symlink(directory / "precious", beside);
  EXPECT_EQ(HeldFile(path).write(kPorts), std::error_code());
  EXPECT_EQ(HeldFile(path).read(error), kPorts);
  EXPECT_EQ(std::filesystem::file_size(directory / "precious"), 8U);
}

TEST_F(HeldFileTest, AFileThatCannotBeReadIsAnError) {
  EXPECT_TRUE(HeldFile(directory.string()).read(error).empty());
  EXPECT_EQ(error, "Is a directory");
}

TEST(HeldPorts, TheTextReadsBackOnTheSameBootOnly) {
  std::string error;
  const std::string text = toText(kPorts, "boot-1");
  EXPECT_EQ(parseHeldPorts(text, "boot-1", error), kPorts);
  EXPECT_TRUE(parseHeldPorts(text, "boot-2", error).empty());
  EXPECT_EQ(error, "");
}

TEST(HeldPorts, AnythingElseIsAnErrorThatNamesWhatIsWrong) {
  const auto errorOf = [](const std::string& text) {
    std::string error;
    EXPECT_TRUE(parseHeldPorts(text, "b", error).empty()) << text;
    return error;
  };
  const auto port = [](const std::string& fields) {
    return R"({"version": 1, "boot": "b", "held": [{)" + fields + "}]}";
  };
  const std::string rest = R"(, "since": 1, "until": 2, "action": "admin-down")";
  EXPECT_EQ(errorOf(""), "not a JSON object");
  EXPECT_EQ(errorOf("[1"), "not a JSON object");
  EXPECT_EQ(errorOf("{}"), "version: missing; wanted: 1");
  EXPECT_EQ(errorOf(R"({"version": 2})"), "version: 2; wanted: 1");
  EXPECT_EQ(errorOf(R"({"version": 1, "boot": 7})"), "boot: 7; wanted: a text");
  EXPECT_EQ(errorOf(R"({"version": 1, "boot": "b"})"), "held: wanted: a list");
  EXPECT_EQ(errorOf(R"({"version": 1, "boot": "b", "held": [1]})"),
            "held: 1; wanted: a list of objects");
  EXPECT_EQ(errorOf(port(R"("interface": "a/b", "index": 1)" + rest)),
            "interface: \"a/b\"; wanted: an interface name");
  EXPECT_EQ(errorOf(port(R"("interface": "a", "index": 4294967297)" + rest)),
            "index: 4294967297; wanted: an integer above 0");
  EXPECT_EQ(errorOf(port(R"("interface": "a", "index": 0)" + rest)),
            "index: 0; wanted: an integer above 0");
  EXPECT_EQ(errorOf(port(R"("interface": "a", "index": 1, "since": -1)")),
            "since: -1; wanted: seconds");
  EXPECT_EQ(errorOf(port(R"("interface": "a", "index": 1, "since": 1, "until": 1e999)")),
            "not a JSON object");
  EXPECT_EQ(
      errorOf(port(R"("interface": "a", "index": 1, "since": 1, "until": 1, "action": "auto")")),
      "action: \"auto\"; wanted: \"bridge-port\", \"protodown\" or \"admin-down\"");
  const std::string twice = R"({"interface": "a", "index": 1)" + rest + "}";
  EXPECT_EQ(errorOf(R"({"version": 1, "boot": "b", "held": [)" + twice + "," + twice + "]}"),
            "interface: \"a\" stands twice");
  EXPECT_EQ(errorOf(std::string(kMaxHeldFileSize + 1, ' ')),
            "larger than the limit of 1048576 bytes");
  EXPECT_EQ(errorOf(std::string(100000, '[')), "not a JSON object");
}

// As deep as a file may be: nothing may recurse with it.
TEST(HeldPorts, ListsInListsWhereAValueIsWantedAreAnErrorHoweverDeep) {
  constexpr std::size_t kDepth = kMaxHeldFileSize / 2 - 100;
  const std::string deep = std::string(kDepth, '[') + std::string(kDepth, ']');
  const auto errorOf = [](const std::string& text) {
    std::string error;
    EXPECT_TRUE(parseHeldPorts(text, "b", error).empty());
    return error;
  };
  EXPECT_EQ(errorOf(R"({"version": )" + deep + "}"), "version: a list; wanted: 1");
  EXPECT_EQ(errorOf(R"({"version": {"a": 1}})"), "version: an object; wanted: 1");
  EXPECT_EQ(errorOf(R"({"version": 1, "boot": "b", "held": [)" + deep + "]}"),
            "held: a list; wanted: a list of objects");
}

}  // namespace
}  // namespace Agent

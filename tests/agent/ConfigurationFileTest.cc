// SPDX-License-Identifier: Apache-2.0
//
// Files on disk: what cannot be read, what nobody should have written, and those that we ship.
#include "agent/ConfigurationReader.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tests/agent/ConfigurationTexts.h"

namespace Agent {
namespace {

// A directory that goes away with the test.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "ringward-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
    path_ = name;
  }
  ~TemporaryDirectory() { std::filesystem::remove_all(path_); }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string file(const std::string& name, std::string_view content) const {
    const std::string path = path_ / name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  std::string path() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

TEST(ConfigurationReader, AFileIsReadWithItsPathInTheErrors) {
  const TemporaryDirectory directory;
  const ConfigurationResult good = readConfiguration(directory.file("good.toml", kSample));
  ASSERT_EQ(errorsOf(good), "ok");
  EXPECT_EQ(good.configuration(), parsed(kSample));
  const std::string bad = directory.file("bad.toml", "\n\n\ntransmit-interval = 300\n");
  EXPECT_EQ(errorsOf(readConfiguration(bad)),
            bad + ":4: transmit-interval: 300 is out of range; allowed: 0 to 255 (seconds)\n");
}

TEST(ConfigurationReader, AFileThatCannotBeReadIsAnErrorWithTheTextOfTheSystem) {
  const TemporaryDirectory directory;
  EXPECT_EQ(errorsOf(readConfiguration(directory.path() + "/none.toml")),
            directory.path() + "/none.toml: cannot read the file: No such file or directory\n");
  EXPECT_EQ(errorsOf(readConfiguration(directory.path())),
            directory.path() + ": cannot read the file: Is a directory\n");
  const std::string file = directory.file("file", "");
  EXPECT_EQ(errorsOf(readConfiguration(file + "/x")),
            file + "/x: cannot read the file: Not a directory\n");
  EXPECT_EQ(errorsOf(readConfiguration("")), ": cannot read the file: No such file or directory\n");
}

TEST(ConfigurationReader, AFileThatIsNotRegularIsAnErrorAndIsNotWaitedFor) {
  const TemporaryDirectory directory;
  const std::string fifo = directory.path() + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(errorsOf(readConfiguration(fifo)), fifo + ": not a regular file\n");
}

TEST(ConfigurationReader, TheSizeOfAFileIsLimitedToOneMebibyte) {
  const TemporaryDirectory directory;
  const std::string comment = "#" + std::string(kMaxConfigurationSize - 1, 'x');
  EXPECT_EQ(errorsOf(readConfiguration(directory.file("most", comment))), "ok");
  const std::string file = directory.file("more", comment + "x");
  EXPECT_EQ(errorsOf(readConfiguration(file)), file + ": larger than the limit of 1048576 bytes\n");
}

TEST(ConfigurationReader, HostileInputNeverEndsTheProcess) {
  const auto repeated = [](std::string_view text, std::size_t count) {
    std::string result;
    while (count-- > 0) result += text;
    return result;
  };
  const std::string inputs[] = {
      "[[[",
      "[[=",
      "\u00e9 = 1",
      "\u040a = 1",
      "enabled = \u00e9",
      "enabled \ufefe",
      "enabled \u2c5f = 1",
      "[.",
      std::string(10000, '['),
      "exclude = " + std::string(10000, '['),
      "exclude = " + std::string(255, '[') + std::string(255, ']'),
      "exclude = " + repeated("[{a=", 10000),
      repeated("a={", 10000),
      repeated("[a]", 10000),
      std::string(kMaxConfigurationSize, 'a'),
      std::string(kMaxConfigurationSize, '.'),
      std::string(kMaxConfigurationSize, '"'),
      std::string(kMaxConfigurationSize, '\n'),
      std::string(kMaxConfigurationSize, '\xff'),
      repeated("a.", kMaxConfigurationDots) + "a = 1",
      "[" + repeated("a.", kMaxConfigurationDots) + "a]",
      repeated("a.", kMaxConfigurationSize / 2 - 3) + "a = 1",
      "vlans = \"" + repeated("1,", 100000) + "1\"",
      "vlans = \"" + repeated("1-4094,", 1000) + "1\"",
      "exclude = [" + repeated("'e',", 30000) + "]",
      "rate-limit = " + std::string(100000, '9'),
      "rate-limit = 0x" + std::string(100000, 'f'),
      "rate-limit = 1e" + std::string(100000, '9'),
      "ports.match = ['" + std::string(1000000, '*') + "']",
      "vlans = \"\"\"",
      "vlans = \"\\uD800\"",
      "vlans = \"\\U00110000\"",
      "disabled-time = 9999-99-99T99:99:99Z",
      "\xef\xbb\xbf",
      "\xfe\xff",
      "\r\r\r",
      "= = =",
  };
  for (const std::string& input : inputs) {
    const ConfigurationResult result = parseConfiguration(input, "f.toml");
    if (!result.ok()) {
      EXPECT_FALSE(result.errors().empty());
    }
  }
}

TEST(ConfigurationReader, RandomBytesNeverEndTheProcess) {
  constexpr unsigned kSeed = 20240611;
  SCOPED_TRACE(kSeed);
  std::mt19937 random(kSeed);
  for (int round = 0; round < 3000; ++round) {
    std::string input = round % 2 == 0 ? std::string(random() % 200, ' ') : std::string(kSample);
    const std::size_t changes = round % 2 == 0 ? input.size() : 1 + random() % 8;
    for (std::size_t i = 0; i < changes; ++i) {
      input[random() % input.size()] = static_cast<char>(random());
    }
    const ConfigurationResult result = parseConfiguration(input, "f.toml");
    if (!result.ok()) {
      for (const ConfigurationError& error : result.errors()) {
        EXPECT_EQ(toText(error).find_first_of("\n\r\x1b\x7f"), std::string::npos);
      }
    }
  }
}

// The checkout that this file was compiled from.
std::filesystem::path sourceDirectory() { return RINGWARD_SOURCE_DIR; }

TEST(ConfigurationFiles, TheSampleOfThePackageHasTheDefaultsAndABridge) {
  const ConfigurationResult result =
      readConfiguration((sourceDirectory() / "packaging/ringward.toml").string());
  ASSERT_EQ(errorsOf(result), "ok");
  Configuration expected;
  expected.ports.emplace().bridge = "br0";
  EXPECT_EQ(result.configuration(), expected);
}

TEST(ConfigurationFiles, EveryExampleOfTheManualIsValid) {
  std::ifstream manual(sourceDirectory() / "docs/configuration.md");
  ASSERT_TRUE(manual.is_open());
  int examples = 0;
  std::optional<std::string> example;
  for (std::string line; std::getline(manual, line);) {
    if (line == "```toml") {
      example.emplace();
    } else if (line == "```" && example) {
      EXPECT_EQ(errorsOf(*example), "ok") << *example;
      example.reset();
      ++examples;
    } else if (example) {
      *example += line + '\n';
    }
  }
  EXPECT_FALSE(example.has_value());
  EXPECT_GE(examples, 10);
}

}  // namespace
}  // namespace Agent

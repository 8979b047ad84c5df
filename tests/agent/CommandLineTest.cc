// SPDX-License-Identifier: Apache-2.0
#include "agent/CommandLine.h"

#include <gtest/gtest.h>

#include <vector>

namespace Agent {
namespace {

CommandLineResult parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "ringwardd");
  return parseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

CommandLine parsed(const std::vector<const char*>& arguments) {
  const CommandLineResult result = parse(arguments);
  if (const auto* line = std::get_if<CommandLine>(&result)) return *line;
  ADD_FAILURE() << std::get<CommandLineExit>(result).text;
  return {};
}

std::string usageError(const std::vector<const char*>& arguments) {
  const CommandLineResult result = parse(arguments);
  const auto* exit = std::get_if<CommandLineExit>(&result);
  if (exit == nullptr) return "no error";
  EXPECT_EQ(exit->code, 2);
  return exit->text;
}

TEST(CommandLine, WithoutArgumentsEverythingHasItsDefault) {
  const CommandLine line = parsed({});
  EXPECT_EQ(line.configPath, "/etc/ringward/ringward.toml");
  EXPECT_FALSE(line.check);
  EXPECT_FALSE(line.foreground);
  EXPECT_FALSE(line.showVersion);
}

TEST(CommandLine, ConfigTakesItsFileAsTheNextArgumentOrAfterAnEqualsSign) {
  EXPECT_EQ(parsed({"--config", "/tmp/a.toml"}).configPath, "/tmp/a.toml");
  EXPECT_EQ(parsed({"--config=/tmp/b.toml"}).configPath, "/tmp/b.toml");
  EXPECT_EQ(parsed({"--config", "./--check"}).configPath, "./--check");
}

TEST(CommandLine, EachFlagSetsItsOwnFieldOnly) {
  EXPECT_TRUE(parsed({"--check"}).check);
  EXPECT_FALSE(parsed({"--check"}).foreground || parsed({"--check"}).showVersion);
  EXPECT_TRUE(parsed({"--foreground"}).foreground);
  EXPECT_FALSE(parsed({"--foreground"}).check || parsed({"--foreground"}).showVersion);
  EXPECT_TRUE(parsed({"--version"}).showVersion);
  EXPECT_FALSE(parsed({"--version"}).check || parsed({"--version"}).foreground);
}

TEST(CommandLine, OptionsCombineInAnyOrder) {
  const CommandLine line = parsed({"--foreground", "--config", "x", "--check"});
  EXPECT_EQ(line.configPath, "x");
  EXPECT_TRUE(line.check);
  EXPECT_TRUE(line.foreground);
}

TEST(CommandLine, HelpIsATextWithExitCodeZero) {
  const std::string expected =
      "ringwardd finds forwarding loops and disables the ports they run through.\n"
      "Usage: ringwardd [OPTIONS]\n"
      "\n"
      "Options:\n"
      "  -h,--help                   Print this help and leave\n"
      "  --version                   Print the version and leave\n"
      "  --config FILE=/etc/ringward/ringward.toml\n"
      "                              Configuration file\n"
      "  --check                     Validate the configuration file, print the effective "
      "configuration and leave\n"
      "  --foreground                Do not detach from the terminal\n"
      "\n";
  for (const char* option : {"--help", "-h"}) {
    const CommandLineResult result = parse({option});
    const auto* exit = std::get_if<CommandLineExit>(&result);
    ASSERT_NE(exit, nullptr);
    EXPECT_EQ(exit->code, 0);
    EXPECT_EQ(exit->text, expected);
  }
}

TEST(CommandLine, AnythingUnknownIsAnErrorThatPointsToHelp) {
  EXPECT_EQ(usageError({"--bogus"}),
            "ringwardd: The following argument was not expected: --bogus\n"
            "Try 'ringwardd --help' for the options.\n");
  EXPECT_EQ(usageError({"file.toml"}),
            "ringwardd: The following argument was not expected: file.toml\n"
            "Try 'ringwardd --help' for the options.\n");
  EXPECT_EQ(usageError({"--version", "-x"}),
            "ringwardd: The following argument was not expected: -x\n"
            "Try 'ringwardd --help' for the options.\n");
  EXPECT_EQ(usageError({""}),
            "ringwardd: The following argument was not expected: \n"
            "Try 'ringwardd --help' for the options.\n");
}

TEST(CommandLine, ConfigWithoutAFileIsAnError) {
  const std::string missing =
      "ringwardd: --config: 1 required FILE missing\n"
      "Try 'ringwardd --help' for the options.\n";
  EXPECT_EQ(usageError({"--config"}), missing);
  EXPECT_EQ(usageError({"--config="}), missing);
  EXPECT_EQ(usageError({"--config", ""}),
            "ringwardd: --config: the name of the file is empty\n"
            "Try 'ringwardd --help' for the options.\n");
}

TEST(CommandLine, AnOptionIsNotTakenForTheFileOfConfig) {
  EXPECT_EQ(usageError({"--config", "--check"}),
            "ringwardd: --config: --check is an option, not a file; allowed: ./--check\n"
            "Try 'ringwardd --help' for the options.\n");
}

TEST(CommandLine, ConfigGivenTwiceIsAnError) {
  EXPECT_EQ(usageError({"--config", "a", "--config", "b"}),
            "ringwardd: --config: At Most 1 required but received 2\n"
            "Try 'ringwardd --help' for the options.\n");
}

TEST(CommandLine, AFlagTakesNoValue) {
  for (const char* option : {"--check=no", "--foreground=false", "--version=0"}) {
    EXPECT_NE(usageError({option}), "no error") << option;
  }
}

TEST(CommandLine, AnEmptyArgumentVectorIsLikeNoArguments) {
  const char* none[] = {nullptr};
  const CommandLineResult result = parseCommandLine(0, none);
  ASSERT_TRUE(std::holds_alternative<CommandLine>(result));
  EXPECT_EQ(std::get<CommandLine>(result).configPath, "/etc/ringward/ringward.toml");
}

}  // namespace
}  // namespace Agent

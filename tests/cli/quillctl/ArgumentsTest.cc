// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/Arguments.h"

#include <gtest/gtest.h>

#include <vector>

namespace Quillctl {
namespace {

std::variant<Arguments, EarlyExit> parse(std::vector<const char*> given) {
  given.insert(given.begin(), "quillctl");
  return parseArguments(static_cast<int>(given.size()), given.data());
}

Arguments parsed(const std::vector<const char*>& given) {
  const auto result = parse(given);
  if (const auto* const arguments = std::get_if<Arguments>(&result)) return *arguments;
  ADD_FAILURE() << std::get<EarlyExit>(result).text;
  return {};
}

std::string usageError(const std::vector<const char*>& given) {
  const auto result = parse(given);
  const auto* const exit = std::get_if<EarlyExit>(&result);
  if (exit == nullptr) return "no error";
  EXPECT_EQ(exit->status, 1);
  return exit->text;
}

TEST(QuillctlArguments, GlobalOptionsStandBeforeOrBehindTheCommand) {
  for (const auto& given : {std::vector<const char*>{"--json", "--root", "/r", "get", "t", "k"},
                            {"get", "t", "k", "--root", "/r", "--json"}}) {
    const Arguments arguments = parsed(given);
    EXPECT_EQ(arguments.command, "get");
    EXPECT_EQ(arguments.table, "t");
    EXPECT_EQ(arguments.key, "k");
    EXPECT_EQ(arguments.root, "/r");
    EXPECT_TRUE(arguments.json);
  }
}

TEST(QuillctlArguments, TheLastRootCounts) {
  EXPECT_EQ(parsed({"--root", "/a", "list", "--root", "/b/../c"}).root, "/c");
}

TEST(QuillctlArguments, AMistypedCommandIsNamedWithTheNearestOne) {
  EXPECT_EQ(usageError({"verfiy", "t"}),
            "quillctl: no command \"verfiy\"; the nearest is \"verify\"\n"
            "Try 'quillctl --help' for the commands.\n");
}

TEST(QuillctlArguments, WhatIsMissingOrTooMuchIsAnError) {
  EXPECT_EQ(usageError({}),
            "quillctl: A subcommand is required\nTry 'quillctl --help' for the commands.\n");
  EXPECT_EQ(usageError({"get"}),
            "quillctl: TABLE is required\nTry 'quillctl --help' for the commands.\n");
  EXPECT_NE(usageError({"get", "t", "k", "more"}), "no error");
  EXPECT_NE(usageError({"list", "--root", ""}), "no error");
  EXPECT_NE(usageError({"list", "--json=no"}), "no error");
  EXPECT_NE(usageError({"dump", "t", "--force"}), "no error");
}

TEST(QuillctlArguments, HelpIsNoError) {
  const auto result = parse({"--help"});
  ASSERT_TRUE(std::holds_alternative<EarlyExit>(result));
  EXPECT_EQ(std::get<EarlyExit>(result).status, 0);
}

}  // namespace
}  // namespace Quillctl

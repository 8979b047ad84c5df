// SPDX-License-Identifier: Apache-2.0
//
// The command line of ringwardd: [--config FILE] [--check] [--foreground] [--help] [--version].
//
// A pure function from the arguments to a value: it prints nothing, ends nothing and opens no
// file, so that main() alone decides where a text goes. Any thread may call it.
//
// Invariants:
//  1. A command line has one outcome: a CommandLine, or a CommandLineExit with a text.
//  2. Exit code 0 belongs to a text that was asked for (standard output), 2 to a usage error
//     (standard error).
#pragma once

#include <string>
#include <variant>

namespace Agent {

inline constexpr const char* kDefaultConfigPath = "/etc/ringward/ringward.toml";

struct CommandLine {
  std::string configPath = kDefaultConfigPath;
  bool check = false;        // validate the file, print the effective configuration, leave
  bool foreground = false;   // do not detach from the terminal
  bool showVersion = false;  // print the version and leave; main() knows the version
};

struct CommandLineExit {
  int code;
  std::string text;  // ends with a newline
};

using CommandLineResult = std::variant<CommandLine, CommandLineExit>;

// The arguments as main() gets them; argv[0] is not an argument, and `argc` may be 0.
CommandLineResult parseCommandLine(int argc, const char* const* argv);

}  // namespace Agent

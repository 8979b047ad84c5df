// SPDX-License-Identifier: Apache-2.0
//
// The command line of quillctl. Any thread.
#pragma once

#include <string>
#include <variant>

namespace Quillctl {

// What was given, as text; empty where nothing was. Numbers and keys are read by the commands.
struct Arguments {
  std::string root;     // absolute; the last one that was given
  std::string command;  // the name of the subcommand
  std::string table;
  std::string type;
  std::string size;
  std::string key;
  std::string tx;
  std::string rx;
  std::string rxOther;
  std::string count;
  std::string seed;
  bool json = false;
  bool force = false;
};

// Ends the program at once: `text` goes to standard output for status 0, else to standard error.
struct EarlyExit {
  int status;
  std::string text;
};

std::variant<Arguments, EarlyExit> parseArguments(int argc, const char* const* argv);

}  // namespace Quillctl

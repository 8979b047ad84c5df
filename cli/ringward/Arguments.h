// SPDX-License-Identifier: Apache-2.0
//
// The command line of ringward. A pure function: any thread.
#pragma once

#include <string>
#include <variant>
#include <vector>

namespace RingwardCli {

struct Arguments {
  std::string socket;              // path
  std::string root;                // of the tables; absolute
  std::string command;             // "get", "vlan add", "show"
  std::vector<std::string> words;  // what follows the command, in order
  bool json = false;
  bool reconnect = false;
};

// Ends the program at once: `text` goes to standard output for status 0, else to standard error.
struct EarlyExit {
  int status;
  std::string text;
};

std::variant<Arguments, EarlyExit> parseArguments(int argc, const char* const* argv);

}  // namespace RingwardCli

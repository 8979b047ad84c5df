// SPDX-License-Identifier: Apache-2.0
#include "agent/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <vector>

namespace Agent {

namespace {

constexpr int kUsageError = 2;

// What is wrong with the value of --config; empty: nothing.
std::string wrongPathText(const std::string& path) {
  if (path.empty()) return "the name of the file is empty";
  // "--config --check" has lost its file name.
  if (path.rfind("--", 0) == 0) return path + " is an option, not a file; allowed: ./" + path;
  return "";
}

}  // namespace

CommandLineResult parseCommandLine(int argc, const char* const* argv) {
  CommandLine result;
  CLI::App app{"ringwardd finds forwarding loops and disables the ports they run through.",
               "ringwardd"};
  app.set_help_flag("-h,--help", "Print this help and leave");
  // Without the override a flag takes no value: "--check=no" is an error, not the opposite.
  app.add_flag("--version", result.showVersion, "Print the version and leave")
      ->disable_flag_override();
  app.add_option("--config", result.configPath, "Configuration file")
      ->type_name("FILE")
      ->capture_default_str()
      ->check(wrongPathText);
  app.add_flag("--check", result.check,
               "Validate the configuration file, print the effective configuration and leave")
      ->disable_flag_override();
  app.add_flag("--foreground", result.foreground, "Do not detach from the terminal")
      ->disable_flag_override();

  // The library takes the arguments last one first. It gets them without argv[0], which a caller
  // of execve(2) may leave out.
  std::vector<std::string> arguments;
  for (int i = argc - 1; i >= 1; --i) arguments.emplace_back(argv[i]);
  try {
    app.parse(std::move(arguments));
  } catch (const CLI::CallForHelp&) {
    return CommandLineExit{0, app.help()};
  } catch (const CLI::Error& error) {
    return CommandLineExit{kUsageError, std::string("ringwardd: ") + error.what() +
                                            "\nTry 'ringwardd --help' for the options.\n"};
  }
  return result;
}

}  // namespace Agent

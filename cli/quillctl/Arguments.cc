// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/Arguments.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <vector>

#include "cli/quillctl/Failure.h"
#include "cli/quillctl/Texts.h"
#include "quill/RootPath.h"

namespace Quillctl {

namespace {

class Parser {
 public:
  Parser() {
    app_.set_help_flag("-h,--help", "Print this help and leave");
    app_.add_option("--root", arguments_.root, "Directory of the tables")
        ->type_name("DIR")
        ->default_str(Quill::defaultRoot())
        ->take_last();
    // Without the override a flag takes no value: "--json=no" is an error, not the opposite.
    app_.add_flag("--json", arguments_.json, "Print JSON")->disable_flag_override();
    app_.require_subcommand(1);
    app_.fallthrough();
    app_.footer(
        "Exit status: 0 done, 1 wrong usage, 2 refused or failed, 3 no such table or key,\n"
        "4 damaged table.");

    command("list", "Show every table below the root");
    CLI::App& create = tableCommand("create", "Make an empty table");
    create.add_option("--type", arguments_.type, "counterIntf or counterVlan")
        ->type_name("TYPE")
        ->required();
    create.add_option("--size", arguments_.size, "Entries that the table is made for")
        ->type_name("N")
        ->required();
    forceable(create);
    CLI::App& put = keyCommand("put", "Write one record");
    positional(put, "TX", arguments_.tx, "Count of probes sent");
    positional(put, "RX", arguments_.rx, "Count of probes received");
    positional(put, "RXOTHER", arguments_.rxOther, "Count of other frames received");
    forceable(put);
    keyCommand("get", "Show one record");
    forceable(keyCommand("del", "Remove one record"));
    CLI::App& fill = tableCommand("fill", "Write COUNT records with values from a seed");
    positional(fill, "COUNT", arguments_.count, "Number of records");
    fill.add_option("--seed", arguments_.seed, "Where order and values come from")
        ->type_name("S")
        ->default_str("1");
    forceable(fill);
    forceable(tableCommand(
        "batch", "Apply lines \"put KEY TX RX RXOTHER\" and \"del KEY\" from standard input"));
    forceable(tableCommand("clear", "Remove every record"));
    tableCommand("dump", "Show every record, in the table's order");
    tableCommand("stat", "Show what the table's files tell of themselves");
    tableCommand("verify", "Check the whole structure, changing nothing");
    tableCommand("watch", "Print each change until interrupted");
    tableCommand("counters", "Show the records by key, with their totals");
    tableCommand("remove", "Remove the table and its files");
  }

  std::variant<Arguments, EarlyExit> parse(std::vector<std::string> given) {
    try {
      app_.parse(std::move(given));
    } catch (const CLI::CallForHelp&) {
      const auto chosen = app_.get_subcommands();
      return EarlyExit{0, chosen.empty() ? app_.help() : chosen.front()->help()};
    } catch (const CLI::Error& error) {
      const std::vector<std::string> left = app_.remaining();
      if (app_.get_subcommands().empty() && !left.empty())
        return wrong(noCommandText(left.front()));
      return wrong(error.what());
    }
    arguments_.command = app_.get_subcommands().front()->get_name();
    if (app_.count("--root") == 0) arguments_.root = Quill::defaultRoot();
    if (arguments_.root.empty()) return wrong("--root: the name of the directory is empty");
    std::error_code error;
    const auto root = std::filesystem::absolute(arguments_.root, error);
    if (error) return wrong("--root " + arguments_.root + ": " + error.message());
    arguments_.root = root.lexically_normal().string();
    return arguments_;
  }

 private:
  static EarlyExit wrong(const std::string& text) {
    return {static_cast<int>(ExitStatus::usage),
            "quillctl: " + text + "\nTry 'quillctl --help' for the commands.\n"};
  }

  std::string noCommandText(const std::string& given) const {
    return "no command " + inQuotes(given) + "; the nearest is " + inQuotes(nearest(given, names_));
  }

  CLI::App& command(const std::string& name, const std::string& what) {
    CLI::App* const made = app_.add_subcommand(name, what);
    made->fallthrough();
    names_.push_back(name);
    return *made;
  }
  CLI::App& tableCommand(const std::string& name, const std::string& what) {
    CLI::App& made = command(name, what);
    positional(made, "TABLE", arguments_.table, "Name of the table, or its directory's path");
    return made;
  }
  CLI::App& keyCommand(const std::string& name, const std::string& what) {
    CLI::App& made = tableCommand(name, what);
    positional(made, "KEY", arguments_.key, "Interface name, or number of a VLAN (0 for none)");
    return made;
  }
  static void positional(CLI::App& to, const std::string& name, std::string& value,
                         const std::string& what) {
    to.add_option(name, value, what)->required();
  }
  void forceable(CLI::App& to) {
    to.add_flag("--force", arguments_.force, "Give up the contents of a damaged table")
        ->disable_flag_override();
  }

  Arguments arguments_;
  std::vector<std::string> names_;
  CLI::App app_{"quillctl looks into, fills and repairs the shared tables.", "quillctl"};
};

}  // namespace

std::variant<Arguments, EarlyExit> parseArguments(int argc, const char* const* argv) {
  // The library takes the arguments last one first, without argv[0].
  std::vector<std::string> given;
  for (int i = argc - 1; i >= 1; --i) given.emplace_back(argv[i]);
  return Parser().parse(std::move(given));
}

}  // namespace Quillctl

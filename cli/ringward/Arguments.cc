// SPDX-License-Identifier: Apache-2.0
#include "cli/ringward/Arguments.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <optional>

#include "cli/quillctl/Texts.h"
#include "cli/ringward/Failure.h"
#include "platform/linux/control/Protocol.h"
#include "quill/RootPath.h"

namespace RingwardCli {

namespace {

using Quillctl::inQuotes;
using Quillctl::nearest;
using Quillctl::printable;

const std::vector<std::string> kShown{"interfaces", "vlans", "counters", "config", "queues"};

class Parser {
 public:
  Parser() {
    app_.set_help_flag("-h,--help", "Print this help and leave");
    app_.add_option("--socket", arguments_.socket, "The agent's control socket")
        ->type_name("PATH")
        ->default_str(Platform::Linux::Control::kDefaultSocket)
        ->take_last();
    app_.add_option("--root", arguments_.root, "Directory of the tables of counters")
        ->type_name("DIR")
        ->default_str(Quill::defaultRoot())
        ->take_last();
    // Without the override a flag takes no value: "--json=no" is an error, not the opposite.
    app_.add_flag("-j,--json", arguments_.json, "Print JSON")->disable_flag_override();
    app_.require_subcommand(1);
    app_.fallthrough();
    app_.footer(
        "A PATH leads from a root (config, status, transmitStatus, packetCounter, globalSm) to an\n"
        "attribute: config/globalEnabled, status/intfStatus[eth1]/disabledUntil.\n\n"
        "Exit status: 0 done, 1 refused or failed, 2 wrong usage, 3 no agent.");

    CLI::App& show = command("show", "What is going on, or one of " + list(kShown));
    word(show, "WHAT", show_, "What to show")->required(false);
    commandAt("get", "Print one value");
    CLI::App& set = commandAt("set", "Change one value");
    word(set, "VALUE", value_, "The new value");
    commandAt("del", "Remove an element of a collection");
    CLI::App& ls =
        command("ls", "List the attributes of an object, or the elements of a collection");
    word(ls, "PATH", path_, "Where; without it the roots")->required(false);
    CLI::App& call = commandAt("call", "Call a function");
    word(call, "FUNCTION", value_, "Its name");
    call.add_option("ARGUMENTS", more_, "Its arguments")->type_name("NAME=VALUE");
    CLI::App& watch = command("watch", "Print each change below the paths until interrupted");
    watch.add_option("PATH", more_, "What to follow")->required();
    watch.add_flag("--reconnect", arguments_.reconnect, "Wait for the next agent if this one goes")
        ->disable_flag_override();
    CLI::App& clear = command("clear", "Clear what has been counted");
    nested(clear, "counters", "Empty the tables of packet counters");
    command("enable", "Turn detection on");
    command("disable", "Turn detection off; every port that is held comes back");
    pair("vlan", "VLANs in which loops are looked for", "RANGE", "Such as 1,10-20");
    pair("exclude", "Interfaces that take no part", "NAME", "The name of an interface");
  }

  std::variant<Arguments, EarlyExit> parse(std::vector<std::string> given) {
    try {
      app_.parse(std::move(given));
    } catch (const CLI::CallForHelp&) {
      return EarlyExit{0, deepest().help()};
    } catch (const CLI::Error& error) {
      const std::vector<std::string> left = app_.remaining();
      if (app_.get_subcommands().empty() && !left.empty()) {
        return wrong("no command " + inQuotes(left.front()) + "; the nearest is " +
                     inQuotes(nearest(left.front(), names_)));
      }
      if (const auto word = unknownSecondWord(left)) {
        const std::string first = deepest().get_name() + ' ';
        const std::vector<std::string> known = namesIn(deepest());
        return wrong("no command " + inQuotes(first + *word) + "; the nearest is " +
                     inQuotes(first + nearest(*word, known)) +
                     (known.size() > 1 ? ", there are " + list(known) : ""));
      }
      // The library repeats arguments as they are.
      return wrong(printable(error.what()));
    }
    for (CLI::App* at = &app_; !at->get_subcommands().empty();) {
      at = at->get_subcommands().front();
      arguments_.command += (arguments_.command.empty() ? "" : " ") + at->get_name();
    }
    return finish();
  }

 private:
  static std::string list(const std::vector<std::string>& texts) {
    std::string result;
    for (const std::string& text : texts) result += (result.empty() ? "" : ", ") + text;
    return result;
  }
  static EarlyExit wrong(const std::string& text) {
    return {static_cast<int>(ExitStatus::usage),
            "ringward: " + text + "\nTry 'ringward --help' for the commands.\n"};
  }

  std::variant<Arguments, EarlyExit> finish() {
    if (app_.count("--socket") == 0) arguments_.socket = Platform::Linux::Control::kDefaultSocket;
    if (app_.count("--root") == 0) arguments_.root = Quill::defaultRoot();
    if (arguments_.socket.empty()) return wrong("--socket: the path is empty");
    if (arguments_.root.empty()) return wrong("--root: the name of the directory is empty");
    std::error_code error;
    const auto root = std::filesystem::absolute(arguments_.root, error);
    if (error) return wrong("--root " + inQuotes(arguments_.root) + ": " + error.message());
    arguments_.root = root.lexically_normal().string();
    if (arguments_.command == "show" && !show_.empty() &&
        std::find(kShown.begin(), kShown.end(), show_) == kShown.end()) {
      return wrong("nothing to show under " + inQuotes(show_) + "; the nearest is " +
                   inQuotes(nearest(show_, kShown)) + ", there are " + list(kShown));
    }
    // An empty word is a word, where one is required.
    const std::string& command = arguments_.command;
    const bool valued = command == "set" || command == "call";
    const bool placed = valued || command == "get" || command == "del" ||
                        command.starts_with("vlan ") || command.starts_with("exclude ");
    if (!show_.empty()) arguments_.words.push_back(show_);
    if (placed || !path_.empty()) arguments_.words.push_back(path_);
    if (valued) arguments_.words.push_back(value_);
    arguments_.words.insert(arguments_.words.end(), more_.begin(), more_.end());
    return arguments_;
  }

  static std::vector<std::string> namesIn(CLI::App& in) {
    std::vector<std::string> names;
    for (const CLI::App* const at : in.get_subcommands({})) names.push_back(at->get_name());
    return names;
  }
  // What stands where a command of two words should have its second one.
  std::optional<std::string> unknownSecondWord(const std::vector<std::string>& left) {
    if (namesIn(deepest()).empty()) return std::nullopt;
    const auto found = std::find_if(left.begin(), left.end(),
                                    [](const auto& word) { return !word.starts_with('-'); });
    return found != left.end() ? std::optional(*found) : std::nullopt;
  }
  CLI::App& deepest() {
    CLI::App* at = &app_;
    while (!at->get_subcommands().empty()) at = at->get_subcommands().front();
    return *at;
  }
  CLI::App& command(const std::string& name, const std::string& what) {
    names_.push_back(name);
    return nested(app_, name, what);
  }
  static CLI::App& nested(CLI::App& in, const std::string& name, const std::string& what) {
    CLI::App* const made = in.add_subcommand(name, what);
    made->fallthrough();
    if (in.get_parent() != nullptr) in.require_subcommand(1);
    return *made;
  }
  CLI::App& commandAt(const std::string& name, const std::string& what) {
    CLI::App& made = command(name, what);
    word(made, "PATH", path_, "Which");
    return made;
  }
  void pair(const std::string& name, const std::string& what, const std::string& argument,
            const std::string& meaning) {
    CLI::App& made = command(name, what);
    word(nested(made, "add", "Add to them"), argument, path_, meaning);
    word(nested(made, "del", "Take from them"), argument, path_, meaning);
  }
  static CLI::Option* word(CLI::App& to, const std::string& name, std::string& value,
                           const std::string& what) {
    return to.add_option(name, value, what)->required();
  }

  Arguments arguments_;
  std::string show_;
  std::string path_;
  std::string value_;
  std::vector<std::string> more_;
  std::vector<std::string> names_;
  CLI::App app_{"ringward shows and changes what the loop protection of this host does.",
                "ringward"};
};

}  // namespace

std::variant<Arguments, EarlyExit> parseArguments(int argc, const char* const* argv) {
  // The library takes the arguments last one first, without argv[0].
  std::vector<std::string> given;
  for (int i = argc - 1; i >= 1; --i) given.emplace_back(argv[i]);
  return Parser().parse(std::move(given));
}

}  // namespace RingwardCli

// SPDX-License-Identifier: Apache-2.0
#include "cli/ringward/ChangeCommands.h"

#include <net/if.h>

#include <algorithm>
#include <charconv>
#include <optional>

#include "cli/quillctl/Texts.h"
#include "cli/ringward/Failure.h"
#include "cli/ringward/Paths.h"
#include "runtime/bridging/VlanBitmap.h"
#include "runtime/vex/Exception.h"

namespace RingwardCli {

using Control::Operation;
using Control::Status;
using Quillctl::inQuotes;
using Quillctl::nearest;
using Quillctl::printable;

namespace {

// One line that says what has been done, or the same as JSON.
void report(Context& context, const std::string& text, const Json& json) {
  if (context.json()) return context.line(json);
  context.out() << text << '\n';
}

void enabledIs(Context& context, bool flag) {
  context.agent().set(kEnabledPath, flag ? "true" : "false");
  report(context, flag ? "detection is on" : "detection is off", {{"enabled", flag}});
}

void changeVlans(Context& context, bool add) {
  Bridging::VlanBitmap vlans;
  try {
    vlans = Bridging::VlanBitmap::parse(context.word(0));
  } catch (const Vex::RangeException& exception) {
    throw Failure(ExitStatus::usage,
                  "RANGE " + inQuotes(context.word(0)) + ": " + printable(exception.text()));
  }
  if (!vlans) {
    throw Failure(ExitStatus::usage, "RANGE " + inQuotes(context.word(0)) +
                                         " names no VLAN; allowed: such as 1,10-20");
  }
  std::vector<AgentLink::Request> requests;
  std::vector<std::uint16_t> numbers;
  vlans.forEach([&](std::uint16_t vlan) {
    const std::string path = elementPath(kVlansPath, std::to_string(vlan));
    numbers.push_back(vlan);
    if (add) {
      requests.push_back({Operation::set, {path, "true"}});
    } else {
      requests.push_back({Operation::del, {path}});
    }
  });
  AgentLink& agent = context.agent();
  std::vector<Control::Answer> answers;
  std::optional<Failure> interrupted;  // in the middle: what is done is told all the same
  try {
    agent.askAll(requests, answers);
  } catch (const Failure& failure) {
    interrupted = failure;
  }
  Bridging::VlanBitmap done;
  std::string firstReason;
  for (std::size_t i = 0; i < answers.size(); ++i) {
    if (answers[i].status == Status::done) {
      done.set(std::uint32_t{numbers[i]});
    } else if (firstReason.empty()) {
      firstReason = "VLAN " + std::to_string(numbers[i]) + ": " +
                    (answers[i].status == Status::refused ? "refused: " : "") +
                    printable(answers[i].texts.empty() ? "no reason given" : answers[i].texts[0]);
    }
  }
  const std::string what = add ? "enabled" : "disabled";
  if (done) {
    report(context, "VLANs " + done.toText() + " " + what, {{what, done.toText()}});
  }
  if (interrupted) {
    throw Failure(interrupted->status(),
                  std::to_string(done.count()) + " of " + std::to_string(vlans.count()) +
                      " VLANs are " + what + ", the others may be: see `ringward show vlans`; " +
                      (firstReason.empty() ? "" : firstReason + "; ") + interrupted->what());
  }
  if (!firstReason.empty()) {
    throw Failure(ExitStatus::failed, std::to_string(vlans.count() - done.count()) + " of " +
                                          std::to_string(vlans.count()) + " VLANs are as before; " +
                                          firstReason);
  }
}

// The empty name is that of no interface, and would be kept all the same.
const std::string& intfName(const Context& context) {
  if (context.word(0).empty()) {
    throw Failure(ExitStatus::usage, "NAME \"\" names no interface; allowed: such as eth1");
  }
  return context.word(0);
}

}  // namespace

void enable(Context& context) { enabledIs(context, true); }
void disable(Context& context) { enabledIs(context, false); }

// The number itself means nothing; that it changes clears.
void clearCounters(Context& context) {
  const std::string before = context.agent().get(kClearPath);
  std::uint32_t number = 0;
  std::from_chars(before.data(), before.data() + before.size(), number);
  context.agent().set(kClearPath, std::to_string(number + 1));
  report(context, "counters cleared", {{"cleared", true}});
}

void addVlans(Context& context) { changeVlans(context, true); }
void delVlans(Context& context) { changeVlans(context, false); }

void addExclude(Context& context) {
  const std::string& name = intfName(context);
  context.agent().set(elementPath(kExcludePath, name), "true");
  if (if_nametoindex(name.c_str()) == 0) {
    context.note("warning: there is no interface " + inQuotes(name) +
                 " here now; it takes no part when it comes");
  }
  report(context, printable(name) + " takes no part", {{"excluded", name}});
}

void delExclude(Context& context) {
  const std::string& name = intfName(context);
  std::vector<std::string> names;
  for (const Node& node : context.agent().ls(kExcludePath)) {
    names.push_back(Ringward::Generic::unquotedKey(node.name));
  }
  if (std::find(names.begin(), names.end(), name) == names.end()) {
    throw Failure(ExitStatus::failed,
                  inQuotes(name) + " is not excluded" +
                      (names.empty() ? "; no interface is"
                                     : "; the nearest that is: " + inQuotes(nearest(name, names))));
  }
  context.agent().del(elementPath(kExcludePath, name));
  report(context, printable(name) + " takes part", {{"included", name}});
}

}  // namespace RingwardCli

// SPDX-License-Identifier: Apache-2.0
#include "cli/ringward/ShowCommands.h"

#include <algorithm>
#include <array>
#include <iomanip>
#include <utility>

#include "cli/quillctl/Texts.h"
#include "cli/ringward/Failure.h"
#include "cli/ringward/Paths.h"
#include "cli/ringward/Snapshot.h"
#include "cli/ringward/Tables.h"
#include "cli/ringward/Times.h"

namespace RingwardCli {

using Quillctl::printable;

namespace {

constexpr std::size_t kShownRequests = 10;

std::string listText(const std::vector<std::string>& texts) {
  std::string result;
  for (const std::string& text : texts) result += (result.empty() ? "" : ", ") + printable(text);
  return result.empty() ? "none" : result;
}

std::string vlansText(const Bridging::VlanBitmap& vlans) {
  return vlans ? vlans.toText() + " (" + std::to_string(vlans.count()) + ")" : "none";
}

// The two moments of a hold, on both clocks.
class Hold {
 public:
  Hold(const IntfState& intf, double now) : intf_(intf), now_(now) {}

  std::string text() const {
    std::string line = "since " + dateText(wallTimeOf(intf_.since, now_)) + " (" +
                       secondsText(now_ - intf_.since) + "), ";
    if (intf_.until == 0) return line + "for good";
    return line + "until " + dateText(wallTimeOf(intf_.until, now_)) + " (" +
           secondsText(intf_.until - now_) + ")";
  }
  Json json() const {
    Json made{{"name", intf_.name}, {"held", intf_.held}};
    if (!intf_.held) return made;
    made["since"] = dateText(wallTimeOf(intf_.since, now_));
    made["heldSeconds"] = std::max(now_ - intf_.since, 0.0);
    if (intf_.until != 0) {
      made["until"] = dateText(wallTimeOf(intf_.until, now_));
      made["remainingSeconds"] = std::max(intf_.until - now_, 0.0);
    } else {
      made["until"] = nullptr;
    }
    return made;
  }

 private:
  const IntfState& intf_;
  const double now_;
};

Json intfsJson(const Snapshot& snapshot, double now) {
  Json list = Json::array();
  for (const IntfState& intf : snapshot.intfs) list.push_back(Hold(intf, now).json());
  return list;
}

std::string detectionText(const Snapshot& snapshot) {
  if (!snapshot.enabled) return "off";
  return snapshot.running ? "on" : "on, but it does not run yet";
}

void showOverview(Context& context) {
  const Snapshot snapshot = readSnapshot(context.agent());
  const double now = context.loop().clock()->now();
  if (context.json()) {
    return context.line({{"agent", context.agent().agent()},
                         {"enabled", snapshot.enabled},
                         {"running", snapshot.running},
                         {"vlans", snapshot.vlans.toText()},
                         {"held", snapshot.held()},
                         {"interfaces", intfsJson(snapshot, now)},
                         {"excluded", snapshot.excluded},
                         {"excludedBySystem", snapshot.excludedBySystem},
                         {"sourceAddress", snapshot.sourceAddress}});
  }
  std::ostream& out = context.out();
  out << "agent       " << printable(context.agent().agent()) << '\n'
      << "detection   " << detectionText(snapshot) << '\n'
      << "VLANs       " << vlansText(snapshot.vlans) << '\n'
      << "interfaces  " << snapshot.intfs.size() << " watched, " << snapshot.held() << " held\n"
      << "excluded    " << listText(snapshot.excluded) << '\n'
      << "probes      from " << printable(snapshot.sourceAddress) << ", every "
      << printable(snapshot.transmitInterval) << " s, at most " << printable(snapshot.rateLimit)
      << " per second\n";
  if (snapshot.held() == 0) {
    out << "loops       none\n";
    return;
  }
  for (const IntfState& intf : snapshot.intfs) {
    if (!intf.held) continue;
    out << "loop        " << printable(intf.name) << " held " << Hold(intf, now).text() << '\n';
  }
}

void showInterfaces(Context& context) {
  const Snapshot snapshot = readSnapshot(context.agent());
  const double now = context.loop().clock()->now();
  if (context.json()) {
    return context.line({{"interfaces", intfsJson(snapshot, now)},
                         {"excluded", snapshot.excluded},
                         {"excludedBySystem", snapshot.excludedBySystem}});
  }
  std::size_t width = 9;
  const auto widen = [&](const std::string& name) {
    width = std::max(width, printable(name).size());
  };
  for (const IntfState& intf : snapshot.intfs) widen(intf.name);
  for (const std::string& name : snapshot.excluded) widen(name);
  for (const std::string& name : snapshot.excludedBySystem) widen(name);
  const auto row = [&](const std::string& name, const std::string& state) {
    context.out() << std::left << std::setw(static_cast<int>(width)) << printable(name) << "  "
                  << state << '\n';
  };
  row("interface", "state");
  for (const IntfState& intf : snapshot.intfs) {
    row(intf.name, intf.held ? "held " + Hold(intf, now).text() : "watched");
  }
  for (const std::string& name : snapshot.excluded) row(name, "excluded");
  for (const std::string& name : snapshot.excludedBySystem) row(name, "excluded by the system");
}

void showVlans(Context& context) {
  const Snapshot snapshot = readSnapshot(context.agent());
  if (context.json()) {
    return context.line({{"vlans", snapshot.vlans.toText()}, {"count", snapshot.vlans.count()}});
  }
  context.out() << vlansText(snapshot.vlans) << '\n';
}

void showCounters(Context& context) {
  static_cast<void>(context.agent());
  const CounterTables tables = readTables(context.arguments().root);
  if (!context.json()) return showTables(context, tables);
  Json json{{"live", true}};
  tablesTo(json, tables);
  context.line(json);
}

void showConfig(Context& context) {
  const Snapshot snapshot = readSnapshot(context.agent());
  const std::array<std::pair<const char*, std::string>, 6> lines{{
      {"globalEnabled", snapshot.enabled ? "true" : "false"},
      {"vlanEnabled", snapshot.vlans.toText()},
      {"intfExclude", listText(snapshot.excluded)},
      {"transmitInterval", snapshot.transmitInterval},
      {"disabledTime", snapshot.disabledTime},
      {"rateLimit", snapshot.rateLimit},
  }};
  if (context.json()) {
    return context.line({{"globalEnabled", snapshot.enabled},
                         {"vlanEnabled", snapshot.vlans.toText()},
                         {"intfExclude", snapshot.excluded},
                         {"transmitInterval", std::stoul("0" + snapshot.transmitInterval)},
                         {"disabledTime", std::stoul("0" + snapshot.disabledTime)},
                         {"rateLimit", std::stoul("0" + snapshot.rateLimit)}});
  }
  for (const auto& [name, text] : lines) {
    context.out() << std::left << std::setw(18) << name << printable(text) << '\n';
  }
}

void showQueues(Context& context) {
  Json json;
  const std::vector<Node> attributes = context.agent().ls("transmitStatus");
  for (const char* const name : {"highPriority", "regularPriority"}) {
    const auto found = std::find_if(attributes.begin(), attributes.end(),
                                    [&](const Node& node) { return node.name == name; });
    const std::string members = found == attributes.end() ? "0" : found->members;
    const std::vector<Node> first =
        context.agent().ls(std::string("transmitStatus/") + name, kShownRequests);
    if (context.json()) {
      Json list = Json::array();
      for (const Node& node : first) list.push_back({{"index", node.name}, {"value", node.text}});
      json[name] = {{"members", std::stoul("0" + members)}, {"first", std::move(list)}};
      continue;
    }
    context.out() << name << ": " << printable(members) << " waiting\n";
    for (const Node& node : first) {
      context.out() << "  " << printable(node.name) << "  " << printable(node.text) << '\n';
    }
  }
  if (context.json()) context.line(json);
}

// What can be told without the agent; `why` there is none.
void showLastWritten(Context& context, const char* why) {
  const CounterTables tables = readTables(context.arguments().root);
  if (context.json()) {
    Json json{{"agent", nullptr}, {"live", false}};
    tablesTo(json, tables);
    return context.line(json);
  }
  context.out() << why << "; counters as last written\n";
  showTables(context, tables);
}

}  // namespace

void show(Context& context) {
  using Command = void (*)(Context&);
  static constexpr std::array<std::pair<std::string_view, Command>, 6> kCommands{{
      {"", &showOverview},
      {"interfaces", &showInterfaces},
      {"vlans", &showVlans},
      {"counters", &showCounters},
      {"config", &showConfig},
      {"queues", &showQueues},
  }};
  const std::string what = context.arguments().words.empty() ? "" : context.word(0);
  const auto found = std::find_if(kCommands.begin(), kCommands.end(),
                                  [&](const auto& entry) { return entry.first == what; });
  try {
    static_cast<void>(context.agent());
  } catch (const Failure& failure) {
    // The tables need no agent. One that is there but stopped, full or out of reach leaves it open
    // how everything else stands, so nothing is shown to whoever asks for that.
    if (failure.status() == ExitStatus::noAgent) {
      showLastWritten(context, "agent not running");
    } else if (what.empty() || what == "counters") {
      showLastWritten(context, "agent does not answer");
    }
    throw;
  }
  found->second(context);
}

}  // namespace RingwardCli

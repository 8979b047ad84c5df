// SPDX-License-Identifier: Apache-2.0
#include "agent/ConfigurationKeys.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/PortMatch.h"
#include "agent/UnknownKey.h"
#include "agent/ValueReader.h"
#include "runtime/vex/Exception.h"

namespace Agent {

namespace {

constexpr const char* kInterfaceNameRule =
    "1 to 15 bytes without '/', ':' or white space, and not \".\" or \"..\"";

// Paths are absolute: a relative one would depend on where the agent was started.

// ".new" is written beside the file.
constexpr std::size_t kMostStateFileBytes = PATH_MAX - sizeof(".new");

bool isStateFile(std::string_view path) {
  return path.empty() ||
         (path.front() == '/' && path.back() != '/' && path.size() <= kMostStateFileBytes &&
          path.find('\0') == std::string_view::npos);
}

// A table's own directory and its files come behind it.
constexpr std::size_t kMostRootBytes = PATH_MAX - 320;

bool isRoot(std::string_view path) {
  return path.empty() || (path.front() == '/' && path.size() <= kMostRootBytes &&
                          path.find('\0') == std::string_view::npos &&
                          (std::string(path) + '/').find("/../") == std::string::npos);
}

bool isSocket(std::string_view path) {
  return path.empty() ||
         (path.front() == '/' && path.back() != '/' && path.size() <= kMaxSocketPath &&
          path.find('\0') == std::string_view::npos);
}

bool isGroup(std::string_view name) {
  return name.size() <= kMaxGroupName && name.find('\0') == std::string_view::npos;
}

// Walks the parsed file once; each known key has one member function, found through kRules.
class FileReader : private ValueReader {
 public:
  using ValueReader::ValueReader;

  ConfigurationResult read(const toml::table& root) {
    readTable(root, "");
    if (configuration_.enabled && !root.contains("ports")) {
      addError(*root.get("enabled"), "ports",
               "missing, but enabled is true; wanted: a section [ports] with bridge or match");
    }
    std::vector<ConfigurationError> errors = takeErrors();
    if (errors.empty()) return ConfigurationResult(std::move(configuration_));
    return ConfigurationResult(std::move(errors));
  }

 private:
  struct Rule {
    KeyName name;
    void (FileReader::*read)(const toml::node&);
  };
  static const std::array<Rule, 26> kRules;

  void readTable(const toml::table& table, std::string_view section);
  void readSection(const toml::node& node, const char* section);

  void readEnabled(const toml::node& node) { readBoolean(node, "enabled", configuration_.enabled); }
  void readVlans(const toml::node& node);
  void readExclude(const toml::node& node) {
    readList(node, "exclude", {isInterfaceName, "not an interface name", kInterfaceNameRule},
             configuration_.exclude);
  }
  void readTransmitInterval(const toml::node& node) {
    readInteger(node, "transmit-interval", {0, 255, " (seconds)"}, configuration_.transmitInterval);
  }
  void readDisabledTime(const toml::node& node) {
    readInteger(node, "disabled-time", {0, kMaxUnsigned, " (seconds)"},
                configuration_.disabledTime);
  }
  void readRateLimit(const toml::node& node) {
    readInteger(node, "rate-limit", {0, kMaxUnsigned, " (probes per second)"},
                configuration_.rateLimit);
  }
  void readStateFile(const toml::node& node) {
    readText(node, "state-file", "a string, such as \"/run/ringward/held.json\"",
             {isStateFile, "not a file's path",
              "a path from \"/\" of at most " + std::to_string(kMostStateFileBytes) +
                  " bytes, or \"\" for none"},
             configuration_.stateFile);
  }
  void readScheduling(const toml::node& node) {
    readChoice(node, "scheduling", schedulingOf, "no scheduling",
               "\"auto\", \"realtime\", \"normal\"", configuration_.scheduling);
  }
  void readPorts(const toml::node& node);
  void readBridge(const toml::node& node) {
    readText(node, "ports.bridge", "a string, such as \"br0\"",
             {isInterfaceName, "not an interface name", kInterfaceNameRule}, ports_.bridge);
  }
  void readMatch(const toml::node& node);
  void readNativeVlan(const toml::node& node) {
    readInteger(node, "ports.native-vlan", {1, 4094, ""}, ports_.nativeVlan);
  }
  void readErrdisable(const toml::node& node) { readSection(node, "errdisable"); }
  void readAction(const toml::node& node) {
    readChoice(node, "errdisable.action", Platform::Linux::errdisableActionOf, "not an action",
               "\"auto\", \"bridge-port\", \"protodown\", \"admin-down\", \"monitor\"",
               configuration_.errdisableAction);
  }
  void readPacket(const toml::node& node) { readSection(node, "packet"); }
  void readAcceptForeignSource(const toml::node& node) {
    readBoolean(node, "packet.accept-foreign-source", configuration_.acceptForeignSource);
  }
  void readSourceAddress(const toml::node& node);
  void readCounters(const toml::node& node) { readSection(node, "counters"); }
  void readShared(const toml::node& node) {
    readBoolean(node, "counters.shared", configuration_.counters.shared);
  }
  void readRoot(const toml::node& node) {
    readText(node, "counters.root", "a string, such as \"/run/ringward/tables\"",
             {isRoot, "not a directory's path",
              "a path from \"/\" of at most " + std::to_string(kMostRootBytes) +
                  " bytes without \"..\", or \"\" for the store's default"},
             configuration_.counters.root);
  }
  void readCounterInterfaces(const toml::node& node) {
    readInteger(node, "counters.interfaces", kTableSizes, configuration_.counters.interfaces);
  }
  void readCounterVlans(const toml::node& node) {
    readInteger(node, "counters.vlans", kTableSizes, configuration_.counters.vlans);
  }
  void readControl(const toml::node& node) { readSection(node, "control"); }
  void readSocket(const toml::node& node) {
    readText(node, "control.socket", "a string, such as \"/run/ringward/ringwardd.sock\"",
             {isSocket, "not a socket's path",
              "a path from \"/\" of at most " + std::to_string(kMaxSocketPath) +
                  " bytes, or \"\" for none"},
             configuration_.control.socket);
  }
  void readGroup(const toml::node& node) {
    readText(node, "control.group", "a string, such as \"ringward\"",
             {isGroup, "no name of a group",
              "at most " + std::to_string(kMaxGroupName) + " bytes without NUL, or \"\" for none"},
             configuration_.control.group);
  }
  void readMaxClients(const toml::node& node) {
    readInteger(node, "control.max-clients", {kLeastClients, kMostClients, ""},
                configuration_.control.maxClients);
  }

  static constexpr std::int64_t kMaxUnsigned = std::numeric_limits<std::uint32_t>::max();
  static constexpr Range kTableSizes{kLeastTableSize, kMostTableSize, ""};

  Configuration configuration_;
  Ports ports_;
};

// The keys of the file, in the order in which the messages list them.
const std::array<FileReader::Rule, 26> FileReader::kRules{{
    {{"", "enabled"}, &FileReader::readEnabled},
    {{"", "vlans"}, &FileReader::readVlans},
    {{"", "exclude"}, &FileReader::readExclude},
    {{"", "transmit-interval"}, &FileReader::readTransmitInterval},
    {{"", "disabled-time"}, &FileReader::readDisabledTime},
    {{"", "rate-limit"}, &FileReader::readRateLimit},
    {{"", "state-file"}, &FileReader::readStateFile},
    {{"", "scheduling"}, &FileReader::readScheduling},
    {{"", "ports"}, &FileReader::readPorts},
    {{"", "errdisable"}, &FileReader::readErrdisable},
    {{"", "packet"}, &FileReader::readPacket},
    {{"", "counters"}, &FileReader::readCounters},
    {{"", "control"}, &FileReader::readControl},
    {{"ports", "bridge"}, &FileReader::readBridge},
    {{"ports", "match"}, &FileReader::readMatch},
    {{"ports", "native-vlan"}, &FileReader::readNativeVlan},
    {{"errdisable", "action"}, &FileReader::readAction},
    {{"packet", "accept-foreign-source"}, &FileReader::readAcceptForeignSource},
    {{"packet", "source-address"}, &FileReader::readSourceAddress},
    {{"counters", "shared"}, &FileReader::readShared},
    {{"counters", "root"}, &FileReader::readRoot},
    {{"counters", "interfaces"}, &FileReader::readCounterInterfaces},
    {{"counters", "vlans"}, &FileReader::readCounterVlans},
    {{"control", "socket"}, &FileReader::readSocket},
    {{"control", "group"}, &FileReader::readGroup},
    {{"control", "max-clients"}, &FileReader::readMaxClients},
}};

void FileReader::readTable(const toml::table& table, std::string_view section) {
  for (const auto& [key, node] : table) {
    const KeyName name{section, key.str()};
    const auto rule = std::find_if(kRules.begin(), kRules.end(),
                                   [&name](const Rule& known) { return known.name == name; });
    if (rule != kRules.end()) {
      (this->*rule->read)(node);
    } else {
      std::vector<KeyName> known;
      known.reserve(kRules.size());
      for (const Rule& each : kRules) known.push_back(each.name);
      addError(key.source(), keyText(name), unknownKeyText(name, known));
    }
  }
}

void FileReader::readSection(const toml::node& node, const char* section) {
  if (const auto* table = node.as_table()) {
    readTable(*table, section);
  } else {
    addTypeError(node, section, "a section [" + std::string(section) + "]");
  }
}

// The VLANs that a list names more than once. REQUIRES: VlanBitmap::parse() takes the whole list.
Bridging::VlanBitmap repeatedVlans(std::string_view list) {
  Bridging::VlanBitmap seen;
  Bridging::VlanBitmap repeated;
  while (!list.empty()) {
    const std::size_t size = std::min(list.find(','), list.size());
    const Bridging::VlanBitmap part = Bridging::VlanBitmap::parse(list.substr(0, size));
    repeated |= seen & part;
    seen |= part;
    list.remove_prefix(std::min(size + 1, list.size()));
  }
  return repeated;
}

void FileReader::readVlans(const toml::node& node) {
  const std::string* list = stringOf(node, "vlans", "a string, such as \"1,10-20\"");
  if (list == nullptr) return;
  try {
    configuration_.vlans = Bridging::VlanBitmap::parse(*list);
    const Bridging::VlanBitmap repeated = repeatedVlans(*list);
    if (repeated) {
      addError(node, "vlans",
               quotedText(*list) + " names VLAN " + plainText(repeated.toText()) +
                   " more than once; allowed: every VLAN once");
    }
  } catch (const Vex::RangeException& error) {
    // The text names the wrong item and what is allowed.
    addError(node, "vlans", quotedText(*list) + ": " + plainText(error.text()));
  }
}

void FileReader::readPorts(const toml::node& node) {
  readSection(node, "ports");
  const auto* table = node.as_table();
  if (table == nullptr) return;
  const toml::node* bridge = table->get("bridge");
  const toml::node* match = table->get("match");
  if (bridge == nullptr && match == nullptr) {
    addError(node, "ports", "neither bridge nor match; wanted: exactly one of the two");
  } else if (bridge != nullptr && match != nullptr) {
    addError(*match, "ports.match", "bridge stands here as well; wanted: exactly one of the two");
  }
  configuration_.ports = ports_;
}

void FileReader::readMatch(const toml::node& node) {
  const auto* array = node.as_array();
  if (array != nullptr && array->empty()) {
    return addError(node, "ports.match", "the list is empty; wanted: at least one pattern");
  }
  readList(node, "ports.match",
           {PortMatch::isPattern, "not a pattern", "1 to 255 bytes without NUL"}, ports_.match);
}

void FileReader::readSourceAddress(const toml::node& node) {
  using Kind = SourceAddress::Kind;
  const std::string allowed =
      "\"derived\", \"bridge\", or a unicast address such as \"02:00:00:00:00:01\"";
  const std::string* text = stringOf(node, "packet.source-address", "a string: " + allowed);
  if (text == nullptr) return;
  SourceAddress& out = configuration_.sourceAddress;
  if (*text == "derived" || *text == "bridge") {
    out = {*text == "bridge" ? Kind::bridge : Kind::derived, {}};
    return;
  }
  try {
    const auto address = Portus::EthAddr::parse(*text);
    if (address != Portus::EthAddr() && (address.bytes()[0] & 1U) == 0) {
      out = {Kind::fixed, address};
      return;
    }
  } catch (const Vex::RangeException&) {
    // Named below, with what is allowed besides addresses.
  }
  addTextError(node, "packet.source-address", *text, "no source address", allowed);
}

}  // namespace

ConfigurationResult readKeys(const toml::table& root, const std::string& file) {
  return FileReader(file).read(root);
}

}  // namespace Agent

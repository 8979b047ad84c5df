// SPDX-License-Identifier: Apache-2.0
#include <cstdint>
#include <sstream>
#include <string_view>
#include <utility>

#include "agent/ConfigurationReader.h"
#include "agent/Toml.h"

namespace Agent {

namespace {

// One "key = value" line; the quoting and escaping of the value are the library's. A table per
// line keeps our order of keys, which a single table would sort.
template <typename Value>
void writeLine(std::ostream& out, std::string_view key, Value&& value) {
  toml::table line;
  line.insert(key, std::forward<Value>(value));
  // Without the literal strings of the default flags: those have no escapes.
  out << toml::toml_formatter{line, toml::format_flags::allow_unicode_strings} << '\n';
}

std::string sourceAddressText(const SourceAddress& source) {
  switch (source.kind) {
    case SourceAddress::Kind::derived:
      return "derived";
    case SourceAddress::Kind::bridge:
      return "bridge";
    case SourceAddress::Kind::fixed:
      return source.fixed.toText();
  }
  return {};
}

toml::array arrayOf(const std::vector<std::string>& texts) {
  toml::array result;
  for (const std::string& text : texts) result.push_back(text);
  return result;
}

}  // namespace

std::string toText(const Configuration& configuration) {
  std::ostringstream out;
  writeLine(out, "enabled", configuration.enabled);
  writeLine(out, "vlans", configuration.vlans.toText());
  writeLine(out, "exclude", arrayOf(configuration.exclude));
  writeLine(out, "transmit-interval", std::int64_t{configuration.transmitInterval});
  writeLine(out, "disabled-time", std::int64_t{configuration.disabledTime});
  writeLine(out, "rate-limit", std::int64_t{configuration.rateLimit});
  writeLine(out, "state-file", configuration.stateFile);
  writeLine(out, "scheduling", std::string(schedulingName(configuration.scheduling)));
  if (configuration.ports) {
    out << "\n[ports]\n";
    if (!configuration.ports->bridge.empty()) {
      writeLine(out, "bridge", configuration.ports->bridge);
    } else {
      writeLine(out, "match", arrayOf(configuration.ports->match));
    }
    writeLine(out, "native-vlan", std::int64_t{configuration.ports->nativeVlan});
  }
  out << "\n[errdisable]\n";
  writeLine(out, "action",
            std::string(Platform::Linux::errdisableActionName(configuration.errdisableAction)));
  out << "\n[packet]\n";
  writeLine(out, "accept-foreign-source", configuration.acceptForeignSource);
  writeLine(out, "source-address", sourceAddressText(configuration.sourceAddress));
  out << "\n[counters]\n";
  writeLine(out, "shared", configuration.counters.shared);
  writeLine(out, "root", configuration.counters.root);
  writeLine(out, "interfaces", std::int64_t{configuration.counters.interfaces});
  writeLine(out, "vlans", std::int64_t{configuration.counters.vlans});
  out << "\n[control]\n";
  writeLine(out, "socket", configuration.control.socket);
  writeLine(out, "group", configuration.control.group);
  writeLine(out, "max-clients", std::int64_t{configuration.control.maxClients});
  return out.str();
}

}  // namespace Agent

// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as one or two configuration files: the reader returns, and what it accepts it also
// accepts, with the same meaning, after printing it; its patterns can be asked. Two configurations
// compare as their printed forms do, since a reload hands on nothing but what compares unequal.
//
// The input: the text of a file, perhaps the line "#####", then the text of another file. Or a zero
// byte, which begins no such text, and decisions: two configurations that differ in one key at most
// and need no parser to come into being.
#include <optional>
#include <string>
#include <string_view>

#include "agent/ConfigurationReader.h"
#include "agent/PortMatch.h"
#include "fuzz/Input.h"

namespace {

using Agent::Configuration;
using Fuzz::require;

constexpr std::string_view kBetween = "\n#####\n";

bool isOneLine(const std::string& text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return false;
  }
  return true;
}

// Any text of printable characters that the rules of configurations admit.
template <class Valid>
std::string textFrom(Fuzz::Input& input, Valid valid) {
  std::string text;
  for (const std::uint8_t byte : input.take(input.below(24))) {
    text += static_cast<char>(0x20 + byte % 0x5F);
  }
  return valid(text) ? text : "eth1";
}

bool isFileName(std::string_view text) { return !text.empty() && text.back() != '/'; }

constexpr std::size_t kKeys = 11;

void keyFrom(std::size_t key, Fuzz::Input& input, Configuration& configuration) {
  using Kind = Agent::SourceAddress::Kind;
  using Action = Agent::ErrdisableAction;
  switch (key) {
    case 0:
      configuration.enabled = input.flag() && configuration.ports;
      break;
    case 1:
      configuration.vlans.set(input.number<std::uint16_t>() % 4094U + 1);
      break;
    case 2:
      configuration.exclude = {textFrom(input, Agent::isInterfaceName)};
      break;
    case 3:
      configuration.transmitInterval = input.byte();
      break;
    case 4:
      configuration.disabledTime = input.number<std::uint32_t>();
      break;
    case 5:
      configuration.rateLimit = input.number<std::uint32_t>();
      break;
    case 6:
      configuration.stateFile = "/" + textFrom(input, isFileName);
      break;
    case 7: {
      constexpr Action kActions[] = {Action::automatic, Action::bridgePort, Action::protoDown,
                                     Action::adminDown, Action::monitor};
      configuration.errdisableAction = input.oneOf(kActions);
      break;
    }
    case 8:
      configuration.acceptForeignSource = input.flag();
      break;
    case 9: {
      constexpr Kind kKinds[] = {Kind::derived, Kind::bridge, Kind::fixed};
      configuration.sourceAddress = {input.oneOf(kKinds), {}};
      if (configuration.sourceAddress.kind == Kind::fixed) {
        configuration.sourceAddress.fixed = Portus::EthAddr(2, 0, 0, 0, input.byte(), input.byte());
      }
      break;
    }
    default:
      configuration.ports.emplace();
      if (input.flag()) {
        configuration.ports->bridge = textFrom(input, Agent::isInterfaceName);
      } else {
        configuration.ports->match = {textFrom(input, Agent::PortMatch::isPattern)};
      }
      configuration.ports->nativeVlan =
          static_cast<std::uint16_t>(input.number<std::uint16_t>() % 4094U + 1);
      break;
  }
}

void requireReadsBack(const Configuration& configuration) {
  const auto again = Agent::parseConfiguration(Agent::toText(configuration), "again");
  require(again.ok() && again.configuration() == configuration);
}

void requireComparesAsPrinted(const Configuration& a, const Configuration& b) {
  require((a == b) == (Agent::toText(a) == Agent::toText(b)));
}

void judgeMade(Fuzz::Input input) {
  Configuration before;
  for (std::size_t key = kKeys; key > 0; --key) keyFrom(key - 1, input, before);
  Configuration after = before;
  keyFrom(input.below(kKeys), input, after);
  requireReadsBack(before);
  requireReadsBack(after);
  requireComparesAsPrinted(before, after);
}

std::optional<Configuration> read(std::string_view content) {
  const Agent::ConfigurationResult result = Agent::parseConfiguration(content, "fuzz");
  if (!result.ok()) {
    require(!result.errors().empty());
    for (const auto& error : result.errors()) require(isOneLine(Agent::toText(error)));
    return std::nullopt;
  }
  const Configuration& configuration = result.configuration();
  requireReadsBack(configuration);
  if (configuration.ports) {
    const Agent::PortMatch match(configuration.ports->match);
    require(!match.matches("lo"));
    match.matches("eth1");
  }
  return configuration;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 0 && data[0] == 0) {
    judgeMade(Fuzz::Input({data + 1, size - 1}));
    return 0;
  }
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  const std::size_t end = content.find(kBetween);
  const auto first = read(content.substr(0, end));
  if (end == std::string_view::npos) return 0;
  const auto second = read(content.substr(end + kBetween.size()));
  if (first && second) requireComparesAsPrinted(*first, *second);
  return 0;
}

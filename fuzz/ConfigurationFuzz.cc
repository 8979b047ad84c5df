// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as one or two configuration files: the reader returns, and what it accepts it also
// accepts, with the same meaning, after printing it; its patterns can be asked. Two configurations
// compare as their printed forms do, since a reload hands on nothing but what compares unequal.
//
// The input: the text of a file, perhaps the line "#####", then the text of another file.
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

std::optional<Configuration> read(std::string_view content) {
  const Agent::ConfigurationResult result = Agent::parseConfiguration(content, "fuzz");
  if (!result.ok()) {
    require(!result.errors().empty());
    for (const auto& error : result.errors()) require(isOneLine(Agent::toText(error)));
    return std::nullopt;
  }
  const Configuration& configuration = result.configuration();
  const auto again = Agent::parseConfiguration(Agent::toText(configuration), "again");
  require(again.ok() && again.configuration() == configuration);
  if (configuration.ports) {
    const Agent::PortMatch match(configuration.ports->match);
    require(!match.matches("lo"));
    match.matches("eth1");
  }
  return configuration;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view content(reinterpret_cast<const char*>(data), size);
  const std::size_t end = content.find(kBetween);
  const auto first = read(content.substr(0, end));
  if (end == std::string_view::npos) return 0;
  const auto second = read(content.substr(end + kBetween.size()));
  if (first && second) {
    require((*first == *second) == (Agent::toText(*first) == Agent::toText(*second)));
  }
  return 0;
}

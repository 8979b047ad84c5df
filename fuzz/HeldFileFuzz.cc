// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as the file of held ports: the reader gives ports or an error, never both, and raises
// nothing. What it accepts keeps the rules of HeldPort and reads back equal after writing it.
//
// The input: the text of the file. A text of the boot "fuzz" is of this boot.
#include <cmath>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "agent/Configuration.h"
#include "agent/HeldFile.h"
#include "fuzz/Input.h"

namespace {

using Agent::HeldPort;
using Fuzz::require;
using Action = Platform::Linux::ErrdisableAction;

constexpr std::string_view kBoot = "fuzz";
constexpr std::size_t kLongestError = 512;

bool isOneLine(const std::string& text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return false;
  }
  return text.size() <= kLongestError;
}

bool isTime(double seconds) { return std::isfinite(seconds) && seconds >= 0; }

bool isHeld(const HeldPort& port) {
  const bool acts = port.action == Action::bridgePort || port.action == Action::protoDown ||
                    port.action == Action::adminDown;
  return Agent::isInterfaceName(port.interface) && port.ifindex > 0 && acts && isTime(port.since) &&
         isTime(port.until);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error = "of an earlier call";
  const std::vector<HeldPort> ports = Agent::parseHeldPorts(text, kBoot, error);
  require(isOneLine(error));
  require(ports.empty() || error.empty());

  std::set<std::string> names;
  for (const HeldPort& port : ports) {
    require(isHeld(port));
    require(names.insert(port.interface).second);
  }
  const std::string written = Agent::toText(ports, kBoot);
  require(Agent::parseHeldPorts(written, kBoot, error) == ports && error.empty());
  // To another boot a well-formed list is empty, and no error.
  require(Agent::parseHeldPorts(written, "another", error).empty() && error.empty());
  return 0;
}

// SPDX-License-Identifier: Apache-2.0
#include "agent/PortMatch.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <utility>

#include "agent/Configuration.h"
#include "runtime/vex/Exception.h"

namespace Agent {

bool PortMatch::isPattern(std::string_view text) {
  return !text.empty() && text.size() <= kMaxPatternSize &&
         text.find('\0') == std::string_view::npos;
}

PortMatch::PortMatch(std::vector<std::string> patterns) : patterns_(std::move(patterns)) {
  for (const std::string& pattern : patterns_) {
    if (!isPattern(pattern)) {
      Vex::throwRangeException(quotedText(pattern) +
                               " is not a port pattern; allowed: 1 to 255 bytes without NUL");
    }
  }
}

bool PortMatch::matches(std::string_view name) const {
  if (name == "lo" || !isInterfaceName(name)) return false;
  // fnmatch(3) wants a terminated string, which a view need not be.
  std::array<char, kMaxInterfaceNameSize + 1> terminated{};
  std::copy(name.begin(), name.end(), terminated.begin());
  return std::any_of(patterns_.begin(), patterns_.end(), [&](const std::string& pattern) {
    return fnmatch(pattern.c_str(), terminated.data(), 0) == 0;
  });
}

}  // namespace Agent

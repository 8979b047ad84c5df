// SPDX-License-Identifier: Apache-2.0
//
// A list of shell patterns that selects interfaces by name, with the rules of fnmatch(3) and no
// flags: '*', '?', "[a-z]", "[!a-z]" and '\' as the escape; a leading dot is not special.
//
// An object is constant after construction, so any thread may ask it. It copies the patterns.
//
// Invariants:
//  1. The loopback interface "lo" never matches, whatever the patterns are.
//  2. A text that cannot be the name of an interface never matches.
//  3. A list without patterns matches nothing.
//  4. An answer allocates nothing, and its cost is bounded: a name has at most 15 bytes and a
//     pattern at most kMaxPatternSize.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

class PortMatch {
 public:
  // Bytes. Far above any useful pattern, and small enough to keep fnmatch(3) off the heap.
  static constexpr std::size_t kMaxPatternSize = 255;

  // Whether `text` may stand in the list: 1 to kMaxPatternSize bytes, none of them NUL.
  static bool isPattern(std::string_view text);

  // Throws Vex::RangeException, naming the pattern, when one is not a pattern.
  explicit PortMatch(std::vector<std::string> patterns);

  bool matches(std::string_view name) const;

  const std::vector<std::string>& patterns() const { return patterns_; }

 private:
  std::vector<std::string> patterns_;
};

}  // namespace Agent

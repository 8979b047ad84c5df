// SPDX-License-Identifier: Apache-2.0
//
// Whether a table at rest is one that the next writer keeps: what docs/formats.md says under "What
// holds at rest", written from that page alone and sharing nothing with the store. The other half
// of a test of recovery: a table may be lost exactly where this says so, and nowhere else.
//
// For tables whose keys are Numbers, as long as nobody writes them.
#pragma once

#include <cstdint>
#include <string>

namespace QuillTest {

struct Verdict {
  bool sound = false;
  std::uint32_t fenix = 0;  // what the file says, 0 for none
  std::string reason;       // why not
};

Verdict judgeTable(const std::string& directory);

}  // namespace QuillTest
